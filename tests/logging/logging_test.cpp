#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include "palomir/logging.hpp"

namespace palomir {
namespace {

// Each level's label; the date in local time, then the zone; a message's own
// line feed is kept.
TEST(FormatterTest, LineShapeInLocalTime) {
    const std::pair<LogType, std::string> levels[] = {{LogType::fault, "FAULT"},
                                                      {LogType::error, "ERROR"},
                                                      {LogType::info, "INFO"},
                                                      {LogType::default_, "DEFAULT"},
                                                      {LogType::debug, "DEBUG"}};
    const std::pair<const char*, std::string> zones[] = {
        {"UTC0", "GMT"}, {"CEST-2", "GMT+02:00"}, {"NPT-5:45", "GMT+05:45"}, {"NST+3:30", "GMT-03:30"}};
    auto local = [](std::time_t t) {
        char text[32];
        std::tm tm{};
        return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&t, &tm)));
    };
    for (std::size_t i = 0; i < std::size(levels); ++i) {
        const auto& [type, label] = levels[i];
        const auto& [tz, zoneText] = zones[i % std::size(zones)];
        SCOPED_TRACE(tz);
        setenv("TZ", tz, 1);
        tzset();
        const std::time_t before = std::time(nullptr);
        const std::string line = PalomirLogFormatter().format("hello world\n", type);
        const std::time_t after = std::time(nullptr);
        EXPECT_EQ(line.substr(19), zoneText + " [" + label + "] hello world\n\n");
        EXPECT_TRUE(line.substr(0, 19) == local(before) || line.substr(0, 19) == local(after)) << line;
    }
}

// Every member of a combined logger gets each message, and the console
// prints it verbatim: a message is never taken for a format. (That the level
// travels along shows in the client's log file, whose lines are labelled.)
TEST(CombinedLoggerTest, EveryMemberPrintsTheMessageVerbatim) {
    CombinedLogger combined({std::make_shared<NSLogger>(), std::make_shared<NSLogger>()});
    testing::internal::CaptureStderr();
    combined.log("%d %@ %s", LogType::debug);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "%d %@ %s\n%d %@ %s\n");
}

}  // namespace
}  // namespace palomir
