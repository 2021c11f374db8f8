#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "palomir/environment.hpp"
#include "palomir/logging.hpp"

namespace palomir {
namespace {

namespace fs = std::filesystem;

// Captures standard output through a pipe (a temporary file would be subject
// to the file size limit one test sets).
class StdoutCapture {
public:
    StdoutCapture() {
        std::fflush(stdout);
        EXPECT_EQ(::pipe(_pipe), 0);
        _saved = ::dup(STDOUT_FILENO);
        ::dup2(_pipe[1], STDOUT_FILENO);
    }
    std::string finish() {
        std::fflush(stdout);
        ::dup2(_saved, STDOUT_FILENO);
        ::close(_saved);
        ::close(_pipe[1]);
        std::string text;
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(_pipe[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
        ::close(_pipe[0]);
        return text;
    }

private:
    int _pipe[2] = {-1, -1};
    int _saved = -1;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

class FileLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/palomir-logging-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        _root = pattern;
        setCachesDirectory(_root);
        _logs = _root / "io.palomir.Palomir.FileLogger" / "Logs";
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(_root, ec);
    }

    // Files created one after another, so that creation order is known; the
    // names run the other way to show that names do not decide the order.
    std::vector<fs::path> makeOldFiles(const std::string& prefix, int count) {
        fs::create_directories(_logs);
        std::vector<fs::path> files;
        for (int i = 0; i < count; ++i) {
            auto path = _logs / ("palomir-" + prefix + "-2020-01-0" + std::to_string(9 - i) + "-00-00-00.log");
            std::ofstream(path) << "old " << i << "\n";
            files.push_back(path);
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
        return files;
    }

    std::unique_ptr<FileLogger> makeLogger(const std::string& prefix, LogType level, unsigned keep,
                                           std::string* printed = nullptr) {
        StdoutCapture capture;
        auto logger = std::make_unique<FileLogger>(prefix, std::make_shared<PalomirLogFormatter>(), level, keep);
        std::string text = capture.finish();
        if (printed) *printed = text;
        return logger;
    }

    fs::path _root;
    fs::path _logs;
};

TEST_F(FileLoggerTest, CreatesItsFileAndPrintsItsPath) {
    std::string printed;
    auto logger = makeLogger("main", LogType::debug, 2, &printed);
    auto file = logger->currentLogFile();
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(file->parent_path(), _logs);
    EXPECT_TRUE(std::regex_match(file->filename().string(),
                                 std::regex(R"(palomir-main-\d{4}-\d{2}-\d{2}-\d{2}-\d{2}-\d{2}\.log)")));
    EXPECT_EQ(printed, "Created file logger with log path: file://" + file->string() + "\n");
    struct stat st {};
    ASSERT_EQ(::stat(file->c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(logger->logFiles(), std::vector<fs::path>{*file});
}

struct LevelCase {
    LogType level;
    std::vector<std::string> written;
};

class FileLoggerLevelTest : public FileLoggerTest, public testing::WithParamInterface<LevelCase> {};

TEST_P(FileLoggerLevelTest, WritesOnlyLevelsUpToItsOwn) {
    auto logger = makeLogger("main", GetParam().level, 2);
    for (LogType type : {LogType::debug, LogType::default_, LogType::info, LogType::error, LogType::fault})
        logger->log(std::string(logTypeLabel(type)), type);
    logger->flush();
    std::vector<std::string> written;
    for (const auto& line : lines(readFile(*logger->currentLogFile()))) written.push_back(line.substr(line.rfind(' ') + 1));
    EXPECT_EQ(written, GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, FileLoggerLevelTest,
    testing::Values(LevelCase{LogType::fault, {"FAULT"}}, LevelCase{LogType::error, {"ERROR", "FAULT"}},
                    LevelCase{LogType::info, {"INFO", "ERROR", "FAULT"}},
                    LevelCase{LogType::default_, {"DEFAULT", "INFO", "ERROR", "FAULT"}},
                    LevelCase{LogType::debug, {"DEBUG", "DEFAULT", "INFO", "ERROR", "FAULT"}}),
    [](const auto& info) { return std::string(logTypeLabel(info.param.level)); });

TEST_F(FileLoggerTest, KeepTwoLeavesTheNewestOldFileBesideTheNewOne) {
    auto old = makeOldFiles("main", 3);
    auto other = _logs / "palomir-other-2020-01-01-00-00-00.log";
    std::ofstream(other) << "x";
    auto logger = makeLogger("main", LogType::debug, 2);
    EXPECT_EQ(logger->logFiles(), (std::vector<fs::path>{old[2], *logger->currentLogFile()}));
    EXPECT_TRUE(fs::exists(other));
}

TEST_F(FileLoggerTest, ListsOldestFirstByCreationNotByName) {
    auto old = makeOldFiles("main", 3);
    std::ofstream(_logs / "palomir-main-notes.txt") << "not a log";
    auto logger = makeLogger("main", LogType::debug, 10);
    EXPECT_EQ(logger->logFiles(), (std::vector<fs::path>{old[0], old[1], old[2], *logger->currentLogFile()}));
}

TEST_F(FileLoggerTest, PrefixMatchesAnywhereInThePath) {
    auto domain = makeOldFiles("domain", 2);  // "domain" contains "main"
    auto other = makeOldFiles("other", 1);
    auto logger = makeLogger("main", LogType::debug, 1);
    EXPECT_FALSE(fs::exists(domain[0]));
    EXPECT_FALSE(fs::exists(domain[1]));
    EXPECT_TRUE(fs::exists(other[0]));
    EXPECT_EQ(logger->logFiles(), std::vector<fs::path>{*logger->currentLogFile()});
}

TEST_F(FileLoggerTest, KeepZeroWithNoFilesDeletesNothing) {
    auto logger = makeLogger("main", LogType::debug, 0);
    ASSERT_TRUE(logger->currentLogFile().has_value());
    EXPECT_EQ(logger->logFiles(), std::vector<fs::path>{*logger->currentLogFile()});
}

TEST_F(FileLoggerTest, WithoutFormatterMessagesRunTogether) {
    std::unique_ptr<FileLogger> logger;
    {
        StdoutCapture capture;
        logger = std::make_unique<FileLogger>("raw", nullptr, LogType::debug, 2);
        capture.finish();
    }
    logger->log("one", LogType::info);
    logger->log("", LogType::info);
    logger->log("two", LogType::info);
    logger->flush();
    EXPECT_EQ(readFile(*logger->currentLogFile()), "onetwo");
}

TEST_F(FileLoggerTest, UnusableDirectoryReportsEveryWrite) {
    std::ofstream(_root / "blocker") << "a regular file";
    setCachesDirectory(_root / "blocker" / "caches");
    StdoutCapture capture;
    FileLogger logger("main", std::make_shared<PalomirLogFormatter>(), LogType::debug, 2);
    logger.log("first", LogType::error);
    logger.log("second", LogType::debug);
    logger.flush();
    EXPECT_EQ(capture.finish(),
              "Failed to create log directory Not a directory\n"
              "Palomir FileLogger: Error writing: no file I/O\n"
              "Palomir FileLogger: Error writing: no file I/O\n");
    EXPECT_FALSE(logger.currentLogFile().has_value());
    EXPECT_TRUE(logger.logFiles().empty());
}

TEST_F(FileLoggerTest, FileThatCannotBeOpenedIsReported) {
    // Directories stand where the file of this or the next seconds would go.
    fs::create_directories(_logs);
    std::vector<std::string> names;
    const std::time_t now = std::time(nullptr);
    for (int i = 0; i < 5; ++i) {
        std::time_t t = now + i;
        std::tm tm{};
        localtime_r(&t, &tm);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", &tm);
        fs::create_directory(_logs / ("palomir-main-" + std::string(stamp) + ".log"));
    }
    StdoutCapture capture;
    FileLogger logger("main", std::make_shared<PalomirLogFormatter>(), LogType::debug, 10);
    logger.log("lost", LogType::error);
    const std::string printed = capture.finish();
    EXPECT_TRUE(std::regex_match(printed, std::regex("Created file logger with log path: file://" + _logs.string() +
                                                     R"(/palomir-main-[-0-9]+\.log\n)"
                                                     "Failed to create log file io 21\n"
                                                     "Palomir FileLogger: Error writing: no file I/O\n")))
        << printed;
    EXPECT_FALSE(logger.currentLogFile().has_value());
}

TEST_F(FileLoggerTest, OnlyTheFirstWriteErrorIsPrinted) {
    auto logger = makeLogger("main", LogType::debug, 2);
    // Writes beyond the file size limit fail with EFBIG once the signal is ignored.
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    rlimit tiny = saved;
    tiny.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tiny), 0);
    StdoutCapture capture;
    logger->log("first", LogType::error);
    logger->flush();
    logger->log("second", LogType::error);
    logger->flush();
    const std::string printed = capture.finish();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(printed, "Palomir FileLogger: Error writing: %d 27\n");
}

TEST_F(FileLoggerTest, ConcurrentWritersLoseAndReorderNothing) {
    auto logger = makeLogger("main", LogType::debug, 2);
    constexpr int kThreads = 8, kLines = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) logger->log("t" + std::to_string(t) + " " + std::to_string(i), LogType::info);
        });
    }
    for (auto& thread : threads) thread.join();
    logger->flush();
    std::vector<int> next(kThreads, 0);
    const std::regex shape(R"(.* \[INFO\] t(\d) (\d+))");
    auto all = lines(readFile(*logger->currentLogFile()));
    ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kLines));
    for (const auto& line : all) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        int t = std::stoi(match[1].str());
        ASSERT_EQ(std::stoi(match[2].str()), next[t]++) << "thread " << t;
    }
}

