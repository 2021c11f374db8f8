#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "palomir/environment.hpp"
#include "palomir/logging.hpp"
#include "palomir_test/temp_dir.hpp"

namespace palomir {
namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The writer prints from its own thread, so standard output goes to a file
// the test can look at while the writer is still at work.
class FileLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        setCachesDirectory(_root.path());
        _logs = _root / "io.palomir.Palomir.FileLogger/Logs";
        fs::create_directories(_logs);
        std::fflush(stdout);
        _stdout = ::dup(STDOUT_FILENO);
        const int file = ::open((_root / "stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(file, STDOUT_FILENO);
        ::close(file);
    }
    void TearDown() override {
        _loggers.clear();
        std::fflush(stdout);
        ::dup2(_stdout, STDOUT_FILENO);
        ::close(_stdout);
        if (HasFailure()) std::fprintf(stderr, "printed:\n%s", readFile(_root / "stdout").c_str());
    }

    // What was printed since the last call, once it ends with `tail` (or ten seconds passed).
    std::string printed(const std::string& tail = "") {
        std::string all;
        for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
            std::fflush(stdout);
            all = readFile(_root / "stdout");
            if (std::string_view(all).substr(_seen).ends_with(tail)) break;
        }
        return all.substr(std::exchange(_seen, all.size()));
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

    // Whatever file the next few seconds would get is `target`.
    void pointComingFilesAt(const fs::path& target) {
        for (std::time_t t = std::time(nullptr), end = t + 5; t < end; ++t) {
            char stamp[32];
            std::tm tm{};
            std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", localtime_r(&t, &tm));
            fs::create_symlink(target, _logs / ("palomir-main-" + std::string(stamp) + ".log"));
        }
    }

    FileLogger& makeLogger(const std::string& prefix, LogType level, unsigned keep,
                           std::shared_ptr<const LogFormatter> formatter = std::make_shared<PalomirLogFormatter>()) {
        _loggers.push_back(std::make_unique<FileLogger>(prefix, std::move(formatter), level, keep));
        _announced = printed();
        return *_loggers.back();
    }

    palomir_test::TempDir _root;
    fs::path _logs;
    int _stdout = -1;
    std::size_t _seen = 0;
    std::string _announced;
    std::vector<std::unique_ptr<FileLogger>> _loggers;
};

// A logger writes its own level and every less verbose one; without a
// formatter messages run together.
TEST_F(FileLoggerTest, WritesOnlyLevelsUpToItsOwn) {
    std::string expected;
    for (LogType level : {LogType::fault, LogType::error, LogType::info, LogType::default_, LogType::debug}) {
        expected += std::string(logTypeLabel(level)) + ",";
        auto& logger = makeLogger(std::string(logTypeLabel(level)), level, 2, nullptr);
        for (LogType type : {LogType::fault, LogType::error, LogType::info, LogType::default_, LogType::debug})
            logger.log(std::string(logTypeLabel(type)) + ",", type);
        logger.flush();
        EXPECT_EQ(readFile(*logger.currentLogFile()), expected);
    }
}

// The new file is announced and made readable to all; this prefix's old
// files, wherever in the path it stands, are listed oldest first by creation,
// not by name, and pruning leaves room for the new file; keep 0 with no files
// at all deletes nothing. Other files stay.
TEST_F(FileLoggerTest, CreatesItsFileAndKeepsTheNewestOldFiles) {
    const std::tuple<const char*, int, unsigned, std::vector<int>> cases[] = {
        {"main", 3, 10, {0, 1, 2}}, {"main", 3, 2, {2}}, {"domain", 3, 1, {}}, {"main", 0, 0, {}}};
    for (const auto& [prefix, count, keep, survivors] : cases) {
        SCOPED_TRACE(std::string(prefix) + " keep " + std::to_string(keep) + " of " + std::to_string(count));
        fs::remove_all(_logs);
        fs::create_directories(_logs);
        const auto others = makeOldFiles("other", 1);
        std::ofstream(_logs / "palomir-main-notes.txt") << "not a log";
        const auto old = makeOldFiles(prefix, count);
        auto& logger = makeLogger("main", LogType::debug, keep);
        const fs::path file = logger.currentLogFile().value_or("");
        EXPECT_EQ(_announced, "Created file logger with log path: file://" + file.string() + "\n");
        EXPECT_TRUE(std::regex_match(file.filename().string(), std::regex(R"(palomir-main-\d{4}(-\d\d){5}\.log)")));
        struct stat st {};
        ASSERT_EQ(::stat(file.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0644u);
        std::vector<fs::path> expected;
        for (int i : survivors) expected.push_back(old[static_cast<std::size_t>(i)]);
        expected.push_back(file);
        EXPECT_EQ(logger.logFiles(), expected);
        EXPECT_TRUE(fs::exists(others[0]) && fs::exists(_logs / "palomir-main-notes.txt"));
    }
}

// A device that is always full: the failed write is reported once, however
// many follow. (Writes while no file is open are reported each time, as the
// client's run with a caches directory it cannot make shows.)
TEST_F(FileLoggerTest, AFailingDiskIsReportedOnce) {
    pointComingFilesAt("/dev/full");
    auto& logger = makeLogger("main", LogType::debug, 10);
    for (const char* message : {"first", "second"}) {
        logger.log(message, LogType::error);
        logger.flush();
    }
    _loggers.clear();
    // The announcement may come after makeLogger looked, from the writer's thread.
    const std::string text = _announced + printed("io 0\n");
    const auto announcement = text.find("Created file logger");
    EXPECT_EQ(text.substr(text.find('\n', announcement) + 1),
              "Palomir FileLogger: Error writing: %d 28\nFailed to create log file io 0\n");
}

// The file is a pipe nobody reads yet, so the writer is stuck in its first
// large write. Logging goes on regardless; what passes the bound is dropped,
// and once the pipe is read the count of dropped lines stands where they went.
TEST_F(FileLoggerTest, LoggingGoesOnWhileTheDiskIsStuckAndCountsWhatItDrops) {
    const fs::path pipe = _root / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    const int fd = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    pointComingFilesAt(pipe);
    auto& logger = makeLogger("main", LogType::debug, 10);
    constexpr int kLines = 6000;  // about 6 MB, far beyond the bound and a pipe's buffer
    const std::string filler(1000, 'x');
    for (int i = 0; i < kLines; ++i) logger.log(std::to_string(i) + " " + filler, LogType::info);

    std::string received;
    std::thread reader([&] {
        ::fcntl(fd, F_SETFL, 0);
        char buffer[1 << 16];
        for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) received.append(buffer, static_cast<std::size_t>(n));
    });
    logger.flush();
    logger.log("last", LogType::info);
    _loggers.clear();  // the file's end ends the reader
    reader.join();
    ::close(fd);

    std::istringstream in(received);
    int next = 0;
    std::size_t keptBytes = 0;
    std::string line;
    for (; std::getline(in, line) && line.ends_with(filler); keptBytes += line.size() + 1)
        ASSERT_EQ(line.substr(line.find("] ") + 2), std::to_string(next++) + " " + filler);
    const std::string dropped = line, rest((std::istreambuf_iterator<char>(in)), {});
    EXPECT_GE(keptBytes + 1100, 4u << 20);
    EXPECT_TRUE(dropped.ends_with(" [ERROR] dropped " + std::to_string(kLines - next) + " log lines")) << dropped;
    EXPECT_TRUE(rest.ends_with(" [INFO] last\n") && std::count(rest.begin(), rest.end(), '\n') == 1) << rest;
}

}  // namespace
}  // namespace palomir
