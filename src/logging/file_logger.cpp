#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
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
#include <string_view>
#include <system_error>
#include <thread>

#include "logging/log_clock.hpp"
#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace palomir {

namespace {

constexpr const char* kQueueLabel = "io.palomir.Palomir.FileLogger";

// Lines wait for the disk in a ring of this size. A caller blocks only when
// the ring is full: far more than any burst of a healthy app, and it keeps a
// stalled disk from eating the process's memory without ever dropping a line.
// Pages of the ring are only touched as text reaches them.
constexpr std::uint64_t kRingBytes = 8u << 20;

// The ring is handed out in chunks, each counting the bytes copied into it, so
// that the writer can tell which text is complete without a lock.
constexpr std::uint64_t kChunkBytes = 64u << 10;
constexpr std::uint64_t kChunks = kRingBytes / kChunkBytes;

// Crossing a multiple of this many bytes wakes the writer before its doze
// ends, which keeps the text it writes still in cache.
constexpr std::uint64_t kHurryBytes = 256u << 10;

// The writer writes at most this much at once, so that callers waiting for
// room in a full ring can go on while it writes the next part.
constexpr std::uint64_t kWriteBytes = 1u << 20;
static_assert(kWriteBytes % kChunkBytes == 0 && kWriteBytes <= kRingBytes);

// The writer faults in this much of the ring ahead of the callers on the
// first lap, so that a caller rarely meets a fresh page.
constexpr std::uint64_t kPrefaultAhead = 1u << 20;
constexpr std::uint64_t kPrefaultAtStart = 128u << 10;

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

namespace {

// The text of one line as the parts it is made of, copied straight into the
// ring so that a line is assembled exactly once.
struct LineParts {
    static constexpr std::size_t kMaxParts = 6;
    std::string_view parts[kMaxParts];
    std::size_t count = 0;
    std::size_t length = 0;

    void add(std::string_view part) {
        parts[count++] = part;
        length += part.size();
    }

    // Copies `size` bytes of the line, starting `offset` bytes in, to `out`.
    void copy(std::size_t offset, std::size_t size, char* out) const {
        std::size_t i = 0;
        while (offset >= parts[i].size()) offset -= parts[i++].size();
        while (size > 0) {
            const std::size_t n = std::min(size, parts[i].size() - offset);
            std::memcpy(out, parts[i].data() + offset, n);
            out += n;
            size -= n;
            offset = 0;
            ++i;
        }
    }
};

}  // namespace

struct FileLogger::State {
    State();
    ~State();

    // Under gSessionLock.
    int fd = -1;
    std::optional<std::filesystem::path> fileURL;
    bool haveReportedWriteError = false;

    // Set once the file is open; read without a lock on every log call.
    std::atomic<bool> open{false};

    // Positions count bytes since the logger began; a byte at position p
    // lives at ring[p % kRingBytes]. Callers claim room by advancing
    // `reserved`, copy their line and add its length to the counter of each
    // chunk it touches; the writer alone advances `written`, after it has
    // cleared the counters of the chunks it finished.
    char* ring = nullptr;
    bool mapped = false;
    alignas(64) std::atomic<std::uint64_t> reserved{0};
    alignas(64) std::atomic<std::uint64_t> written{0};
    alignas(64) std::atomic<bool> queued{false};
    alignas(64) std::atomic<std::uint64_t> committed[kChunks] = {};
    std::uint64_t prefaulted = 0;  // by the writer

    // Callers waiting for room in the ring, and flush.
    std::mutex mutex;
    std::condition_variable progressed;
    int waiters = 0;

    void append(const LineParts& line, const std::shared_ptr<State>& self);
    void waitForWritten(std::uint64_t position, const std::shared_ptr<State>& self);
    void drain();
    bool writeSome();  // true when there may be more complete text
    void reportWriteError(int code);
};

namespace {

// The one writer thread of all file loggers. A state is queued at most once
// at a time; the writer writes all complete text of the ring with as few
// system calls as the kernel allows.
//
// Waking a sleeping thread is a system call on the logging thread, so callers
// avoid it: the writer dozes for a short while after each batch and keeps
// coming back by itself until it has been idle for a while; only a writer
// that fell asleep for good is woken by the next line. Much pending text or a
// flush wakes it early.
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
    static constexpr int kIdleDozes = 25;

    FileQueue() { std::thread([this] { run(); }).detach(); }

