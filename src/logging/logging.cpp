#include "palomir/logging.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

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

namespace {

// "yyyy-MM-dd HH:mm:ss" in local time, then the zone in the long GMT form
// ("GMT+02:00", "GMT" for a zero offset, seconds only when the offset has some).
std::string renderStamp(std::time_t second) {
    std::tm tm{};
    if (localtime_r(&second, &tm) == nullptr) {
        gmtime_r(&second, &tm);
        tm.tm_gmtoff = 0;
    }
    char text[64];
    int n = std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02dGMT", tm.tm_year + 1900, tm.tm_mon + 1,
                          tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (n < 0) return {};
    long offset = tm.tm_gmtoff;
    if (offset != 0) {
        const char sign = offset < 0 ? '-' : '+';
        if (offset < 0) offset = -offset;
        const long hours = offset / 3600, minutes = (offset / 60) % 60, seconds = offset % 60;
        const auto room = sizeof text - static_cast<std::size_t>(n);
        const int m = seconds != 0 ? std::snprintf(text + n, room, "%c%02ld:%02ld:%02ld", sign, hours, minutes, seconds)
                                   : std::snprintf(text + n, room, "%c%02ld:%02ld", sign, hours, minutes);
        if (m > 0) n += m;
    }
    return std::string(text, std::min(static_cast<std::size_t>(n), sizeof text - 1));
}

}  // namespace

std::string PalomirLogFormatter::format(const std::string& message, LogType type) const {
    const std::string_view label = logTypeLabel(type);
    std::string line = renderStamp(std::time(nullptr));
    line.reserve(line.size() + label.size() + message.size() + 4);
    line.append(" [").append(label).append("] ").append(message).push_back('\n');
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
