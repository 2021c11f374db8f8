#include "palomir/dispatch.hpp"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace palomir {

namespace {

// The queue whose work the calling thread is running, if any. Compared by
// address only, never dereferenced.
thread_local const void* tCurrentQueue = nullptr;

class CurrentQueueScope {
public:
    explicit CurrentQueueScope(const void* queue) : _previous(tCurrentQueue) { tCurrentQueue = queue; }
    ~CurrentQueueScope() { tCurrentQueue = _previous; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

private:
    const void* _previous;
};

// The worker owns this state, not the queue object, so that dropping the last
// reference to the queue (even from inside its own work) never has to wait
// for or join the worker.
struct SerialState {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<DispatchQueue::Work> pending;
    bool closed = false;
};

void runSerialWorker(std::shared_ptr<SerialState> state) {
    for (;;) {
        DispatchQueue::Work work;
        {
            std::unique_lock lock(state->mutex);
            state->wake.wait(lock, [&] { return state->closed || !state->pending.empty(); });
            if (state->pending.empty()) return;  // closed and drained
            work = std::move(state->pending.front());
            state->pending.pop_front();
        }
        CurrentQueueScope scope(state.get());
        if (work) work();
        // Captures die here, inside the scope and outside the lock: they may
        // hold the last reference to this very queue.
        work = nullptr;
    }
}

class SerialQueue final : public DispatchQueue {
public:
    explicit SerialQueue(std::string label) : _label(std::move(label)), _state(std::make_shared<SerialState>()) {
        std::thread worker(runSerialWorker, _state);
        // Thread names are limited to 15 bytes; the label helps in a debugger.
        pthread_setname_np(worker.native_handle(), _label.substr(0, 15).c_str());
        worker.detach();
    }

    ~SerialQueue() override {
        {
            std::lock_guard lock(_state->mutex);
            _state->closed = true;
        }
        _state->wake.notify_one();
    }

    void async(Work work) override {
        {
            std::lock_guard lock(_state->mutex);
            _state->pending.push_back(std::move(work));
        }
        _state->wake.notify_one();
    }

    bool isCurrent() const override { return tCurrentQueue == _state.get(); }
    const std::string& label() const override { return _label; }

private:
    std::string _label;
    std::shared_ptr<SerialState> _state;
};

}  // namespace

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> DispatchQueue::makeSerial(std::string label) {
    return std::make_shared<SerialQueue>(std::move(label));
}

// --- Main queue -------------------------------------------------------------

struct MainQueue::State {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<Work> pending;
    Poster poster;
    const std::string label = "main";
};

namespace {

DispatchQueue::Work markedAsMain(const MainQueue::State* state, DispatchQueue::Work work) {
    return [state, work = std::move(work)] {
        CurrentQueueScope scope(state);
        if (work) work();
    };
}

}  // namespace

MainQueue::MainQueue(std::shared_ptr<State> state) : _state(std::move(state)) {}

std::shared_ptr<MainQueue> MainQueue::shared() {
    // Never destroyed: work may still be posted while static objects die.
    static auto* const instance = new std::shared_ptr<MainQueue>(std::make_shared<MainQueue>(std::make_shared<State>()));
    return *instance;
}

void MainQueue::async(Work work) {
    Poster poster;
    {
        std::lock_guard lock(_state->mutex);
        if (!_state->poster) {
            _state->pending.push_back(std::move(work));
            _state->arrived.notify_all();
            return;
        }
        poster = _state->poster;
    }
    // Outside the lock: a poster may well call back into this queue.
    poster(markedAsMain(_state.get(), std::move(work)));
}

bool MainQueue::isCurrent() const { return tCurrentQueue == _state.get(); }

const std::string& MainQueue::label() const { return _state->label; }

void MainQueue::bind(Poster poster) {
    std::deque<Work> handed;
    {
        std::lock_guard lock(_state->mutex);
        _state->poster = poster;
        if (poster) handed.swap(_state->pending);
    }
    for (auto& work : handed) poster(markedAsMain(_state.get(), std::move(work)));
}

std::size_t MainQueue::drain() {
    std::deque<Work> batch;
    {
        std::lock_guard lock(_state->mutex);
        batch.swap(_state->pending);
    }
    CurrentQueueScope scope(_state.get());
    for (auto& work : batch) {
        if (work) work();
        work = nullptr;
    }
    return batch.size();
}

bool MainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // `done` may turn true on another thread without posting anything, so
    // waiting for new work is cut into short slices.
    constexpr auto kSlice = std::chrono::milliseconds(5);
    for (;;) {
        drain();
        if (done()) return true;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        std::unique_lock lock(_state->mutex);
        _state->arrived.wait_until(lock, std::min(deadline, now + kSlice), [&] { return !_state->pending.empty(); });
    }
}

std::shared_ptr<DispatchQueue> mainQueue() { return MainQueue::shared(); }

// --- Group ------------------------------------------------------------------

struct DispatchGroup::State {
    std::mutex mutex;
    std::condition_variable zero;
    std::size_t count = 0;
    std::vector<std::pair<std::shared_ptr<DispatchQueue>, DispatchQueue::Work>> notifications;
};

DispatchGroup::DispatchGroup() : _state(std::make_shared<State>()) {}
DispatchGroup::~DispatchGroup() = default;

void DispatchGroup::enter() {
    std::lock_guard lock(_state->mutex);
    ++_state->count;
}

void DispatchGroup::leave() {
    std::vector<std::pair<std::shared_ptr<DispatchQueue>, DispatchQueue::Work>> due;
    {
        std::lock_guard lock(_state->mutex);
        if (_state->count == 0) return;  // unbalanced leave: ignoring beats underflow
        if (--_state->count != 0) return;
        due.swap(_state->notifications);
        _state->zero.notify_all();
    }
    for (auto& [queue, work] : due) queue->async(std::move(work));
}

void DispatchGroup::wait() {
    std::unique_lock lock(_state->mutex);
    _state->zero.wait(lock, [&] { return _state->count == 0; });
}

bool DispatchGroup::waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(_state->mutex);
    return _state->zero.wait_for(lock, timeout, [&] { return _state->count == 0; });
}

void DispatchGroup::notify(std::shared_ptr<DispatchQueue> queue, DispatchQueue::Work work) {
    if (!queue) queue = mainQueue();
    {
        std::lock_guard lock(_state->mutex);
        if (_state->count != 0) {
            _state->notifications.emplace_back(std::move(queue), std::move(work));
            return;
        }
    }
    queue->async(std::move(work));
}

}  // namespace palomir
