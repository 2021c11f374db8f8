#include <gtest/gtest.h>

#include "palomir/model.hpp"

namespace palomir {
namespace {

struct ColorCase {
    const char* text;
    Color expected;
};

constexpr Color kTransparentBlack{0.0, 0.0, 0.0, 0.0};
constexpr Color kOrange{1.0, 136 / 255.0, 0.0, 1.0};

class ColorParse : public ::testing::TestWithParam<ColorCase> {};

TEST_P(ColorParse, FollowsTheHexRules) {
    // Components are byte / 255.0, computed as the expectations are: exact.
    EXPECT_EQ(Color::fromHex(GetParam().text), GetParam().expected) << '"' << GetParam().text << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Table, ColorParse,
    ::testing::Values(
        ColorCase{"#FF8800", kOrange}, ColorCase{"#f80", kOrange}, ColorCase{" #ff8800\n", kOrange},
        ColorCase{"\u00a0#ff8800\u3000", kOrange},  // Unicode white space is trimmed too
        ColorCase{"#FF880080", {1.0, 136 / 255.0, 0.0, 128 / 255.0}},
        ColorCase{"#000000", {0.0, 0.0, 0.0, 1.0}}, ColorCase{"#ff88", kTransparentBlack},
        ColorCase{"##ff8800", kTransparentBlack},
        ColorCase{"red", kTransparentBlack},           // doubled to "rreedd": no leading digit
        // The length counts characters, the value only the digits read.
        ColorCase{"12345g", {0x01 / 255.0, 0x23 / 255.0, 0x45 / 255.0, 1.0}},
        ColorCase{"0x1234", {0.0, 0x12 / 255.0, 0x34 / 255.0, 1.0}},
        ColorCase{"0X123456", {0x00 / 255.0, 0x12 / 255.0, 0x34 / 255.0, 0x56 / 255.0}},
        ColorCase{"0x12345678", kTransparentBlack},  // ten characters
        ColorCase{"0xzzzz", {0.0, 0.0, 0.0, 1.0}},      // the "0" itself is a digit
        ColorCase{"# ab", {0.0, 0xaa / 255.0, 0xbb / 255.0, 1.0}},  // "  aabb": scanner skips blanks
        ColorCase{"12345\u00e9", {0x01 / 255.0, 0x23 / 255.0, 0x45 / 255.0, 1.0}},  // six characters
        ColorCase{"\u00e912", kTransparentBlack}));

TEST(ColorCoding, DecodesTextAndEncodesComponentNumbers) {
    EXPECT_EQ(encode(kOrange), (nlohmann::json{{"red", 1.0}, {"green", 136 / 255.0}, {"blue", 0.0}, {"alpha", 1.0}}));

    const auto ok = decodeJson<Color>("\"nonsense\"");
    ASSERT_TRUE(ok.hasValue());
    EXPECT_EQ(ok.value(), kTransparentBlack);
    const auto bad = decodeJson<Color>("16746496");
    ASSERT_TRUE(bad.hasError());
    EXPECT_EQ(bad.error().message(), "expected a string, found number");
}

}  // namespace
}  // namespace palomir
