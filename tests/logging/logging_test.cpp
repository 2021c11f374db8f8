#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "palomir/logging.hpp"

namespace palomir {
namespace {

TEST(LogTypeTest, LabelsAndOrder) {
    EXPECT_EQ(logTypeLabel(LogType::fault), "FAULT");
    EXPECT_EQ(logTypeLabel(LogType::error), "ERROR");
    EXPECT_EQ(logTypeLabel(LogType::info), "INFO");
    EXPECT_EQ(logTypeLabel(LogType::default_), "DEFAULT");
    EXPECT_EQ(logTypeLabel(LogType::debug), "DEBUG");
    EXPECT_LT(LogType::fault, LogType::error);
    EXPECT_LT(LogType::error, LogType::info);
    EXPECT_LT(LogType::info, LogType::default_);
    EXPECT_LT(LogType::default_, LogType::debug);
}

struct ZoneCase {
    const char* tz;
    const char* zoneText;
};

class FormatterZoneTest : public testing::TestWithParam<ZoneCase> {};

std::string localStamp(std::time_t t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

TEST_P(FormatterZoneTest, LineShapeInLocalTime) {
    setenv("TZ", GetParam().tz, 1);
    tzset();
    PalomirLogFormatter formatter;
    const std::time_t before = std::time(nullptr);
    const std::string line = formatter.format("hello world", LogType::error);
    const std::time_t after = std::time(nullptr);

    const std::string suffix = std::string(GetParam().zoneText) + " [ERROR] hello world\n";
    ASSERT_GE(line.size(), 19 + suffix.size());
    EXPECT_EQ(line.substr(19), suffix);
    const std::string date = line.substr(0, 19);
    EXPECT_TRUE(date == localStamp(before) || date == localStamp(after)) << date;
}

INSTANTIATE_TEST_SUITE_P(Zones, FormatterZoneTest,
                         testing::Values(ZoneCase{"UTC0", "GMT"}, ZoneCase{"CEST-2", "GMT+02:00"},
                                         ZoneCase{"NPT-5:45", "GMT+05:45"}, ZoneCase{"NST+3:30", "GMT-03:30"}),
                         [](const auto& info) { return std::string(info.param.tz).substr(0, 3); });

TEST(FormatterTest, EveryLevelGetsItsLabelAndOneLineFeed) {
    setenv("TZ", "UTC0", 1);
    tzset();
    PalomirLogFormatter formatter;
    const std::regex shape(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}GMT \[([A-Z]+)\] (.*)\n)");
    for (LogType type : {LogType::fault, LogType::error, LogType::info, LogType::default_, LogType::debug}) {
        std::smatch match;
        const std::string line = formatter.format("m", type);
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        EXPECT_EQ(match[1].str(), logTypeLabel(type));
    }
    const std::string twice = formatter.format("ends with a line feed\n", LogType::debug);
    EXPECT_EQ(twice.substr(twice.size() - 24), " ends with a line feed\n\n");
}

TEST(NSLoggerTest, WritesTheMessageVerbatimToStandardError) {
    NSLogger logger;
    testing::internal::CaptureStderr();
    logger.log("%d %@ %s", LogType::debug);
    logger.log("second", LogType::fault);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "%d %@ %s\nsecond\n");
}

class RecordingLogger : public Logger {
public:
    RecordingLogger(std::string name, std::vector<std::string>& record) : _name(std::move(name)), _record(record) {}
    void log(const std::string& message, LogType type) override {
        _record.push_back(_name + ":" + message + ":" + std::string(logTypeLabel(type)));
    }

private:
    std::string _name;
    std::vector<std::string>& _record;
};

TEST(CombinedLoggerTest, DeliversToEachMemberInOrder) {
    std::vector<std::string> record;
    CombinedLogger combined({std::make_shared<RecordingLogger>("a", record),
                             std::make_shared<RecordingLogger>("b", record)});
    combined.log("x", LogType::debug);
    combined.log("y", LogType::fault);
    EXPECT_EQ(record, (std::vector<std::string>{"a:x:DEBUG", "b:x:DEBUG", "a:y:FAULT", "b:y:FAULT"}));
}

TEST(CombinedLoggerTest, EmptyListAcceptsMessages) {
    CombinedLogger combined({});
    combined.log("nothing", LogType::error);
    EXPECT_TRUE(combined.fileLoggers().empty());
}

}  // namespace
}  // namespace palomir
