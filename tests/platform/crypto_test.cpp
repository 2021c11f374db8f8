#include "platform/crypto.hpp"

#include <gtest/gtest.h>

#include "palomir/uuid.hpp"

using namespace palomir;

// The published test vectors, their digests written in base64: a short key,
// and a key longer than the block, which must be hashed first.
TEST(Digests, MatchKnownVectors) {
    EXPECT_EQ(crypto::base64Encode(crypto::hmacSha1("Jefe", "what do ya want for nothing?")), "7/zfauXrL6LSdBbV8YTfnCWafHk=");
    EXPECT_EQ(crypto::base64Encode(crypto::hmacSha1(
                  std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data")),
              "6OmdD0UjfXhta7qnllx4CLv/GpE=");
    EXPECT_EQ(crypto::base64Encode(crypto::md5(crypto::asBytes("abc"))), "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_EQ(crypto::base64Encode(crypto::md5(crypto::asBytes(""))), "1B2M2Y8AsgTpgAmY7PhCfg==");
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
