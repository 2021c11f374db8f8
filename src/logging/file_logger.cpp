#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "logging/log_clock.hpp"
#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace palomir {

namespace {

constexpr const char* kQueueLabel = "io.palomir.Palomir.FileLogger";

// Text waits for the disk in chunks of this size, each copied into a slot of
// the ring. While the writer keeps up, chunks take turns over the first
// kTurnSlots slots; under a burst more slots come into use, lowest first, up
// to all of them. A caller blocks only when every slot is full: far more than
// any burst of a healthy app, and it keeps a stalled disk from eating the
// process's memory without ever dropping a line.
constexpr std::uint64_t kChunkBytes = 64u << 10;
constexpr std::uint64_t kSlots = 128;
// The writer's core reads every chunk. A caller that writes into a slot whose
// lines that core still holds pays a cross-core invalidation for each line,
// which on a virtual machine tripled a caller's cost; a megabyte between two
// uses of a slot outgrows a core's private cache.
constexpr std::uint64_t kTurnSlots = 16;
constexpr std::uint64_t kRingBytes = kSlots * kChunkBytes;
constexpr std::uint64_t kSlotWords = kSlots / 64;

// The writer writes at most this many chunks at once, so that callers waiting
// for room in a full ring can go on while it writes the rest.
constexpr std::uint64_t kWriteChunks = 16;

// Crossing a multiple of this many bytes wakes a dozing writer early.
constexpr std::uint64_t kHurryBytes = 128u << 10;

// A logger that writes little faults its pages in with its callers' own
// writes; once the writer finds this much at once, it faults in whole slots
// ahead of the callers.
constexpr std::uint64_t kPrefaultAfter = 16u << 10;
constexpr std::uint64_t kPrefaultSlots = 16;

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
    static constexpr std::size_t kMaxParts = 3;
    std::string_view parts[kMaxParts];
    std::size_t count = 0;
    std::size_t length = 0;

    void add(std::string_view part) {
        parts[count++] = part;
        length += part.size();
    }

    // The whole line, for the common case of a line within one chunk.
    void copy(char* out) const {
        for (std::size_t i = 0; i < count; ++i) {
            if (parts[i].size() == 1) {
                *out++ = parts[i][0];
            } else {
                std::memcpy(out, parts[i].data(), parts[i].size());
                out += parts[i].size();
            }
        }
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

// " [LABEL] " for each level, padded so that it is copied as one fixed block.
struct LabelText {
    char text[16];
    std::uint8_t size;
};

constexpr LabelText labelText(std::string_view label) {
    LabelText result{};
    result.text[0] = ' ';
    result.text[1] = '[';
    for (std::size_t i = 0; i < label.size(); ++i) result.text[2 + i] = label[i];
    result.text[2 + label.size()] = ']';
    result.text[3 + label.size()] = ' ';
    result.size = static_cast<std::uint8_t>(label.size() + 4);
    return result;
}

// Indexed by the level's raw value.
constexpr LabelText kLabelTexts[] = {labelText("FAULT"), labelText("ERROR"), labelText("INFO"), labelText("DEFAULT"),
                                     labelText("DEBUG")};

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

    // Positions count bytes since the logger began; the byte at position p
    // belongs to chunk p / kChunkBytes. Callers claim room by advancing
    // `reserved`, copy their line into the slots of the chunks it touches and
    // add its length to each chunk's counter; the writer alone advances
    // `written`, after it has cleared the counters of the chunks it finished
    // and freed their slots. A chunk starts only once the one a lap before it
    // is written, so its counter and its entry in `slotOf` are its own.
    char* ring = nullptr;
    bool mapped = false;
    alignas(64) std::atomic<std::uint64_t> reserved{0};
    alignas(64) std::atomic<std::uint64_t> written{0};
    alignas(64) std::atomic<bool> queued{false};
    alignas(64) std::atomic<std::uint64_t> freeSlots[kSlotWords];  // a set bit is a free slot
    // (chunk + 1) << 8 | slot, for the chunk that last took this entry.
    alignas(64) std::atomic<std::uint64_t> slotOf[kSlots] = {};
    alignas(64) std::atomic<std::uint64_t> committed[kSlots] = {};

    alignas(64) std::atomic<std::uint64_t> populated[kSlotWords] = {};  // slots known to be faulted in

    // Callers waiting for room in the ring, and flush.
    std::mutex mutex;
    std::condition_variable progressed;
    int waiters = 0;

    void append(const LineParts& line, const std::shared_ptr<State>& self);
    char* chunkAddress(std::uint64_t chunk);
    std::uint64_t takeSlot(std::uint64_t chunk);
    void freeSlot(std::uint64_t slot);
    void waitForWritten(std::uint64_t position, const std::shared_ptr<State>& self);
    std::uint64_t drain(bool partial);  // bytes written
    std::uint64_t writeSome(bool partial);
    void populate(std::uint64_t slot);
    void prefault();
    void releaseIdlePages();
    bool caughtUp() const { return written.load(std::memory_order_acquire) == reserved.load(); }
    void reportWriteError(int code);
};

namespace {

// The one writer thread of all file loggers. A state is queued at most once
// at a time and stays with the writer while its callers keep logging; the
// writer writes its complete chunks with as few system calls as the kernel
// allows.
//
// Waking a sleeping thread is a system call on the logging thread, so callers
// avoid it: while text flows the writer keeps looking for it by itself,
// napping briefly between looks; when none comes it writes what is left,
// dozes for short spells, and after a long idle spell gives its states back,
// returns their idle pages and sleeps until the next line. Much pending text
// or a flush wakes a dozing writer early.
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
        if (_mode.load(std::memory_order_relaxed) != Mode::working) _wake.notify_one();
    }

