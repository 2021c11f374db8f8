#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "logging/log_files.hpp"
#include "palomir/logging.hpp"

namespace palomir {

namespace {

// Text waiting for the disk, per logger. A disk that stalls must not stall
// the callers nor eat the process's memory, so beyond this lines are dropped
// (and counted) instead of waited for.
constexpr std::size_t kPendingBound = 4u << 20;

// A batch buffer the writer keeps between batches; a burst's larger one is
// given back so that an idle logger holds little memory.
constexpr std::size_t kKeptCapacity = 64u << 10;

// How long the process's exit waits for the writer.
constexpr auto kExitDrain = std::chrono::seconds(2);

// Guards the open file, its path and the reported-error flag of every file logger.
std::mutex gSessionLock;

}  // namespace

struct FileLogger::State {
    std::shared_ptr<const LogFormatter> formatter;

    // Set before the state is shared, then the writer's alone.
    int fd = -1;
    // Under gSessionLock.
    std::optional<std::filesystem::path> fileURL;
    bool haveReportedWriteError = false;

    // Set once the file is open; read without a lock on every log call.
    std::atomic<bool> open{false};

    // Under the queue's mutex. Callers append to `pending`; the writer swaps
    // it for `spare` and writes the batch while `writing` counts it against
    // the bound. Each run of dropped lines is remembered by where in
    // `pending` its line goes.
    struct Drop {
        std::size_t at;
        std::uint64_t lines;
    };
    std::string pending, spare;
    std::vector<Drop> drops;
    std::size_t writing = 0;
    std::uint64_t logged = 0;   // lines accepted or dropped so far
    std::uint64_t written = 0;  // of those, the ones the writer is done with
    bool queued = false;
    bool closing = false;

    // On the writer thread.
    void write(const std::string& batch, const std::vector<Drop>& dropped);
    bool writeAll(std::string_view text);
    void close();
};

namespace {

// gFileQueue: the one writer thread of all file loggers. It sleeps on a
// condition variable until a logger has text, takes that logger's whole
// pending buffer at once and writes it with as few calls as the kernel takes.
class FileQueue {
public:
    using State = FileLogger::State;

    static FileQueue& shared() {
        // Never destroyed: loggers may outlive static destruction order.
        static FileQueue* queue = [] {
            auto* q = new FileQueue;
            std::atexit([] { FileQueue::shared().drainBeforeExit(); });
            return q;
        }();
        return *queue;
    }

    // Takes the line unless the logger's text would pass the bound. Never waits
    // for the writer beyond the few instructions another caller holds the lock.
    void append(const std::shared_ptr<State>& state, const std::string& line) {
        bool wake = false;
        {
            std::lock_guard lock(_mutex);
            ++state->logged;
            if (state->pending.size() + state->writing + line.size() > kPendingBound) {
                if (state->drops.empty() || state->drops.back().at != state->pending.size())
                    state->drops.push_back({state->pending.size(), 0});
                ++state->drops.back().lines;
            } else {
                state->pending.append(line);
            }
            wake = enqueue(state);
        }
        // Woken after the lock is free, the writer need not block again on it.
        if (wake) _wake.notify_one();
    }

    void close(const std::shared_ptr<State>& state) {
        bool wake = false;
        {
            std::lock_guard lock(_mutex);
            state->closing = true;
            wake = enqueue(state);
        }
        if (wake) _wake.notify_one();
    }

    void flush(const std::shared_ptr<State>& state) {
        std::unique_lock lock(_mutex);
        const std::uint64_t target = state->logged;
        _done.wait(lock, [&] { return state->written >= target; });
    }

private:
    FileQueue() {
        // The writer takes none of the host's signals; a write to a pipe
        // without a reader then fails with EPIPE instead of killing the process.
        sigset_t all, previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        std::thread([this] {
            pthread_setname_np(pthread_self(), "palomir-log");
            run();
        }).detach();
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }

    bool enqueue(const std::shared_ptr<State>& state) {
        if (state->queued) return false;
        state->queued = true;
        _ready.push_back(state);
        return true;
    }

