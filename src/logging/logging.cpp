#include "palomir/logging.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logging/log_clock.hpp"

namespace palomir {

std::string_view logTypeLabel(LogType type) {
    switch (type) {
        case LogType::fault: return "FAULT";
        case LogType::error: return "ERROR";
        case LogType::info: return "INFO";
        case LogType::default_: return "DEFAULT";
        case LogType::debug: return "DEBUG";
    }
    return "DEFAULT";
}

Logger::~Logger() = default;
LogFormatter::~LogFormatter() = default;

std::size_t renderLogStamp(std::time_t second, char* out) {
    std::tm tm{};
    if (localtime_r(&second, &tm) == nullptr) {
        gmtime_r(&second, &tm);
        tm.tm_gmtoff = 0;
    }
    int n = std::snprintf(out, kStampCapacity, "%04d-%02d-%02d %02d:%02d:%02dGMT", tm.tm_year + 1900, tm.tm_mon + 1,
                          tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (n < 0) return 0;
    long offset = tm.tm_gmtoff;
    if (offset != 0) {
        char sign = offset < 0 ? '-' : '+';
        if (offset < 0) offset = -offset;
        long hours = offset / 3600, minutes = (offset / 60) % 60, seconds = offset % 60;
        int m = seconds != 0
                    ? std::snprintf(out + n, kStampCapacity - n, "%c%02ld:%02ld:%02ld", sign, hours, minutes, seconds)
                    : std::snprintf(out + n, kStampCapacity - n, "%c%02ld:%02ld", sign, hours, minutes);
        if (m > 0) n += m;
    }
    return static_cast<std::size_t>(n) < kStampCapacity ? static_cast<std::size_t>(n) : kStampCapacity - 1;
}

std::size_t PalomirLogFormatter::Clock::stamp(char* out) {
    // Only the second is shown, and time() reads it for a fraction of what
    // even the coarse clock_gettime() costs.
    const std::int64_t second = std::time(nullptr);

    std::uint64_t before = _sequence.load(std::memory_order_acquire);
    if ((before & 1) == 0 && _second.load(std::memory_order_acquire) == second) {
        std::uint64_t words[kWords];
        // Acquire on each word: a word from a newer writer makes the sequence
        // read below show that writer, so a torn copy is never used.
        for (std::size_t i = 0; i < kWords; ++i) words[i] = _words[i].load(std::memory_order_acquire);
        if (_sequence.load(std::memory_order_relaxed) == before) {
            std::memcpy(out, words, sizeof words);
            return static_cast<unsigned char>(out[kCachedMax]);
        }
    }

    const std::size_t length = renderLogStamp(static_cast<std::time_t>(second), out);
    if (length <= kCachedMax && (before & 1) == 0 &&
        _sequence.compare_exchange_strong(before, before + 1, std::memory_order_acq_rel)) {
        char packed[kWords * sizeof(std::uint64_t)] = {};
        std::memcpy(packed, out, length);
        packed[kCachedMax] = static_cast<char>(length);
        for (std::size_t i = 0; i < kWords; ++i) {
            std::uint64_t word;
            std::memcpy(&word, packed + i * sizeof word, sizeof word);
            _words[i].store(word, std::memory_order_release);
        }
        _second.store(second, std::memory_order_release);
        _sequence.store(before + 2, std::memory_order_release);
    }
    return length;
}

PalomirLogFormatter::PalomirLogFormatter() : _clock(std::make_shared<Clock>()) {}
PalomirLogFormatter::~PalomirLogFormatter() = default;

std::string PalomirLogFormatter::format(const std::string& message, LogType type) const {
    char stamp[kStampCapacity];
    const std::size_t stampLength = _clock->stamp(stamp);
    const std::string_view label = logTypeLabel(type);
    std::string line;
    line.reserve(stampLength + label.size() + message.size() + 5);
    line.append(stamp, stampLength).append(" [").append(label).append("] ").append(message).push_back('\n');
    return line;
}

void NSLogger::log(const std::string& message, LogType) {
    // One write per message so that lines from several threads never interleave.
    std::string line;
    line.reserve(message.size() + 1);
    line.append(message).push_back('\n');
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

CombinedLogger::CombinedLogger(std::vector<std::shared_ptr<Logger>> loggers) : _fileLoggers(std::move(loggers)) {}

void CombinedLogger::log(const std::string& message, LogType type) {
    for (const auto& logger : _fileLoggers) {
        if (logger) logger->log(message, type);
    }
}

}  // namespace palomir
