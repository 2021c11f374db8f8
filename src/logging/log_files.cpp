#include "logging/log_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>

#include "palomir/environment.hpp"

namespace palomir {

namespace {

constexpr const char* kQueueLabel = "io.palomir.Palomir.FileLogger";

bool isUrlPathCharacter(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return c != '\0' && std::strchr("-._~!$&'()*+,;=:@/", c) != nullptr;
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

void printLine(const std::string& text) {
    std::string line = text;
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
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

void pruneLogFiles(const std::vector<std::filesystem::path>& oldFiles, unsigned keep) {
    if (oldFiles.size() < keep) return;
    // One more than the surplus goes, for the file about to be made.
    const std::size_t remove = std::min<std::size_t>(oldFiles.size() - keep + 1, oldFiles.size());
    for (std::size_t i = 0; i < remove; ++i) {
        std::error_code ec;
        std::filesystem::remove(oldFiles[i], ec);
    }
}

std::optional<std::filesystem::path> FileLogger::logDirectory() {
    std::filesystem::path caches = cachesDirectory();
    if (caches.empty()) return std::nullopt;
    std::error_code ec;
    std::filesystem::path absolute = std::filesystem::absolute(caches, ec);
    if (ec) return std::nullopt;
    return absolute / kQueueLabel / "Logs";
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