    void run() {
        std::unique_lock lock(_mutex);
        for (;;) {
            _wake.wait(lock, [this] { return !_ready.empty(); });
            std::shared_ptr<State> state = std::move(_ready.front());
            _ready.pop_front();
            state->queued = false;
            std::string batch = std::exchange(state->pending, std::move(state->spare));
            const auto drops = std::exchange(state->drops, {});
            const std::uint64_t upTo = state->logged;
            state->writing = batch.size();
            _busy = true;
            lock.unlock();

            state->write(batch, drops);
            batch.clear();
            if (batch.capacity() > kKeptCapacity) batch = std::string();

            lock.lock();
            state->spare = std::move(batch);
            state->writing = 0;
            state->written = upTo;
            _busy = false;
            // A destroyed logger cannot log again, so once it is written it is done.
            if (state->closing && !state->queued) {
                lock.unlock();
                state->close();
                lock.lock();
            }
            _done.notify_all();
        }
    }

    // Lines logged just before the process ends still reach their files,
    // unless the disk holds the writer longer than an exit may wait.
    void drainBeforeExit() {
        std::unique_lock lock(_mutex);
        _done.wait_for(lock, kExitDrain, [this] { return _ready.empty() && !_busy; });
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::condition_variable _done;
    std::deque<std::shared_ptr<State>> _ready;
    bool _busy = false;
};

}  // namespace

void FileLogger::State::write(const std::string& batch, const std::vector<Drop>& dropped) {
    std::size_t from = 0;
    for (const Drop& drop : dropped) {
        if (!writeAll(std::string_view(batch).substr(from, drop.at - from))) return;
        from = drop.at;
        const std::string message = "dropped " + std::to_string(drop.lines) + " log lines";
        if (!writeAll(formatter ? formatter->format(message, LogType::error) : message)) return;
    }
    writeAll(std::string_view(batch).substr(from));
}

// A failed batch is given up: the next one may find room again.
bool FileLogger::State::writeAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int code = n < 0 ? errno : EIO;
            {
                std::lock_guard lock(gSessionLock);
                if (std::exchange(haveReportedWriteError, true)) return false;
            }
            printLine("Palomir FileLogger: Error writing: %d " + std::to_string(code));
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// The orderly close of the file reports code 0 like any other end of it.
void FileLogger::State::close() {
    {
        std::lock_guard lock(gSessionLock);
        ::close(fd);
        fd = -1;
        fileURL.reset();
        open.store(false, std::memory_order_relaxed);
    }
    printLine("Failed to create log file io 0");
}

FileLogger::FileLogger(std::string filePrefix, std::shared_ptr<const LogFormatter> logFormatter, LogType level,
                       unsigned keepLogfiles)
    : _filePrefix(std::move(filePrefix)), _logLevel(level), _state(std::make_shared<State>()) {
    _state->formatter = std::move(logFormatter);

    // Pruning before the new file exists leaves room for it.
    pruneLogFiles(logFiles(), keepLogfiles);

    auto url = newLogFileURL(_filePrefix);
    if (!url) return;
    const std::string path = url->string();
    if (path.find('\0') != std::string::npos) return;

    int openError = 0;
    {
        std::lock_guard lock(gSessionLock);
        const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            _state->fd = fd;
            _state->fileURL = *url;
            _state->open.store(true, std::memory_order_release);
        } else {
            openError = errno;
        }
    }
    printLine("Created file logger with log path: " + fileUrlText(*url));
    if (openError != 0) printLine("Failed to create log file io " + std::to_string(openError));
}

// Lines logged so far are still written; the writer closes the file after them.
FileLogger::~FileLogger() {
    if (_state->open.load(std::memory_order_acquire)) FileQueue::shared().close(_state);
}

void FileLogger::log(const std::string& message, LogType type) {
    if (type > _logLevel) return;
    const std::string text = _state->formatter ? _state->formatter->format(message, type) : message;
    if (text.empty()) return;
    if (!_state->open.load(std::memory_order_acquire)) {
        printLine("Palomir FileLogger: Error writing: no file I/O");
        return;
    }
    FileQueue::shared().append(_state, text);
}

void FileLogger::flush() {
    if (_state->open.load(std::memory_order_acquire)) FileQueue::shared().flush(_state);
}

std::optional<std::filesystem::path> FileLogger::currentLogFile() const {
    std::lock_guard lock(gSessionLock);
    return _state->fileURL;
}

}  // namespace palomir
