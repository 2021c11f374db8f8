#include <gtest/gtest.h>

#include "palomir/uuid.hpp"

using namespace palomir;

// Base64, HMAC-SHA1 and MD5 are checked where they are used: the OAuth
// reference signature (whose Base64 text holds "+", "/" and padding) and
// the sandbox's check of an upload's announced MD5. Random UUIDs are checked
// as OAuth nonces.

TEST(Uuid, ParsesOnlyTheCanonicalFormInEitherCaseAndWritesUpperCase) {
    EXPECT_EQ(Uuid::parse("e621e1f8-c36c-495a-93fc-0C247A3E6E5F").value().text(),
              "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    for (const char* text : {"E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF",
                             "E621E1F-8C36C-495A-93FC-0C247A3E6E5F", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F"}) {
        EXPECT_FALSE(Uuid::parse(text).has_value()) << text;
    }
}
