#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "palomir/any_codable.hpp"

namespace palomir {
namespace {

// Numbers take the first kind that holds them: int64, then uint64, then double.
TEST(AnyCodable, DecodesNestedValuesInTheFirstMatchingKindAndKeepsNullMembers) {
    const std::string text = R"({"a":[true,null,"2024-05-01T06:30:00.000Z",1.0],"b":null,)"
                             R"("c":[9223372036854775807,9223372036854775808,18446744073709551616]})";
    const auto decoded = decodeJson<AnyCodable>(text);
    ASSERT_TRUE(decoded.hasValue());
    const auto expected = AnyCodable::map({
        {"a", AnyCodable::list({AnyCodable::boolean(true), AnyCodable::null(),
                                AnyCodable::string("2024-05-01T06:30:00.000Z"), AnyCodable::double_(1.0)})},
        {"b", AnyCodable::null()},
        {"c", AnyCodable::list({AnyCodable::int64(9223372036854775807), AnyCodable::uint64(9223372036854775808ull),
                                AnyCodable::double_(18446744073709551616.0)})},
    });
    EXPECT_EQ(decoded.value(), expected);
    const auto encoded = encode(decoded.value());
    ASSERT_TRUE(encoded.hasValue());
    EXPECT_EQ(encoded.value().dump(), R"({"a":[true,null,"2024-05-01T06:30:00.000Z",1.0],"b":null,)"
                                      R"("c":[9223372036854775807,9223372036854775808,1.8446744073709552e+19]})");
}

TEST(AnyCodable, EqualityNeedsTheSameKind) {
    EXPECT_EQ(AnyCodable::int32(1), AnyCodable::int32(1));
    EXPECT_NE(AnyCodable::int32(1), AnyCodable::int64(1));
    EXPECT_NE(AnyCodable::float_(1.0f), AnyCodable::double_(1.0));
    EXPECT_NE(AnyCodable::list({AnyCodable::int8(1)}), AnyCodable::list({AnyCodable::int8(1), AnyCodable::int8(2)}));
}

TEST(AnyEncodable, WritesEveryKind) {
    const auto url = Url::parse("https://example.com/a?b=c");
    ASSERT_TRUE(url.has_value());
    const auto value = AnyEncodable::list({
        AnyEncodable::null(), AnyEncodable::boolean(false), AnyEncodable::int8(-8), AnyEncodable::int16(-16),
        AnyEncodable::int32(-32), AnyEncodable::int64(-64), AnyEncodable::uint8(255), AnyEncodable::uint16(65535),
        AnyEncodable::uint32(4294967295u), AnyEncodable::uint64(18446744073709551615ull), AnyEncodable::float_(0.1f),
        AnyEncodable::double_(2.5), AnyEncodable::string("s"),
        AnyEncodable::date(Date(std::chrono::milliseconds(1714545000000))), AnyEncodable::url(*url)});
    const auto encoded = encode(value);
    ASSERT_TRUE(encoded.hasValue());
    EXPECT_EQ(encoded.value().dump(),
              R"([null,false,-8,-16,-32,-64,255,65535,4294967295,18446744073709551615,0.1,2.5,"s",)"
              R"("2024-05-01T06:30:00.000Z","https://example.com/a?b=c"])");
}

TEST(AnyEncodable, NonFiniteNumbersAndDiscardedValuesHaveNoJsonForm) {
    const auto nested = AnyEncodable::map(
        {{"metadata", AnyEncodable::list({AnyEncodable::int8(1), AnyEncodable::double_(std::nan(""))})}});
    const auto result = encode(nested);
    ASSERT_TRUE(result.hasError());
    EXPECT_EQ(result.error().message(), "metadata[1]: AnyEncodable value cannot be encoded");
    EXPECT_TRUE(encode(AnyEncodable::float_(std::numeric_limits<float>::infinity())).hasError());
    const auto discarded = decode<AnyDecodable>(nlohmann::json(nlohmann::json::value_t::discarded));
    ASSERT_TRUE(discarded.hasError());
    EXPECT_EQ(discarded.error().message(), "AnyDecodable value cannot be decoded");
}

}  // namespace
}  // namespace palomir