TEST_F(FileLoggerTest, LinesLoggedBeforeDestructionAreStillWritten) {
    auto logger = makeLogger("main", LogType::debug, 2);
    const fs::path file = *logger->currentLogFile();
    for (int i = 0; i < 5000; ++i) logger->log("line " + std::to_string(i), LogType::debug);
    logger.reset();
    std::size_t count = 0;
    for (int wait = 0; wait < 500 && count < 5000; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        count = lines(readFile(file)).size();
    }
    EXPECT_EQ(count, 5000u);
}

// Enough text to go round the pending buffer twice, in lines of uneven length
// that straddle every boundary, one of them longer than the whole buffer.
TEST_F(FileLoggerTest, LongAndManyLinesArriveWholeAndInOrder) {
    auto logger = makeLogger("main", LogType::debug, 2);
    constexpr int kThreads = 4, kLines = 1500;
    constexpr std::size_t kHuge = 9u << 20;
    auto filler = [](int t, int i) { return std::string(static_cast<std::size_t>(i) * 7919 % 6000, static_cast<char>('a' + t)); };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                std::string text = "t" + std::to_string(t) + " " + std::to_string(i) + " ";
                text += (t == 1 && i == kLines / 2) ? std::string(kHuge, 'H') : filler(t, i);
                logger->log(text, LogType::info);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    logger->flush();

    std::vector<int> next(kThreads, 0);
    std::ifstream in(*logger->currentLogFile(), std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        const auto at = line.find("] t");
        ASSERT_NE(at, std::string::npos) << line.substr(0, 80);
        const int t = line[at + 3] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
        const int i = next[t]++;
        const std::string head = "] t" + std::to_string(t) + " " + std::to_string(i) + " ";
        ASSERT_EQ(line.compare(at, head.size(), head), 0) << "thread " << t << " line " << i;
        const std::string body = line.substr(at + head.size());
        if (t == 1 && i == kLines / 2) {
            ASSERT_EQ(body, std::string(kHuge, 'H'));
        } else {
            ASSERT_EQ(body, filler(t, i)) << "thread " << t << " line " << i;
        }
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

// flush waits for the lines logged before it even while others keep logging.
TEST_F(FileLoggerTest, FlushReturnsWhileOthersKeepLogging) {
    auto logger = makeLogger("main", LogType::debug, 2);
    const fs::path file = *logger->currentLogFile();
    std::atomic<bool> stop{false};
    std::thread other([&] {
        for (int i = 0; !stop.load(); ++i) logger->log("other " + std::to_string(i), LogType::info);
    });
    constexpr int kFlushes = 200;
    std::vector<std::uintmax_t> sizes;
    for (int i = 0; i < kFlushes; ++i) {
        logger->log("mine " + std::to_string(i), LogType::info);
        logger->flush();
        sizes.push_back(fs::file_size(file));
    }
    stop = true;
    other.join();
    logger->flush();
    const std::string text = readFile(file);
    std::size_t at = 0;
    for (int i = 0; i < kFlushes; ++i) {
        const std::string line = "] mine " + std::to_string(i) + "\n";
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << i;
        EXPECT_LE(at + line.size(), sizes[static_cast<std::size_t>(i)]) << "flush " << i << " returned too early";
    }
}

class UpperFormatter : public LogFormatter {
public:
    std::string format(const std::string& message, LogType) const override {
        if (message == "skip") return "";
        std::string text = "<" + message + ">";
        for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return text;
    }
};

TEST_F(FileLoggerTest, OtherFormattersAreWrittenAsTheyFormat) {
    std::unique_ptr<FileLogger> logger;
    {
        StdoutCapture capture;
        logger = std::make_unique<FileLogger>("own", std::make_shared<UpperFormatter>(), LogType::debug, 2);
        capture.finish();
    }
    logger->log("one", LogType::info);
    logger->log("skip", LogType::info);
    logger->log("two", LogType::debug);
    logger->flush();
    EXPECT_EQ(readFile(*logger->currentLogFile()), "<ONE><TWO>");
}

}  // namespace
}  // namespace palomir
