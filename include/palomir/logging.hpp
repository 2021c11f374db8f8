#pragma once

/// @file
/// Logging: what the library writes about its work, and where.

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

/// Orders levels by verbosity: fault < error < info < default_ < debug.
inline constexpr std::strong_ordering operator<=>(LogType a, LogType b) {
    return static_cast<std::uint8_t>(a) <=> static_cast<std::uint8_t>(b);
}

/// "FAULT", "ERROR", "INFO", "DEFAULT", "DEBUG".
PALOMIR_API std::string_view logTypeLabel(LogType type);

/// Where the library's messages go. A host may pass its own to
/// Palomir::setLogger; `log` is then called from any thread, often from
/// network threads, and must be thread-safe and quick.
class PALOMIR_API Logger {
public:
    /// Loggers are shared by the client and its components.
    virtual ~Logger();
    /// Takes one message of the given level; must not throw or block for long.
    virtual void log(const std::string& message, LogType type) = 0;
};

/// Turns a message into the line a file logger writes.
class PALOMIR_API LogFormatter {
public:
    /// Formatters are shared by the loggers that use them.
    virtual ~LogFormatter();
    /// The full line, with its trailing newline; called from any thread.
    virtual std::string format(const std::string& message, LogType type) const = 0;
};

/// "2024-05-01 14:03:07GMT+02:00 [ERROR] message\n", in local time.
class PALOMIR_API PalomirLogFormatter final : public LogFormatter {
public:
    /// The line as shown above, with the current local time.
    std::string format(const std::string& message, LogType type) const override;
};

/// The console logger: every message, verbatim, one line on standard error.
class PALOMIR_API NSLogger final : public Logger {
public:
    /// Writes the message to standard error, whatever its level.
    void log(const std::string& message, LogType type) override;
};

/// Hands each message to every member, in order, synchronously.
class PALOMIR_API CombinedLogger final : public Logger {
public:
    /// Forwards to `loggers` (null members are skipped), which it shares.
    explicit CombinedLogger(std::vector<std::shared_ptr<Logger>> loggers);
    /// Calls every member on the calling thread.
    void log(const std::string& message, LogType type) override;
    /// The members, in order; borrowed from this logger.
    const std::vector<std::shared_ptr<Logger>>& fileLoggers() const { return _fileLoggers; }

private:
    std::vector<std::shared_ptr<Logger>> _fileLoggers;
};

/// Appends formatted lines to a file of its own under
/// `<caches>/<label>/Logs/palomir-<prefix>-<yyyy-MM-dd-HH-mm-ss>.log`.
/// `log` returns at once: lines wait in memory for one process-wide writer
/// thread. Beyond 4 MiB of waiting text lines are dropped, and the file then
/// gets "dropped N log lines" (level error) where they would have been.
class PALOMIR_API FileLogger final : public Logger {
public:
    /// Opens a new file named with `filePrefix`, first deleting the oldest of
    /// the prefix's files so that at most `keepLogfiles` remain; writes
    /// messages of `level` and less verbose ones, formatted by `logFormatter`.
    FileLogger(std::string filePrefix, std::shared_ptr<const LogFormatter> logFormatter, LogType level,
               unsigned keepLogfiles);
    /// Call flush() first when the file must be complete when this returns.
    ~FileLogger() override;
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;

    /// Queues the line and returns; a message more verbose than the level is dropped.
    void log(const std::string& message, LogType type) override;

    /// The file being written, while the logger is open.
    std::optional<std::filesystem::path> currentLogFile() const;
    /// This logger's files, oldest first.
    std::vector<std::filesystem::path> logFiles() const;
    /// `<caches>/<label>/Logs`, or nothing when there is no caches directory.
    static std::optional<std::filesystem::path> logDirectory();

    /// Blocks until every line logged before the call has reached the file
    /// (or failed). For tests, and for hosts about to read the files; it waits
    /// as long as the disk does.
    void flush();

    /// The prefix of this logger's file names.
    const std::string& filePrefix() const { return _filePrefix; }
    /// The most verbose level written.
    LogType logLevel() const { return _logLevel; }

    /// Internal: the writer's view of this logger.
    struct State;

private:
    std::string _filePrefix;
    LogType _logLevel;
    std::shared_ptr<State> _state;
};

}  // namespace palomir
