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

struct HmacCase {
    std::string key;
    std::string message;
    std::string digest;
};

class HmacSha1 : public ::testing::TestWithParam<HmacCase> {};

}  // namespace

TEST_P(HmacSha1, MatchesKnownDigest) {
    const auto& c = GetParam();
    EXPECT_EQ(hex(crypto::hmacSha1(c.key, c.message)), c.digest);
}

// A short key, and a key longer than the block that must be hashed first.
INSTANTIATE_TEST_SUITE_P(
    Rfc2202, HmacSha1,
    ::testing::Values(
        HmacCase{"Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        HmacCase{std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
                 "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"}));

TEST(Md5, MatchesKnownDigests) {
    EXPECT_EQ(crypto::base64Encode(crypto::md5(crypto::asBytes("abc"))), "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_EQ(hex(crypto::md5(crypto::asBytes(""))), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Base64, EncodesAndDecodesTheStandardVectorsAndRefusesMalformedText) {
    for (const auto& [plain, encoded] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "+/8="}}) {
        EXPECT_EQ(crypto::base64Encode(crypto::asBytes(plain)), encoded);
        const auto decoded = crypto::base64Decode(encoded);
        ASSERT_TRUE(decoded.has_value()) << encoded;
        EXPECT_EQ(std::string(decoded->begin(), decoded->end()), plain);
    }
    for (const char* text : {"Zg=", "Z===", "Zm9v\n", "Zg==Zg==", "Zm9*", "Zm 9", "=Zm9", "Zg=a"})
        EXPECT_FALSE(crypto::base64Decode(text).has_value()) << text;
}

TEST(Uuid, ParsesOnlyTheCanonicalFormInEitherCaseWritesUpperCaseAndDrawsVersion4) {
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
    const auto random = Uuid::random();
    EXPECT_NE(random, Uuid::random());
    EXPECT_EQ(random.bytes()[6] >> 4, 4);
    EXPECT_EQ(random.bytes()[8] >> 6, 2);
    EXPECT_EQ(Uuid::parse(random.text()), random);
}
