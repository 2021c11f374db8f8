// The client's log directory on a file system that fills up: the host sees
// no error and the logger prints its one write-error line.

#include <gtest/gtest.h>

#include <sys/mount.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>

#include "palomir/palomir.hpp"
#include "support.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;

class FullDisk : public SandboxClientTest {
protected:
    void SetUp() override {
        // A 256 KB tmpfs over the caches directory; only possible with the
        // privilege to mount, which containers and CI runners often lack.
        if (::mount("palomir-full", _caches.path().c_str(), "tmpfs", 0, "size=256k") != 0)
            GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
        _mounted = true;
    }

    void TearDown() override {
        if (_mounted) ::umount2(_caches.path().c_str(), MNT_DETACH);
    }

    bool _mounted = false;
};

TEST_F(FullDisk, LogLinesPastTheEndPrintOneWriteErrorAndCheckinStillWorks) {
    startSandbox({}, /*hostLogger=*/false);
    auto logger = Palomir::shared().logger();
    ASSERT_TRUE(logger);
    const std::string filler(4000, 'x');

    ::testing::internal::CaptureStdout();
    for (int i = 0; i < 200; ++i) logger->log("filler " + std::to_string(i) + " " + filler, LogType::info);
    auto first = checkin();
    for (int i = 0; i < 50; ++i) logger->log("after the disk filled " + std::to_string(i), LogType::info);
    auto second = checkin();
    std::this_thread::sleep_for(500ms);
    std::fflush(stdout);
    const std::string printed = ::testing::internal::GetCapturedStdout();

    ASSERT_TRUE(first.hasValue()) << first.error().localizedDescription();
    ASSERT_TRUE(second.hasValue()) << second.error().localizedDescription();
    std::istringstream lines(printed);
    std::string line;
    std::vector<std::string> fileLoggerLines;
    while (std::getline(lines, line))
        if (line.rfind("Palomir FileLogger", 0) == 0) fileLoggerLines.push_back(line);
    EXPECT_EQ(fileLoggerLines, std::vector<std::string>{"Palomir FileLogger: Error writing: %d " + std::to_string(ENOSPC)});
}

}  // namespace
}  // namespace palomir
