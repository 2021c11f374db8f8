#pragma once

/// @file
/// Queues: where completions, notifications and screen work run.

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
    /// One item of work; it runs once.
    using Work = std::function<void()>;

    /// Queues are shared; work already queued keeps its queue alive.
    virtual ~DispatchQueue();

    /// Enqueues work; returns at once.
    virtual void async(Work work) = 0;
    /// True while the calling thread is running work of this queue.
    virtual bool isCurrent() const = 0;
    /// The name given at creation, for logs and debuggers; borrowed from the queue.
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
    /// Hands one item to the host's event loop; called from any thread.
    using Poster = std::function<void(Work)>;

    /// The one main queue of the process; never destroyed.
    static std::shared_ptr<MainQueue> shared();

    /// Queues work for the UI thread; returns at once, from any thread.
    void async(Work work) override;
    /// True on the thread that drains the queue or runs the poster's items.
    bool isCurrent() const override;
    /// The main queue's name, for logs.
    const std::string& label() const override;

    /// Hands every pending and future item to `poster`. An empty poster unbinds.
    void bind(Poster poster);
    /// Runs the items pending now (and none queued by them) on the calling
    /// thread, which becomes the main thread while it does. Returns the count.
    std::size_t drain();
    /// Drains repeatedly until `done` returns true or the timeout passes.
    /// Returns whether `done` became true.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    /// Internal: made by shared() only.
    struct State;
    /// Internal: use shared().
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
    /// A group with a count of zero.
    DispatchGroup();
    /// Keep the group alive while work it counts may still call leave().
    ~DispatchGroup();
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    /// Counts one more piece of outstanding work.
    void enter();
    /// Marks one piece as done; each call must match an earlier enter().
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
