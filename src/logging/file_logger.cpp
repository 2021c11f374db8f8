#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>
#include <thread>

#include "logging/log_clock.hpp"
#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace palomir {

namespace {

constexpr const char* kQueueLabel = "io.palomir.Palomir.FileLogger";

// A caller blocks only when this much text is waiting for the disk: far more
// than any burst of a healthy app, and it keeps a stalled disk from eating
// the process's memory without ever dropping a line.
constexpr std::size_t kMaxPendingBytes = 8u << 20;

// Pending text beyond this wakes the writer before its doze ends, which keeps
// the buffers small enough to stay in cache.
constexpr std::size_t kHurryBytes = 256u << 10;

// Guards the open file, its path and the reported-error flag of every file logger.
std::mutex gSessionLock;

void printLine(const std::string& text) {
    std::string line = text;
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

bool isUrlPathCharacter(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return std::strchr("-._~!$&'()*+,;=:@/", c) != nullptr && c != '\0';
}

// The absolute URL text of a file, as hosts see it in the printed path.
std::string fileUrlText(const std::filesystem::path& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text = "file://";
    for (unsigned char c : path.string()) {
        if (isUrlPathCharacter(c)) {
            text.push_back(static_cast<char>(c));
        } else {
            text.push_back('%');
            text.push_back(kHex[c >> 4]);
            text.push_back(kHex[c & 15]);
        }
    }
    return text;
}

// Creation (birth) time where the file system records one, else the last
// modification time; nothing when neither can be read.
std::optional<std::int64_t> creationNanoseconds(const std::filesystem::path& path) {
#ifdef STATX_BTIME
    struct statx sx{};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME | STATX_MTIME, &sx) == 0) {
        const auto& t = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime;
        if ((sx.stx_mask & (STATX_BTIME | STATX_MTIME)) != 0)
            return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
        return std::nullopt;
    }
#endif
    struct stat st{};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

}  // namespace

struct FileLogger::State {
    ~State() {
        if (fd >= 0) ::close(fd);
    }

    // Under gSessionLock.
    int fd = -1;
    std::optional<std::filesystem::path> fileURL;
    bool haveReportedWriteError = false;

    // Set once the file is open; read without a lock on every log call.
    std::atomic<bool> open{false};

    // Lines not yet handed to the disk, and how far the writer has come.
    std::mutex mutex;
    std::condition_variable progressed;
    std::string pending;
    std::string spare;
    std::uint64_t appendedBytes = 0;
    std::uint64_t writtenBytes = 0;
    bool queued = false;

    void drain();
    void reportWriteError(int code);
};

namespace {

// The one writer thread of all file loggers. A state is queued at most once
// at a time; the writer takes its whole pending text in one swap and writes it
// with as few system calls as the kernel allows.
//
// Waking a sleeping thread is a system call on the logging thread, so callers
// avoid it: after a batch the writer only dozes for a short while and comes
// back by itself, and only a writer that found nothing to do and fell asleep
// for good is woken by the next line. Much pending text or a flush wakes it early.
class FileQueue {
public:
    static FileQueue& shared() {
        // Never destroyed: loggers may outlive static destruction order.
        static FileQueue* queue = [] {
            auto* q = new FileQueue;
            std::atexit([] { FileQueue::shared().drainBeforeExit(); });
            return q;
        }();
        return *queue;
    }

    void enqueue(std::shared_ptr<FileLogger::State> state) {
        std::lock_guard lock(_mutex);
        _ready.push_back(std::move(state));
        if (_mode == Mode::asleep) _wake.notify_one();
    }

    // Asks for the pending text now rather than at the end of the doze.
    void hurry() {
        std::lock_guard lock(_mutex);
        _hurry = true;
        if (_mode != Mode::working) _wake.notify_one();
    }

private:
    enum class Mode { working, dozing, asleep };
    static constexpr auto kDoze = std::chrono::milliseconds(2);