    bool dozing() const { return _mode.load(std::memory_order_relaxed) != Mode::working; }

    // Asks for the pending text now, the incomplete last chunk included.
    void hurry() {
        std::lock_guard lock(_mutex);
        _hurry = true;
        if (_mode.load(std::memory_order_relaxed) != Mode::working) _wake.notify_one();
    }

private:
    enum class Mode { working, dozing, asleep };
    // While text flows the writer looks for more after short naps: spinning
    // or yielding instead takes the processor from the callers, and from the
    // cache lines they write.
    static constexpr auto kNap = std::chrono::microseconds(20);
    static constexpr int kLooks = 16;  // naps without new text before the writer dozes
    static constexpr auto kDoze = std::chrono::milliseconds(2);
    static constexpr int kIdleDozes = 50;

    FileQueue() {
        std::thread([this] {
            pthread_setname_np(pthread_self(), "palomir-log");
            run();
        }).detach();
    }

    void run() {
        std::vector<std::shared_ptr<FileLogger::State>> active;
        int looks = 0;
        int dozes = 0;
        std::unique_lock lock(_mutex);
        for (;;) {
            for (auto& state : _ready) active.push_back(std::move(state));
            _ready.clear();
            const std::uint64_t round = ++_rounds;
            const bool hurried = std::exchange(_hurry, false);
            const bool quiet = looks >= kLooks;
            _mode.store(Mode::working, std::memory_order_relaxed);
            lock.unlock();

            std::uint64_t wrote = 0;
            bool pending = false;
            for (auto& state : active) {
                wrote += state->drain(hurried || quiet);
                pending = pending || !state->caughtUp();
            }

            if (wrote > 0 || hurried) {
                looks = 0;
                dozes = 0;
            } else if (!quiet) {
                ++looks;
                std::this_thread::sleep_for(kNap);
            }
            lock.lock();
            if (!pending && _ready.empty()) {
                _cleanRound = round;
                _done.notify_all();
            }
            if (!quiet || wrote > 0 || !_ready.empty() || _hurry) continue;

            // Everything complete is written and nothing new came for a while.
            if (++dozes < kIdleDozes) {
                _mode.store(Mode::dozing, std::memory_order_relaxed);
                _wake.wait_for(lock, kDoze, [this] { return _hurry || !_ready.empty(); });
                continue;
            }
            lock.unlock();
            release(active);
            lock.lock();
            dozes = 0;
            if (!active.empty()) continue;
            _mode.store(Mode::asleep, std::memory_order_relaxed);
            looks = 0;
            _wake.wait(lock, [this] { return _hurry || !_ready.empty(); });
        }
    }

