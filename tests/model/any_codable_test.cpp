#include <gtest/gtest.h>

#include "palomir/any_codable.hpp"
#include "palomir/palomir.h"

namespace palomir {
namespace {

// Numbers take the first kind that holds them: int64, then uint64, then
// double. (That whatever decodes encodes back to an equal value is the fuzz
// target's to prove, on every input it meets.)
TEST(AnyCodable, NumbersTakeTheFirstKindThatHoldsThem) {
    using A = AnyCodable;
    const std::pair<const char*, AnyCodable> cases[] = {
        {"true", A::boolean(true)}, {"1", A::int64(1)}, {"7.0", A::int64(7)}, {"-2.5e-1", A::double_(-0.25)},
        {"-0.0", A::int64(0)}, {"1.5", A::double_(1.5)}, {"9223372036854775807", A::int64(9223372036854775807)},
        {"9223372036854775808", A::uint64(9223372036854775808ull)}, {"1e19", A::uint64(10000000000000000000ull)},
        {"18446744073709551616", A::double_(18446744073709551616.0)},
        {R"({"b":null,"a":["2024-05-01T06:30:00.000Z"]})",
         A::map({{"a", A::list({A::string("2024-05-01T06:30:00.000Z")})}, {"b", A::null()}})}};
    for (const auto& [text, expected] : cases) {
        const auto decoded = decodeJson<AnyCodable>(text);
        ASSERT_TRUE(decoded.hasValue()) << text << ": " << decoded.error().message();
        EXPECT_EQ(decoded.value(), expected) << text;
    }
}

// Containers nest at most 512 deep. Deeper text fails as a whole wherever it
// comes from; a deeper value a host parsed itself fails where it crosses.
TEST(AnyCodable, NestingBeyondTheBoundFailsInsteadOfExhaustingTheStack) {
    const auto nested = [](std::size_t depth) {
        return R"({"a":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
    };
    const std::string tooDeep = "containers nested deeper than 512 levels";
    EXPECT_TRUE(decodeJson<AnyCodable>(nested(512)).hasValue());
    EXPECT_EQ(decodeJson<AnyCodable>(nested(513)).error().message(), tooDeep);

    const std::string deep = nested(100000);
    PLError* error = nullptr;
    EXPECT_FALSE(pl_set_app_info_metadata_json_n(deep.data(), deep.size(), &error));
    EXPECT_EQ(pl_error_description(error), "Invalid JSON: " + tooDeep);
    pl_error_release(error);
    EXPECT_EQ(decodeJson<Configuration>(R"({"version":"3","extra":)" + deep + "}").error().message(), tooDeep);

    const auto fromValue = decode<AnyCodable>(nlohmann::json::parse(deep));
    ASSERT_TRUE(fromValue.hasError());
    std::string where = "a";
    for (int i = 0; i < 511; ++i) where += "[0]";
    EXPECT_EQ(fromValue.error(), (DecodingError{where, tooDeep}));
}

TEST(AnyEncodable, WritesEveryKind) {
    const auto url = Url::parse("https://example.com/a?b=c");
    ASSERT_TRUE(url.has_value());
    // The byte-sized kinds are no characters, the widest unsigned one keeps
    // its sign, a float writes as its shortest decimal.
    const auto value = AnyEncodable::list({
        AnyEncodable::null(), AnyEncodable::boolean(false), AnyEncodable::int8(-8), AnyEncodable::uint8(255),
        AnyEncodable::uint64(18446744073709551615ull), AnyEncodable::float_(0.1f), AnyEncodable::double_(2.5),
        AnyEncodable::string("s"), AnyEncodable::date(Date(std::chrono::milliseconds(1714545000000))),
        AnyEncodable::url(*url)});
    const auto encoded = encode(value);
    ASSERT_TRUE(encoded.hasValue());
    EXPECT_EQ(encoded.value().dump(), R"([null,false,-8,255,18446744073709551615,0.1,2.5,"s",)"
                                      R"("2024-05-01T06:30:00.000Z","https://example.com/a?b=c"])");
}

}  // namespace
}  // namespace palomir
