#pragma once

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

struct Notification {
    std::string name;
    std::any object;
};

/// Observers registered by name; a post reaches every observer whose name is
/// equal to the posted one (two names with the same text are one name).
/// Thread-safe. Observers without a queue run on the posting thread.
class PALOMIR_API NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    /// Identifies one registration, for removal.
    class Token {
    public:
        Token() = default;
        bool valid() const { return _id != 0; }
        friend bool operator==(const Token&, const Token&) = default;

    private:
        friend class NotificationCenter;
        explicit Token(std::uint64_t id) : _id(id) {}
        std::uint64_t _id = 0;
    };

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// `queue` may be null: the observer then runs synchronously inside post.
    Token addObserver(std::string name, std::shared_ptr<DispatchQueue> queue, Observer observer);
    /// After this returns, the observer is not called for later posts. Safe
    /// to call from inside an observer.
    void removeObserver(const Token& token);
    void post(std::string_view name, std::any object = {});

private:
    struct Entry;
    mutable std::mutex _mutex;
    std::vector<std::shared_ptr<Entry>> _entries;
    std::uint64_t _nextId = 1;
};

}  // namespace palomir
