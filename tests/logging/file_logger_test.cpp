#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace palomir {
namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class FileLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/palomir-logging-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        _root = pattern;
        setCachesDirectory(_root);
        _logs = _root / "io.palomir.Palomir.FileLogger" / "Logs";
        fs::create_directories(_logs);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(_root, ec);
    }

    // Files created one after another, so that creation order is known; the
    // names run the other way to show that names do not decide the order.
    std::vector<fs::path> makeOldFiles(const std::string& prefix, int count) {
        std::vector<fs::path> files;
        for (int i = 0; i < count; ++i) {
            files.push_back(_logs / ("palomir-" + prefix + "-2020-01-0" + std::to_string(9 - i) + "-00-00-00.log"));
            std::ofstream(files.back()) << "old " << i << "\n";
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
        return files;
    }

    std::unique_ptr<FileLogger> makeLogger(const std::string& prefix, LogType level, unsigned keep,
                                           std::shared_ptr<const LogFormatter> formatter =
                                               std::make_shared<PalomirLogFormatter>()) {
        testing::internal::CaptureStdout();
        auto logger = std::make_unique<FileLogger>(prefix, std::move(formatter), level, keep);
        _printed = testing::internal::GetCapturedStdout();
        return logger;
    }

    fs::path _root;
    fs::path _logs;
    std::string _printed;
};

// A logger writes its own level and every less verbose one.
TEST_F(FileLoggerTest, WritesOnlyLevelsUpToItsOwn) {
    const LogType ordered[] = {LogType::fault, LogType::error, LogType::info, LogType::default_, LogType::debug};
    std::string expected;
    for (LogType level : ordered) {
        expected = " " + std::string(logTypeLabel(level)) + expected;
        SCOPED_TRACE(expected);
        auto logger = makeLogger(std::string(logTypeLabel(level)), level, 2);
        for (LogType type : {LogType::debug, LogType::default_, LogType::info, LogType::error, LogType::fault})
            logger->log(std::string(logTypeLabel(type)), type);
        logger->flush();
        std::istringstream in(readFile(*logger->currentLogFile()));
        std::string written;
        for (std::string line; std::getline(in, line);) written += " " + line.substr(line.rfind(' ') + 1);
        EXPECT_EQ(written, expected);
    }
}

// The new file is announced and made readable to all; old files are listed
// oldest first by creation, not by name, and pruning leaves room for the new
// file; keep 0 with no files at all deletes nothing.
TEST_F(FileLoggerTest, CreatesItsFileAndKeepsTheNewestOldFiles) {
    const std::tuple<int, unsigned, std::vector<int>> cases[] = {
        {3, 10, {0, 1, 2}}, {3, 2, {2}}, {3, 1, {}}, {0, 0, {}}};  // old files, keep, survivors
    for (const auto& [count, keep, survivors] : cases) {
        SCOPED_TRACE("keep " + std::to_string(keep) + " of " + std::to_string(count));
        fs::remove_all(_logs);
        fs::create_directories(_logs);
        auto old = makeOldFiles("main", count);
        auto logger = makeLogger("main", LogType::debug, keep);
        const fs::path file = logger->currentLogFile().value_or("");
        EXPECT_EQ(_printed, "Created file logger with log path: file://" + file.string() + "\n");
        EXPECT_EQ(file.parent_path(), _logs);
        EXPECT_TRUE(std::regex_match(file.filename().string(), std::regex(R"(palomir-main-\d{4}(-\d\d){5}\.log)")));
        struct stat st {};
        ASSERT_EQ(::stat(file.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0644u);
        std::vector<fs::path> expected;
        for (int i : survivors) expected.push_back(old[static_cast<std::size_t>(i)]);
        expected.push_back(file);
        EXPECT_EQ(logger->logFiles(), expected);
    }
}

TEST_F(FileLoggerTest, PrefixMatchesAnywhereInThePathOfLogFilesOnly) {
    auto domain = makeOldFiles("domain", 2);  // "domain" contains "main"
    auto other = makeOldFiles("other", 1);
    std::ofstream(_logs / "palomir-main-notes.txt") << "not a log";
    auto logger = makeLogger("main", LogType::debug, 1);
    EXPECT_FALSE(fs::exists(domain[0]));
    EXPECT_FALSE(fs::exists(domain[1]));
    EXPECT_TRUE(fs::exists(other[0]));
    EXPECT_TRUE(fs::exists(_logs / "palomir-main-notes.txt"));
    EXPECT_EQ(logger->logFiles(), std::vector<fs::path>{*logger->currentLogFile()});
}

class AngleFormatter : public LogFormatter {
public:
    std::string format(const std::string& m, LogType) const override { return m == "skip" ? "" : "<" + m + ">"; }
};

// Without a formatter messages run together; another formatter's text is
// written as it is, and empty text is dropped either way.
TEST_F(FileLoggerTest, WritesWhatItsFormatterMakes) {
    const std::pair<std::shared_ptr<const LogFormatter>, std::string> cases[] = {
        {nullptr, "onetwo"}, {std::make_shared<AngleFormatter>(), "<one><two>"}};
    for (const auto& [formatter, expected] : cases) {
        SCOPED_TRACE(expected);
        auto logger = makeLogger(expected, LogType::debug, 2, formatter);
        logger->log("one", LogType::info);
        logger->log(formatter ? "skip" : "", LogType::info);
        logger->log("two", LogType::debug);
        logger->flush();
        EXPECT_EQ(readFile(*logger->currentLogFile()), expected);
    }
}

TEST_F(FileLoggerTest, UnusableDirectoryReportsEveryWrite) {
    std::ofstream(_root / "blocker") << "a regular file";
    setCachesDirectory(_root / "blocker" / "caches");
    testing::internal::CaptureStdout();
    FileLogger logger("main", std::make_shared<PalomirLogFormatter>(), LogType::debug, 2);
    logger.log("first", LogType::error);
    logger.log("second", LogType::debug);
    logger.flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Failed to create log directory Not a directory\n"
              "Palomir FileLogger: Error writing: no file I/O\n"
              "Palomir FileLogger: Error writing: no file I/O\n");
    EXPECT_FALSE(logger.currentLogFile().has_value());
    EXPECT_TRUE(logger.logFiles().empty());
}