    FileQueue() { std::thread([this] { run(); }).detach(); }

    void run() {
        std::vector<std::shared_ptr<FileLogger::State>> batch;
        std::unique_lock lock(_mutex);
        for (;;) {
            if (_ready.empty()) {
                _mode = Mode::asleep;
                _done.notify_all();
                _wake.wait(lock, [this] { return !_ready.empty(); });
            }
            if (!_hurry) {
                _mode = Mode::dozing;
                _wake.wait_for(lock, kDoze, [this] { return _hurry; });
            }
            _hurry = false;
            _mode = Mode::working;
            batch.swap(_ready);
            lock.unlock();
            for (auto& state : batch) state->drain();
            batch.clear();  // the last reference to a destroyed logger's state closes its file here
            lock.lock();
        }
    }

    // Lines logged just before the process ends still reach their files.
    void drainBeforeExit() {
        std::unique_lock lock(_mutex);
        _hurry = true;
        _wake.notify_one();
        _done.wait_for(lock, std::chrono::seconds(2), [this] { return _ready.empty() && _mode == Mode::asleep; });
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::condition_variable _done;
    std::vector<std::shared_ptr<FileLogger::State>> _ready;
    Mode _mode = Mode::working;
    bool _hurry = false;
};

}  // namespace

void FileLogger::State::drain() {
    std::string batch;
    std::uint64_t end;
    {
        std::lock_guard lock(mutex);
        batch.swap(spare);
        batch.swap(pending);
        end = appendedBytes;
        queued = false;
    }
    const char* data = batch.data();
    std::size_t left = batch.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            reportWriteError(errno);
            break;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    batch.clear();
    {
        std::lock_guard lock(mutex);
        writtenBytes = end;
        if (batch.capacity() <= kMaxPendingBytes) spare.swap(batch);
    }
    progressed.notify_all();
}

void FileLogger::State::reportWriteError(int code) {
    {
        std::lock_guard lock(gSessionLock);
        if (haveReportedWriteError) return;
        haveReportedWriteError = true;
    }
    printLine("Palomir FileLogger: Error writing: %d " + std::to_string(code));
}

std::optional<std::filesystem::path> FileLogger::logDirectory() {
    std::filesystem::path caches = cachesDirectory();
    if (caches.empty()) return std::nullopt;
    std::error_code ec;
    std::filesystem::path absolute = std::filesystem::absolute(caches, ec);
    if (ec) return std::nullopt;
    return absolute / kQueueLabel / "Logs";
}

namespace {

std::optional<std::filesystem::path> newLogFileURL(const std::string& filePrefix) {
    auto directory = FileLogger::logDirectory();
    if (!directory) return std::nullopt;
    std::error_code ec;
    std::filesystem::create_directories(*directory, ec);
    if (ec) {
        printLine("Failed to create log directory " + ec.message());
        return std::nullopt;
    }
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", &tm);
    std::string name = "palomir-" + filePrefix + "-" + stamp;
    // A name that is no single path component cannot carry an extension of its own.
    if (name.find('/') != std::string::npos) {
        printLine("Failed to create log filename");
        return std::nullopt;
    }
    return *directory / (name + ".log");
}

}  // namespace

FileLogger::FileLogger(std::string filePrefix, std::shared_ptr<const LogFormatter> logFormatter, LogType level,
                       unsigned keepLogfiles)
    : _filePrefix(std::move(filePrefix)),
      _logLevel(level),
      _logFormatter(std::move(logFormatter)),
      _state(std::make_shared<State>()) {
    if (auto* palomir = dynamic_cast<const PalomirLogFormatter*>(_logFormatter.get())) _clock = palomir->_clock;

    // Pruning before the new file exists leaves room for it.
    const auto oldFiles = logFiles();
    std::size_t count = oldFiles.size();
    if (count >= keepLogfiles) {
        std::size_t remove = std::min<std::size_t>(count - keepLogfiles + 1, oldFiles.size());
        for (std::size_t i = 0; i < remove; ++i) {
            std::error_code ec;
            std::filesystem::remove(oldFiles[i], ec);
        }
    }

    auto url = newLogFileURL(_filePrefix);
    if (!url) return;
    const std::string path = url->string();
    if (path.find('\0') != std::string::npos) return;

    int openError = 0;
    {
        std::lock_guard lock(gSessionLock);
        int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
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

// The writer keeps the state alive until every line logged so far is written.
FileLogger::~FileLogger() = default;

void FileLogger::log(const std::string& message, LogType type) {
    if (type > _logLevel) return;
    if (!_logFormatter && message.empty()) return;

    State& state = *_state;
    if (!state.open.load(std::memory_order_acquire)) {
        printLine("Palomir FileLogger: Error writing: no file I/O");
        return;
    }

    // The line is put together before the lock so that the lock covers one copy.
    char small[512];
    std::string large;
    std::string_view text;
    if (_clock) {
        const std::string_view label = logTypeLabel(type);
        char stamp[kStampCapacity];
        const std::size_t stampLength = _clock->stamp(stamp);
        const std::size_t length = stampLength + label.size() + message.size() + 5;
        char* out = small;
        if (length > sizeof small) {
            large.resize(length);
            out = large.data();
        }
        char* at = out;
        auto put = [&at](const char* data, std::size_t size) {
            std::memcpy(at, data, size);
            at += size;
        };
        put(stamp, stampLength);
        put(" [", 2);
        put(label.data(), label.size());
        put("] ", 2);
        put(message.data(), message.size());
        *at++ = '\n';
        text = std::string_view(out, length);
    } else if (_logFormatter) {
        large = _logFormatter->format(message, type);
        if (large.empty()) return;
        text = large;
    } else {
        text = message;
    }

    bool wake = false, hurry = false;
    {
        std::unique_lock lock(state.mutex);
        if (state.pending.size() >= kMaxPendingBytes) {
            state.progressed.wait(lock, [&] { return state.pending.size() < kMaxPendingBytes; });
        }
        const std::size_t before = state.pending.size();
        state.pending.append(text);
        state.appendedBytes += state.pending.size() - before;
        if (!state.queued) {
            state.queued = true;
            wake = true;
        }
        hurry = before < kHurryBytes && state.pending.size() >= kHurryBytes;
    }
    if (wake) FileQueue::shared().enqueue(_state);
    if (hurry) FileQueue::shared().hurry();
}

void FileLogger::flush() {
    State& state = *_state;
    std::unique_lock lock(state.mutex);
    const std::uint64_t target = state.appendedBytes;
    if (state.writtenBytes >= target) return;
    lock.unlock();
    FileQueue::shared().hurry();
    lock.lock();
    state.progressed.wait(lock, [&] { return state.writtenBytes >= target; });
}

std::optional<std::filesystem::path> FileLogger::currentLogFile() const {
    std::lock_guard lock(gSessionLock);
    return _state->fileURL;
}

std::vector<std::filesystem::path> FileLogger::logFiles() const {
    auto directory = logDirectory();
    if (!directory) return {};
    std::error_code ec;
    std::filesystem::directory_iterator it(*directory, ec);
    if (ec) return {};

    struct Entry {
        std::filesystem::path path;
        std::optional<std::int64_t> created;
    };
    std::vector<Entry> entries;
    for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
        if (ec) return {};
        const auto& path = it->path();
        if (path.extension() != ".log") continue;
        if (fileUrlText(path).find(_filePrefix) == std::string::npos) continue;
        entries.push_back({path, creationNanoseconds(path)});
    }
    if (ec) return {};

    // A file whose date cannot be read sorts after every dated one.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return a.created && (!b.created || *a.created < *b.created);
    });
    std::vector<std::filesystem::path> files;
    files.reserve(entries.size());
    for (auto& entry : entries) files.push_back(std::move(entry.path));
    return files;
}

}  // namespace palomir
