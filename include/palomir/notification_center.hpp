#pragma once

/// @file
/// Name-based notifications: how the client announces fetched services.

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "palomir/dispatch.hpp"
#include "palomir/export.hpp"

namespace palomir {

/// One post, as an observer receives it.
struct Notification {
    /// The name it was posted under.
    std::string name;
    /// What the poster attached; for the client's notifications a Service or a
    /// std::vector<Service>. Empty when nothing was attached.
    std::any object;
};

/// Observers registered by name; a post reaches every observer whose name is
/// equal to the posted one (two names with the same text are one name).
/// Thread-safe. Observers without a queue run on the posting thread.
class PALOMIR_API NotificationCenter {
public:
    /// Called once per matching post, with a notification that is valid for the call only.
    using Observer = std::function<void(const Notification&)>;

    /// Identifies one registration, for removal.
    class Token {
    public:
        /// A token that identifies no registration.
        Token() = default;
        /// Whether it came from addObserver().
        bool valid() const { return _id != 0; }
        /// Equal when they identify the same registration.
        friend bool operator==(const Token&, const Token&) = default;

    private:
        friend class NotificationCenter;
        explicit Token(std::uint64_t id) : _id(id) {}
        std::uint64_t _id = 0;
    };

    /// An empty center; the client owns one, Palomir::notificationCenter().
    NotificationCenter();
    /// Releases the observers; a post already queued may still reach its observer.
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// `queue` may be null: the observer then runs synchronously inside post.
    Token addObserver(std::string name, std::shared_ptr<DispatchQueue> queue, Observer observer);
    /// After this returns, the observer is not called for later posts. Safe
    /// to call from inside an observer.
    void removeObserver(const Token& token);
    /// Calls every observer of `name`: those without a queue at once on this
    /// thread, the others asynchronously on their queue. Observers added while
    /// the post is under way are not called by it.
    void post(std::string_view name, std::any object = {});

private:
    struct Entry;
    mutable std::mutex _mutex;
    std::vector<std::shared_ptr<Entry>> _entries;
    std::uint64_t _nextId = 1;
};

}  // namespace palomir
