#pragma once

#include <compare>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "palomir/export.hpp"

namespace palomir {

/// Message levels, from least to most verbose. `default_` sits between
/// `info` and `debug`: a default message is more verbose than an info one.
enum class LogType : std::uint8_t { fault = 0, error = 1, info = 2, default_ = 3, debug = 4 };

inline constexpr std::strong_ordering operator<=>(LogType a, LogType b) {
    return static_cast<std::uint8_t>(a) <=> static_cast<std::uint8_t>(b);
}

/// "FAULT", "ERROR", "INFO", "DEFAULT", "DEBUG".
PALOMIR_API std::string_view logTypeLabel(LogType type);

class PALOMIR_API Logger {
public:
    virtual ~Logger();
    virtual void log(const std::string& message, LogType type) = 0;
};

class PALOMIR_API LogFormatter {
public:
    virtual ~LogFormatter();
    virtual std::string format(const std::string& message, LogType type) const = 0;
};

/// "2024-05-01 14:03:07GMT+02:00 [ERROR] message\n", in local time.
class PALOMIR_API PalomirLogFormatter final : public LogFormatter {
public:
    PalomirLogFormatter();
    ~PalomirLogFormatter() override;
    std::string format(const std::string& message, LogType type) const override;

private:
    struct StampCache;
    std::shared_ptr<StampCache> _stamp;
};

/// The console logger: every message, verbatim, one line on standard error.
class PALOMIR_API NSLogger final : public Logger {
public:
    void log(const std::string& message, LogType type) override;
};

/// Hands each message to every member, in order, synchronously.
class PALOMIR_API CombinedLogger final : public Logger {
public:
    explicit CombinedLogger(std::vector<std::shared_ptr<Logger>> loggers);
    void log(const std::string& message, LogType type) override;
    const std::vector<std::shared_ptr<Logger>>& fileLoggers() const { return _fileLoggers; }

private:
    std::vector<std::shared_ptr<Logger>> _fileLoggers;
};

/// Appends formatted lines to a file of its own under
/// <caches>/<label>/Logs/palomir-<prefix>-<yyyy-MM-dd-HH-mm-ss>.log.
/// `log` returns at once: lines wait in memory for one process-wide writer
/// thread. Beyond 4 MiB of waiting text lines are dropped, and the file then
/// gets "dropped N log lines" (level error) where they would have been.
class PALOMIR_API FileLogger final : public Logger {
public:
    FileLogger(std::string filePrefix, std::shared_ptr<const LogFormatter> logFormatter, LogType level,
               unsigned keepLogfiles);
    ~FileLogger() override;
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;

    void log(const std::string& message, LogType type) override;

    /// The file being written, while the logger is open.
    std::optional<std::filesystem::path> currentLogFile() const;
    /// This logger's files, oldest first.
    std::vector<std::filesystem::path> logFiles() const;
    /// <caches>/<label>/Logs, or nothing when there is no caches directory.
    static std::optional<std::filesystem::path> logDirectory();

    /// Blocks until every line logged before the call has reached the file
    /// (or failed). For tests, and for hosts about to read the files; it waits
    /// as long as the disk does.
    void flush();

    const std::string& filePrefix() const { return _filePrefix; }
    LogType logLevel() const { return _logLevel; }

    struct State;

private:
    std::string _filePrefix;
    LogType _logLevel;
    std::shared_ptr<State> _state;
};

}  // namespace palomir