    // Gives back the idle pages of states that went quiet and hands the
    // states back to their callers, keeping those that logged meanwhile.
    // The last reference to a destroyed logger's state closes its file here.
    static void release(std::vector<std::shared_ptr<FileLogger::State>>& active) {
        std::vector<std::shared_ptr<FileLogger::State>> keep;
        for (auto& state : active) {
            state->releaseIdlePages();
            // A caller that saw `queued` set before it was cleared has its
            // claim seen here; one that claimed later queues the state again.
            state->queued.store(false);
            if (!state->caughtUp() && !state->queued.exchange(true)) keep.push_back(std::move(state));
        }
        active.swap(keep);
    }

    // Lines logged just before the process ends still reach their files.
    void drainBeforeExit() {
        std::unique_lock lock(_mutex);
        const std::uint64_t asked = _rounds;
        _hurry = true;
        _wake.notify_one();
        _done.wait_for(lock, std::chrono::seconds(2), [&] { return _cleanRound > asked; });
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::condition_variable _done;
    std::vector<std::shared_ptr<FileLogger::State>> _ready;
    std::atomic<Mode> _mode{Mode::working};
    bool _hurry = false;
    std::uint64_t _rounds = 0;      // rounds begun
    std::uint64_t _cleanRound = 0;  // the last round that left nothing pending
};

}  // namespace

