#include "platform/crypto.hpp"

#include <gtest/gtest.h>

#include "palomir/uuid.hpp"

using namespace palomir;

namespace {

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (auto b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 0x0F]);
    }
    return out;
}

std::string repeat(int byte, std::size_t count) { return std::string(count, static_cast<char>(byte)); }

struct HmacCase {
    std::string key;
    std::string message;
    std::string digest;
};

class HmacSha1 : public ::testing::TestWithParam<HmacCase> {};
class Base64RoundTrip : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};
class Base64Refusal : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(HmacSha1, MatchesKnownDigest) {
    const auto& c = GetParam();
    EXPECT_EQ(hex(crypto::hmacSha1(c.key, c.message)), c.digest);
}

INSTANTIATE_TEST_SUITE_P(
    Rfc2202, HmacSha1,
    ::testing::Values(
        HmacCase{repeat(0x0b, 20), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
        HmacCase{"Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        HmacCase{repeat(0xaa, 80), "Test Using Larger Than Block-Size Key - Hash Key First",
                 "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        HmacCase{repeat(0xaa, 80), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
                 "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"}));

TEST(Md5, MatchesKnownDigests) {
    EXPECT_EQ(crypto::base64Encode(crypto::md5(crypto::asBytes("abc"))), "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_EQ(hex(crypto::md5(crypto::asBytes(""))), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_P(Base64RoundTrip, EncodesAndDecodes) {
    const auto& [plain, encoded] = GetParam();
    EXPECT_EQ(crypto::base64Encode(crypto::asBytes(plain)), encoded);
    const auto decoded = crypto::base64Decode(encoded);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(std::string(decoded->begin(), decoded->end()), plain);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, Base64RoundTrip,
                         ::testing::Values(std::pair{"", ""}, std::pair{"f", "Zg=="}, std::pair{"fo", "Zm8="},
                                           std::pair{"foo", "Zm9v"}, std::pair{"foob", "Zm9vYg=="},
                                           std::pair{"fooba", "Zm9vYmE="}, std::pair{"foobar", "Zm9vYmFy"},
                                           std::pair{"\xfb\xff", "+/8="}));

TEST_P(Base64Refusal, RefusesMalformedText) { EXPECT_FALSE(crypto::base64Decode(GetParam()).has_value()); }

INSTANTIATE_TEST_SUITE_P(Malformed, Base64Refusal,
                         ::testing::Values("Zg=", "Z===", "Zm9v\n", "Zg==Zg==", "Zm9*", "Zm 9", "=Zm9", "Zg=a"));

TEST(Uuid, ParsesOnlyTheCanonicalFormInEitherCaseAndWritesUpperCase) {
    const auto uuid = Uuid::parse("e621e1f8-c36c-495a-93fc-0C247A3E6E5F");
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ(uuid->text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(uuid->bytes()[0], 0xE6);
    EXPECT_EQ(uuid->bytes()[15], 0x5F);
    for (const char* text : {"", "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF",
                             "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F-8C36C-495A-93FC-0C247A3E6E5F",
                             "G621E1F8-C36C-495A-93FC-0C247A3E6E5F", " 621E1F8-C36C-495A-93FC-0C247A3E6E5F"}) {
        EXPECT_FALSE(Uuid::parse(text).has_value()) << text;
    }
}

TEST(Uuid, RandomIsVersion4WithTheStandardVariant) {
    const auto a = Uuid::random();
    EXPECT_NE(a, Uuid::random());
    EXPECT_EQ(a.bytes()[6] >> 4, 4);
    EXPECT_EQ(a.bytes()[8] >> 6, 2);
    EXPECT_EQ(a.text()[14], '4');
    EXPECT_EQ(Uuid::parse(a.text()), a);
}
