#include <gtest/gtest.h>

#include "palomir/model.hpp"

namespace palomir {
namespace {

using std::chrono::milliseconds;

Date at(std::int64_t msSinceEpoch) { return Date(milliseconds(msSinceEpoch)); }

struct DateCase {
    const char* text;
    std::optional<std::int64_t> expectedMs;  // nothing: rejected
};

class DateParse : public ::testing::TestWithParam<DateCase> {};

TEST_P(DateParse, ParsesOnlyTheStrictForm) {
    const auto parsed = plRFC3339.parse(GetParam().text);
    const auto ms = parsed ? std::optional<std::int64_t>(parsed->time_since_epoch().count()) : std::nullopt;
    EXPECT_EQ(ms, GetParam().expectedMs) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, DateParse,
    ::testing::Values(
        DateCase{"2024-05-01T06:30:00.000Z", 1714545000000},
        DateCase{"2024-05-01T08:30:00.000+02:00", 1714545000000},
        DateCase{"1969-12-31T23:59:59.999Z", -1},
        DateCase{"2024-02-29T12:00:00.500Z", 1709208000500},
        DateCase{"0000-01-01T00:00:00.000Z", -62167219200000},
        DateCase{"9999-12-31T23:59:59.999Z", 253402300799999},
        // Offsets that carry the instant past the four-digit years in UTC.
        DateCase{"0000-01-01T00:00:10.000+02:00", std::nullopt},
        DateCase{"9999-12-31T23:00:00.000-02:00", std::nullopt},
        DateCase{"0000-01-01T00:00:00.000-01:00", -62167215600000},
        DateCase{"2024-05-01T06:30:00Z", std::nullopt},         // no fraction
        DateCase{"2024-05-01T06:30:00.000000Z", std::nullopt},  // six digits
        DateCase{"2024-05-01t06:30:00.000Z", std::nullopt}, DateCase{"2024-05-01 06:30:00.000Z", std::nullopt},
        DateCase{"2024-05-01T06:30:00.000", std::nullopt}, DateCase{"2024-05-01T06:30:00.000+0200", std::nullopt},
        DateCase{"2024-05-01T06:30:00.000+24:00", std::nullopt},
        DateCase{"2023-02-29T00:00:00.000Z", std::nullopt},  // not a leap year
        DateCase{"1900-02-29T00:00:00.000Z", std::nullopt},
        DateCase{"2024-04-31T00:00:00.000Z", std::nullopt}, DateCase{"2024-05-01T24:00:00.000Z", std::nullopt},
        DateCase{" 2024-05-01T06:30:00.000Z", std::nullopt}, DateCase{"", std::nullopt}));

TEST(DateFormat, WritesUtcWithThreeFractionDigitsAndRoundTripsAroundTheEpoch) {
    EXPECT_EQ(plRFC3339.format(at(1709208000500)), "2024-02-29T12:00:00.500Z");
    EXPECT_EQ(plRFC3339.format(at(-1)), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(plRFC3339Format(at(253402300799999)), "9999-12-31T23:59:59.999Z");
    for (std::int64_t day = -400; day < 20000; day += 7) {
        const Date date = at(day * 86400000 + 3723456);
        const auto text = plRFC3339Format(date);
        EXPECT_EQ(plRFC3339Parse(text), date) << text;
    }
}

}  // namespace
}  // namespace palomir