// Something already stands where the file of this or the next seconds would
// go: a directory cannot be opened at all, and a device that is always full
// fails every write, of which only the first is reported.
TEST_F(FileLoggerTest, FileThatCannotBeOpenedOrWrittenIsReported) {
    const std::pair<bool, std::string> cases[] = {
        {true,
         "Failed to create log file io 21\nPalomir FileLogger: Error writing: no file I/O\n"
         "Palomir FileLogger: Error writing: no file I/O\n"},
        {false, "Palomir FileLogger: Error writing: %d 28\n"}};
    for (const auto& [directory, expected] : cases) {
        SCOPED_TRACE(expected);
        fs::remove_all(_logs);
        fs::create_directories(_logs);
        const std::time_t now = std::time(nullptr);
        for (std::time_t t = now; t < now + 5; ++t) {
            char stamp[32];
            std::tm tm{};
            std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", localtime_r(&t, &tm));
            const fs::path name = _logs / ("palomir-main-" + std::string(stamp) + ".log");
            if (directory) {
                fs::create_directory(name);
            } else {
                fs::create_symlink("/dev/full", name);
            }
        }
        testing::internal::CaptureStdout();
        FileLogger logger("main", std::make_shared<PalomirLogFormatter>(), LogType::debug, 10);
        for (const char* message : {"first", "second"}) {
            logger.log(message, LogType::error);
            logger.flush();
        }
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.substr(printed.find('\n') + 1), expected);
        EXPECT_EQ(logger.currentLogFile().has_value(), !directory);
    }
}

// Eight threads log enough text to go round the pending ring several times,
// so that callers often wait for room and meet in the same chunks, in lines
// of uneven length that straddle every boundary, one longer than the ring.
// Meanwhile another thread flushes after each of its lines. Every line
// arrives whole, once, and in each thread's order, each flush returns only
// once the lines before it are in the file, and lines logged right before
// the logger is dropped are still written.
TEST_F(FileLoggerTest, ManyThreadsLoseAndReorderNothing) {
    auto logger = makeLogger("main", LogType::debug, 2);
    const fs::path file = *logger->currentLogFile();
    constexpr int kThreads = 8, kLines = 1200, kFlushes = 200;
    constexpr std::size_t kHuge = 9u << 20;
    auto text = [](int t, int i) {
        const std::string head = "t" + std::to_string(t) + " " + std::to_string(i) + " ";
        if (t == 1 && i == kLines / 2) return head + std::string(kHuge, 'H');
        return head + std::string(static_cast<std::size_t>(i) * 7919 % 6000, static_cast<char>('a' + t));
    };
    const std::size_t framing = PalomirLogFormatter().format("", LogType::info).size();
    std::atomic<std::uintmax_t> total{0};
    auto log = [&](int t, int i) {
        const std::string line = text(t, i);
        logger->log(line, LogType::info);
        total += framing + line.size();
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) log(t, i);
        });
    }
    std::vector<std::uintmax_t> flushed;
    for (int i = 0; i < kFlushes; ++i) {
        log(kThreads, i);
        logger->flush();
        flushed.push_back(fs::file_size(file));
    }
    for (auto& thread : threads) thread.join();
    logger.reset();
    for (int wait = 0; wait < 1000 && fs::file_size(file) < total; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(fs::file_size(file), total.load());

    std::vector<int> next(kThreads + 1, 0);
    std::uintmax_t offset = 0;
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        offset += line.size() + 1;
        const auto at = line.find("] t");
        ASSERT_NE(at, std::string::npos) << line.substr(0, 80);
        const int t = line[at + 3] - '0';
        ASSERT_TRUE(t >= 0 && t <= kThreads) << line.substr(0, 80);
        ASSERT_EQ(line.substr(at + 2), text(t, next[t]++)) << "thread " << t << " line " << next[t] - 1;
        if (t == kThreads) {
            EXPECT_LE(offset, flushed[next[t] - 1]) << "flush " << next[t] - 1 << " returned early";
        }
    }
    EXPECT_EQ(next, (std::vector<int>{kLines, kLines, kLines, kLines, kLines, kLines, kLines, kLines, kFlushes}));
}

}  // namespace
}  // namespace palomir
