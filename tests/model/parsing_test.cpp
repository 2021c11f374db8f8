#include <gtest/gtest.h>

#include "data.hpp"
#include "palomir/model.hpp"

namespace palomir {
namespace {

// Components are byte / 255.0, computed as the parser computes them: exact.
TEST(ColorParse, FollowsTheHexRulesAndEncodesAsComponents) {
    for (const auto& row : test::dataJson("colors.json")) {
        const auto rgba = row.at("rgba").get<std::array<int, 4>>();
        const Color expected{rgba[0] / 255.0, rgba[1] / 255.0, rgba[2] / 255.0, rgba[3] / 255.0};
        EXPECT_EQ(Color::fromHex(row.at("text").get<std::string>()), expected) << row.dump();
    }
    EXPECT_EQ(encode(Color::fromHex("#ff8800")),
              (nlohmann::json{{"red", 1.0}, {"green", 136 / 255.0}, {"blue", 0.0}, {"alpha", 1.0}}));
}

// An accepted date formats as its UTC instant, which is its own text when
// it was written in UTC.
TEST(DateParse, AcceptsOnlyTheStrictFormAndFormatsTheUtcInstant) {
    for (const auto& row : test::dataJson("dates.json")) {
        const auto text = row.at("text").get<std::string>();
        const auto parsed = plRFC3339.parse(text);
        EXPECT_EQ(parsed ? nlohmann::json(parsed->time_since_epoch().count()) : nlohmann::json(), row.at("ms"))
            << row.dump();
        if (parsed) {
            EXPECT_EQ(plRFC3339.format(*parsed), row.value("utc", text));
        }
    }
    for (std::int64_t day = -400; day < 20000; day += 7) {
        const Date date{std::chrono::milliseconds(day * 86400000 + 3723456)};
        const auto text = plRFC3339Format(date);
        EXPECT_EQ(plRFC3339Parse(text), date) << text;
    }
}

}  // namespace
}  // namespace palomir