    void run() {
        std::vector<std::shared_ptr<FileLogger::State>> batch;
        std::unique_lock lock(_mutex);
        for (;;) {
            if (_ready.empty()) {
                _mode = Mode::dozing;
                _done.notify_all();
                for (int i = 0; i < kIdleDozes && _ready.empty(); ++i) _wake.wait_for(lock, kDoze);
                if (_ready.empty()) {
                    _mode = Mode::asleep;
                    _wake.wait(lock, [this] { return !_ready.empty(); });
                }
            } else if (!_hurry) {
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
        _done.wait_for(lock, std::chrono::seconds(2), [this] { return _ready.empty() && _mode != Mode::working; });
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::condition_variable _done;
    std::vector<std::shared_ptr<FileLogger::State>> _ready;
    Mode _mode = Mode::working;
    bool _hurry = false;
};

}  // namespace

FileLogger::State::State() {
    void* memory = ::mmap(nullptr, kRingBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory != MAP_FAILED) {
        ring = static_cast<char*>(memory);
        mapped = true;
#ifdef MADV_POPULATE_WRITE
        if (::madvise(ring, kPrefaultAtStart, MADV_POPULATE_WRITE) == 0) prefaulted = kPrefaultAtStart;
#endif
    } else {
        ring = new char[kRingBytes];
    }
}

FileLogger::State::~State() {
    if (fd >= 0) ::close(fd);
    if (mapped) {
        ::munmap(ring, kRingBytes);
    } else {
        delete[] ring;
    }
}

void FileLogger::State::append(const LineParts& line, const std::shared_ptr<State>& self) {
    const std::uint64_t start = reserved.fetch_add(line.length, std::memory_order_relaxed);
    const std::uint64_t end = start + line.length;
    for (std::uint64_t at = start; at < end;) {
        const std::uint64_t chunk = at / kChunkBytes;
        const std::uint64_t pieceEnd = std::min(end, (chunk + 1) * kChunkBytes);
        // The chunk's place in the ring is free once the writer is past the
        // chunk that held it one lap before.
        const std::uint64_t free = (chunk + 1) * kChunkBytes;
        if (free > kRingBytes && written.load(std::memory_order_acquire) < free - kRingBytes)
            waitForWritten(free - kRingBytes, self);
        line.copy(static_cast<std::size_t>(at - start), static_cast<std::size_t>(pieceEnd - at),
                  ring + at % kRingBytes);
        committed[chunk % kChunks].fetch_add(pieceEnd - at);
        at = pieceEnd;
    }
    // A writer that cleared `queued` before this line was complete comes back for it.
    if (!queued.load() && !queued.exchange(true)) FileQueue::shared().enqueue(self);
    if (start / kHurryBytes != end / kHurryBytes) FileQueue::shared().hurry();
}

void FileLogger::State::waitForWritten(std::uint64_t position, const std::shared_ptr<State>& self) {
    std::unique_lock lock(mutex);
    ++waiters;
    while (written.load(std::memory_order_acquire) < position) {
        lock.unlock();
        if (!queued.load() && !queued.exchange(true)) FileQueue::shared().enqueue(self);
        FileQueue::shared().hurry();
        lock.lock();
        if (written.load(std::memory_order_acquire) < position) progressed.wait(lock);
    }
    --waiters;
}

void FileLogger::State::drain() {
    queued.store(false);
    while (writeSome()) {
    }
}

bool FileLogger::State::writeSome() {
    const std::uint64_t from = written.load(std::memory_order_relaxed);
    std::uint64_t to = from;
    // At most one write's worth, and never more than one lap: the chunk a lap
    // after the first one shares its counter.
    for (std::uint64_t chunk = from / kChunkBytes; to - from < kWriteBytes; ++chunk) {
        const std::uint64_t chunkStart = chunk * kChunkBytes;
        const std::uint64_t count = committed[chunk % kChunks].load();
        if (count == kChunkBytes) {
            to = chunkStart + kChunkBytes;
            continue;
        }
        // The last chunk is taken as far as it is claimed when every claim in
        // it is complete. The count is read before the claims: a count that
        // includes a line implies a claimed end at least that far.
        const std::uint64_t claimed = reserved.load(std::memory_order_acquire);
        if (claimed < chunkStart + kChunkBytes && count == claimed - chunkStart) to = claimed;
        break;
    }
    if (to == from) return false;

    iovec parts[2];
    int partCount = 0;
    const std::uint64_t first = from % kRingBytes;
    const std::uint64_t size = to - from;
    if (first + size <= kRingBytes) {
        parts[partCount++] = {ring + first, static_cast<std::size_t>(size)};
    } else {
        parts[partCount++] = {ring + first, static_cast<std::size_t>(kRingBytes - first)};
        parts[partCount++] = {ring, static_cast<std::size_t>(first + size - kRingBytes)};
    }
    iovec* part = parts;
    while (partCount > 0) {
        ssize_t n = ::writev(fd, part, partCount);
        if (n < 0) {
            if (errno == EINTR) continue;
            reportWriteError(errno);
            break;
        }
        auto left = static_cast<std::size_t>(n);
        while (partCount > 0 && left >= part->iov_len) {
            left -= part->iov_len;
            ++part;
            --partCount;
        }
        if (partCount > 0) {
            part->iov_base = static_cast<char*>(part->iov_base) + left;
            part->iov_len -= left;
        }
    }

    for (std::uint64_t chunk = from / kChunkBytes; (chunk + 1) * kChunkBytes <= to; ++chunk)
        committed[chunk % kChunks].store(0, std::memory_order_relaxed);
    {
        std::lock_guard lock(mutex);
        written.store(to, std::memory_order_release);
        if (waiters > 0) progressed.notify_all();
    }

#ifdef MADV_POPULATE_WRITE
    if (mapped && prefaulted < kRingBytes) {
        const std::uint64_t claimed = reserved.load(std::memory_order_relaxed);
        const std::uint64_t page = 4096;
        const std::uint64_t target = std::min(kRingBytes, (claimed + kPrefaultAhead + page - 1) / page * page);
        if (target > prefaulted) {
            if (::madvise(ring + prefaulted, target - prefaulted, MADV_POPULATE_WRITE) == 0) {
                prefaulted = target;
            } else {
                prefaulted = kRingBytes;  // not offered by this kernel
            }
        }
    }
#endif
    return to - from >= kWriteBytes;
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

    LineParts line;
    char stamp[kStampCapacity];
    std::string formatted;
    if (_clock) {
        line.add(std::string_view(stamp, _clock->stamp(stamp)));
        line.add(" [");
        line.add(logTypeLabel(type));
        line.add("] ");
        line.add(message);
        line.add("\n");
    } else if (_logFormatter) {
        formatted = _logFormatter->format(message, type);
        if (formatted.empty()) return;
        line.add(formatted);
    } else {
        line.add(message);
    }
    state.append(line, _state);
}

void FileLogger::flush() {
    State& state = *_state;
    const std::uint64_t target = state.reserved.load(std::memory_order_acquire);
    if (state.written.load(std::memory_order_acquire) >= target) return;
    state.waitForWritten(target, _state);
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
