#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "palomir/export.hpp"

namespace palomir {

/// Where work runs. Every completion Palomir delivers goes through a queue,
/// and always asynchronously: `async` never runs the work inline, not even
/// when called from the queue itself.
class PALOMIR_API DispatchQueue {
public:
    using Work = std::function<void()>;

    virtual ~DispatchQueue();

    /// Enqueues work; returns at once.
    virtual void async(Work work) = 0;
    /// True while the calling thread is running work of this queue.
    virtual bool isCurrent() const = 0;
    virtual const std::string& label() const = 0;

    /// A serial queue with its own worker thread: work runs one item at a
    /// time, in submission order. The worker finishes the pending work and
    /// ends when the last reference to the queue is dropped.
    static std::shared_ptr<DispatchQueue> makeSerial(std::string label);
};

/// The queue of the host's user-interface thread. A host either binds it to
/// its event loop (each item is handed to `poster`, which must run it on the
/// UI thread later), or drains it from its own loop. Until bound, work
/// waits in the queue for `drain`.
class PALOMIR_API MainQueue final : public DispatchQueue {
public:
    using Poster = std::function<void(Work)>;

    static std::shared_ptr<MainQueue> shared();

    void async(Work work) override;
    bool isCurrent() const override;
    const std::string& label() const override;

    /// Hands every pending and future item to `poster`. An empty poster unbinds.
    void bind(Poster poster);
    /// Runs the items pending now (and none queued by them) on the calling
    /// thread, which becomes the main thread while it does. Returns the count.
    std::size_t drain();
    /// Drains repeatedly until `done` returns true or the timeout passes.
    /// Returns whether `done` became true.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    struct State;
    explicit MainQueue(std::shared_ptr<State> state);

private:
    std::shared_ptr<State> _state;
};

/// Shorthand for MainQueue::shared() as a plain queue.
PALOMIR_API std::shared_ptr<DispatchQueue> mainQueue();

/// Counts outstanding asynchronous work: enter before starting, leave when
/// done; wait blocks until the count returns to zero.
class PALOMIR_API DispatchGroup {
public:
    DispatchGroup();
    ~DispatchGroup();
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    void enter();
    void leave();
    /// Blocks until every enter has been matched by a leave.
    void wait();
    /// As wait, up to a limit; returns false when the limit passed first.
    bool waitFor(std::chrono::milliseconds timeout);
    /// Runs work on queue once the count is zero (at once if it is now).
    void notify(std::shared_ptr<DispatchQueue> queue, DispatchQueue::Work work);

private:
    struct State;
    std::shared_ptr<State> _state;
};

}  // namespace palomir