FileLogger::State::State() {
    for (auto& word : freeSlots) word.store(~std::uint64_t{0}, std::memory_order_relaxed);
    // Reserved address space only: pages become resident as text reaches them.
    void* memory =
        ::mmap(nullptr, kRingBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory != MAP_FAILED) {
        ring = static_cast<char*>(memory);
        mapped = true;
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

// The chunk's turn slot when free, else the lowest free slot, or kSlots when
// none is free.
std::uint64_t FileLogger::State::takeSlot(std::uint64_t chunk) {
    const std::uint64_t turn = chunk % kTurnSlots;
    const std::uint64_t turnBit = std::uint64_t{1} << turn;
    if ((freeSlots[0].fetch_and(~turnBit, std::memory_order_acquire) & turnBit) != 0) return turn;
    for (std::uint64_t word = 0; word < kSlotWords; ++word) {
        std::uint64_t free = freeSlots[word].load(std::memory_order_relaxed);
        while (free != 0) {
            const std::uint64_t bit = std::uint64_t{1} << std::countr_zero(free);
            free = freeSlots[word].fetch_and(~bit, std::memory_order_acquire);
            if ((free & bit) != 0) return word * 64 + static_cast<std::uint64_t>(std::countr_zero(bit));
            free &= ~bit;
        }
    }
    return kSlots;
}

void FileLogger::State::freeSlot(std::uint64_t slot) {
    freeSlots[slot / 64].fetch_or(std::uint64_t{1} << (slot % 64), std::memory_order_release);
}

// The first caller into a chunk gives it a slot; the others find it there.
// Every slot can be taken while a chunk has no slot yet only when another
// caller has just given it one, or while the writer gives idle pages back.
char* FileLogger::State::chunkAddress(std::uint64_t chunk) {
    auto& entry = slotOf[chunk % kSlots];
    const std::uint64_t tag = (chunk + 1) << 8;
    std::uint64_t current = entry.load(std::memory_order_acquire);
    while ((current & ~std::uint64_t{0xff}) != tag) {
        const std::uint64_t slot = takeSlot(chunk);
        if (slot == kSlots) {
            std::this_thread::yield();
            current = entry.load(std::memory_order_acquire);
        } else if (entry.compare_exchange_strong(current, tag | slot, std::memory_order_acq_rel)) {
            current = tag | slot;
            // One system call instead of a fault per page when the writer has
            // not got to it; the first chunk faults in only what a short-lived
            // or quiet logger uses.
            if (chunk > 0) populate(slot);
        } else {
            freeSlot(slot);
        }
    }
    return ring + (current & 0xff) * kChunkBytes;
}

void FileLogger::State::append(const LineParts& line, const std::shared_ptr<State>& self) {
    const std::uint64_t start = reserved.fetch_add(line.length);
    const std::uint64_t end = start + line.length;
    for (std::uint64_t at = start; at < end;) {
        const std::uint64_t chunk = at / kChunkBytes;
        const std::uint64_t pieceEnd = std::min(end, (chunk + 1) * kChunkBytes);
        // A chunk may start once the writer is past the chunk a lap before it.
        if (chunk >= kSlots && written.load(std::memory_order_acquire) < (chunk + 1 - kSlots) * kChunkBytes)
            waitForWritten((chunk + 1 - kSlots) * kChunkBytes, self);
        char* out = chunkAddress(chunk) + at % kChunkBytes;
        if (pieceEnd - at == line.length) {
            line.copy(out);
        } else {
            line.copy(static_cast<std::size_t>(at - start), static_cast<std::size_t>(pieceEnd - at), out);
        }
        committed[chunk % kSlots].fetch_add(pieceEnd - at, std::memory_order_release);
        at = pieceEnd;
    }
    // Seen together with the claim above by a writer that hands the state back.
    if (!queued.load() && !queued.exchange(true)) FileQueue::shared().enqueue(self);
    if (start / kHurryBytes != end / kHurryBytes && FileQueue::shared().dozing()) FileQueue::shared().hurry();
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

std::uint64_t FileLogger::State::drain(bool partial) {
    std::uint64_t total = 0;
    for (;;) {
        const std::uint64_t wrote = writeSome(partial);
        total += wrote;
        if (wrote < kWriteChunks * kChunkBytes) break;
    }
    if (total >= kPrefaultAfter) prefault();
    return total;
}

std::uint64_t FileLogger::State::writeSome(bool partial) {
    const std::uint64_t from = written.load(std::memory_order_relaxed);
    std::uint64_t to = from;
    iovec parts[kWriteChunks + 1];
    int partCount = 0;
    // Whole chunks, and the last one as far as it is claimed when every
    // claim in it is complete and incomplete chunks are wanted. The count is
    // read before the claims: a count that includes a line implies a claimed
    // end at least that far.
    for (std::uint64_t chunk = from / kChunkBytes; partCount < static_cast<int>(kWriteChunks); ++chunk) {
        const std::uint64_t chunkStart = chunk * kChunkBytes;
        const std::uint64_t count = committed[chunk % kSlots].load(std::memory_order_acquire);
        std::uint64_t end = chunkStart + kChunkBytes;
        if (count != kChunkBytes) {
            const std::uint64_t claimed = reserved.load(std::memory_order_acquire);
            if (!partial || claimed >= end || count != claimed - chunkStart || claimed == to) break;
            end = claimed;
        }
        const std::uint64_t slot = slotOf[chunk % kSlots].load(std::memory_order_acquire) & 0xff;
        parts[partCount++] = {ring + slot * kChunkBytes + to % kChunkBytes, static_cast<std::size_t>(end - to)};
        to = end;
        if (end % kChunkBytes != 0) break;
    }
    if (to == from) return 0;

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

    for (std::uint64_t chunk = from / kChunkBytes; (chunk + 1) * kChunkBytes <= to; ++chunk) {
        committed[chunk % kSlots].store(0, std::memory_order_relaxed);
        freeSlot(slotOf[chunk % kSlots].load(std::memory_order_relaxed) & 0xff);
    }
    {
        std::lock_guard lock(mutex);
        written.store(to, std::memory_order_release);
        if (waiters > 0) progressed.notify_all();
    }
    return to - from;
}

// Faults in the slots the next chunks will take, so that callers rarely meet
// a fresh page; a logger that has written little keeps to the pages it used.
//
// Each page is also written to once: on a virtual machine with shadow page
// tables the first access to a page traps to the hypervisor even when the page
// is mapped, and a caller met such a trap, tens of microseconds, every 32 KB
// of a fresh slot. A slot is out of the free set while it is written to, so no
// caller writes into it meanwhile.
void FileLogger::State::prefault() {
#ifdef MADV_POPULATE_WRITE
    if (!mapped) return;
    std::uint64_t wanted = kPrefaultSlots;
    for (std::uint64_t word = 0; word < kSlotWords && wanted > 0; ++word) {
        std::uint64_t free = freeSlots[word].load(std::memory_order_relaxed);
        for (; free != 0 && wanted > 0; free &= free - 1, --wanted) {
            const std::uint64_t bit = free & -free;
            if ((populated[word].load(std::memory_order_relaxed) & bit) != 0) continue;
            if ((freeSlots[word].fetch_and(~bit, std::memory_order_acquire) & bit) == 0) continue;
            const std::uint64_t slot = word * 64 + static_cast<std::uint64_t>(std::countr_zero(bit));
            populate(slot);
            volatile char* pages = ring + slot * kChunkBytes;
            for (std::uint64_t page = 0; page < kChunkBytes; page += 4096) pages[page] = 0;
            freeSlot(slot);
        }
    }
#endif
}

// Faulting in changes no byte, so a caller that writes into the slot
// meanwhile loses nothing.
void FileLogger::State::populate(std::uint64_t slot) {
#ifdef MADV_POPULATE_WRITE
    const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
    if (!mapped || (populated[slot / 64].load(std::memory_order_relaxed) & bit) != 0) return;
    if (::madvise(ring + slot * kChunkBytes, kChunkBytes, MADV_POPULATE_WRITE) == 0)
        populated[slot / 64].fetch_or(bit, std::memory_order_relaxed);
#else
    (void)slot;
#endif
}

// Returns the pages of every free slot but the first, taking the slots out of
// use while it does so that no caller writes into a page being dropped.
void FileLogger::State::releaseIdlePages() {
    if (!mapped) return;
    for (std::uint64_t word = 0; word < kSlotWords; ++word) {
        const std::uint64_t keep = word == 0 ? 1 : 0;
        const std::uint64_t taken = freeSlots[word].fetch_and(keep, std::memory_order_acquire) & ~keep;
        for (std::uint64_t rest = taken; rest != 0;) {
            const auto first = static_cast<std::uint64_t>(std::countr_zero(rest));
            std::uint64_t last = first;
            while (last + 1 < 64 && ((rest >> (last + 1)) & 1)) ++last;
            ::madvise(ring + (word * 64 + first) * kChunkBytes, (last - first + 1) * kChunkBytes, MADV_DONTNEED);
            rest &= last + 1 < 64 ? ~((std::uint64_t{2} << last) - 1) : 0;
        }
        populated[word].fetch_and(~taken, std::memory_order_relaxed);
        freeSlots[word].fetch_or(taken, std::memory_order_release);
    }
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
    if (_clock) {
        char prefix[kStampCapacity + sizeof(LabelText::text)];
        std::size_t length = _clock->stamp(prefix);
        const auto index = static_cast<std::size_t>(type);
        // Like logTypeLabel, a value outside the enumeration reads as "DEFAULT".
        const LabelText& label = kLabelTexts[index < std::size(kLabelTexts) ? index : 3];
        std::memcpy(prefix + length, label.text, sizeof label.text);
        length += label.size;
        line.add(std::string_view(prefix, length));
        line.add(message);
        line.add("\n");
        state.append(line, _state);
    } else if (_logFormatter) {
        const std::string formatted = _logFormatter->format(message, type);
        if (formatted.empty()) return;
        line.add(formatted);
        state.append(line, _state);
    } else {
        line.add(message);
        state.append(line, _state);
    }
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
