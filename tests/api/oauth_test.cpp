#include "api/oauth.hpp"

#include <gtest/gtest.h>

#include <map>
#include <regex>

namespace palomir {
namespace {

Url url(std::string_view text) {
    auto parsed = Url::parse(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(*Url::parse("http://invalid"));
}

// The header's pairs, values as they stand (percent-encoded).
std::map<std::string, std::string> headerPairs(const std::string& header) {
    std::map<std::string, std::string> pairs;
    EXPECT_EQ(header.rfind("OAuth ", 0), 0u) << header;
    static const std::regex pair(R"re(([a-z_]+)="([^"]*)")re");
    for (auto it = std::sregex_iterator(header.begin() + 6, header.end(), pair); it != std::sregex_iterator(); ++it)
        pairs[(*it)[1]] = (*it)[2];
    return pairs;
}

TEST(OAuthSignature, MatchesThePublishedExample) {
    const std::string header =
        OAuth::calculateSignature(url("http://photos.example.net/photos?file=vacation.jpg&size=original"), "GET", {},
                                  {"dpf43f3p2l4k3l03", "kd94hf93k423kf44"},
                                  OAuthCredentials{"nnch734d00sl2jdk", "pfkkdhi9sl3r4s00"}, "kllo9940pd9333jh",
                                  1191242096);
    EXPECT_EQ(header,
              "OAuth oauth_consumer_key=\"dpf43f3p2l4k3l03\",oauth_nonce=\"kllo9940pd9333jh\","
              "oauth_signature=\"tR3%2BTy81lMeYAr%2FFid0kMTYa%2FWM%3D\",oauth_signature_method=\"HMAC-SHA1\","
              "oauth_timestamp=\"1191242096\",oauth_token=\"nnch734d00sl2jdk\",oauth_version=\"1.0\"");
    // The signing key encodes both secrets and always carries the ampersand.
    EXPECT_EQ(OAuth::signingKey({"k", "a&b"}, std::nullopt), "a%26b&");
    EXPECT_EQ(OAuth::signingKey({"k", "a&b"}, OAuthCredentials{"t", "c d"}), "a%26b&c%20d");
    EXPECT_EQ(OAuth::signingKey({"k", ""}, std::nullopt), "&");
}

// Nonces are fresh upper-case version 4 UUIDs. That no nonce comes twice and
// the time is now, the sandbox checks on every request of the end-to-end runs.
// Header values are percent-encoded, and without a user there is no token.
TEST(OAuthSignature, NoncesAreUpperCaseVersion4UuidsAndValuesAreEncoded) {
    const std::regex v4("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    for (int i = 0; i < 20; ++i) {
        auto pairs = headerPairs(OAuth::calculateSignature(url("https://h/x"), "GET", {}, {"k y", "s"}, std::nullopt));
        EXPECT_TRUE(std::regex_match(pairs["oauth_nonce"], v4)) << pairs["oauth_nonce"];
        EXPECT_EQ(pairs["oauth_consumer_key"], "k%20y");
        EXPECT_EQ(pairs.count("oauth_token"), 0u);
    }
}

TEST(OAuthSignature, EqualKeysKeepCollectionOrderKeysSortByteWiseAndTheMethodStaysAsGiven) {
    // Parameter a=2 is collected before query a=1, so it stays first although "2" > "1".
    const std::string base = OAuth::signatureBaseText(url("http://h/p?a=1&Z=z&a_b=3&a-b=4"), "GET",
                                                      {{"a", "2"}, {"\xc3\xa9", "e"}}, {"k", "s"}, std::nullopt,
                                                      "n", 1);
    const std::string params = base.substr(base.find('&', base.find('&') + 1) + 1);
    EXPECT_EQ(params,
              "%25C3%25A9%3De%26Z%3Dz%26a%3D2%26a%3D1%26a-b%3D4%26a_b%3D3%26oauth_consumer_key%3Dk%26oauth_nonce%3Dn"
              "%26oauth_signature_method%3DHMAC-SHA1%26oauth_timestamp%3D1%26oauth_version%3D1.0");

    // A lower-case method is signed as given.
    const std::string lower = OAuth::signatureBaseText(url("http://h/p"), "get", {}, {"k", "s"}, std::nullopt, "n", 1);
    EXPECT_EQ(lower.rfind("get&http%3A%2F%2Fh%2Fp&", 0), 0u) << lower;
}

TEST(OAuthBaseUrl, Normalises) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"HTTP://Example.COM:80/a/B/", "http://example.com/a/B"},
        {"https://h:443/x", "https://h/x"},
        {"https://h:8443/x", "https://h:8443/x"},
        {"http://h:443/x", "http://h:443/x"},
        {"ftp://h:2121/x", "ftp://h/x"},
        {"http://u:p@h/x", "http://u:p@h/x"},
        {"http://h/a%20b/c?q=1#frag", "http://h/a b/c"},
        {"http://h/api/services//", "http://h/api/services"},
        {"http://h", "http://h"},
        {"http://h/", "http://h/"}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(OAuth::oAuthBaseURL(url(text)), expected) << text;
}

TEST(OAuthEncoding, UnreservedSetAndQuery) {
    EXPECT_EQ(OAuth::rfc3986encode("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(OAuth::rfc3986encode(" !*'();:@&=+$,/?#[]%"),
              "%20%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D%25");
    EXPECT_EQ(OAuth::rfc3986encode("\xc3\xa9\x01"), "%C3%A9%01");

    // In the query a later duplicate wins.
    const auto query = OAuth::queryParameters(url("http://h/p?a=1&b&a=2&c=%20"));
    EXPECT_EQ(query, (OAuthParameters{{"a", "2"}, {"b", ""}, {"c", " "}}));
}

// A JSON body is never signed: the API client's signed requests, their
// length and type, are checked end to end by its own tests and the sandbox.
// A form's fields are signed. A page a host asks for by a text that is no
// URL is left as it was.
TEST(RequestSigning, FormFieldsAreSignedAndAnUnsignableRequestIsLeftAlone) {
    URLRequest unsignable;
    unsignable.url = "not a url";
    oAuthSign(unsignable, "GET", std::nullopt, std::nullopt, {"T", "s"}, std::nullopt);
    EXPECT_TRUE(unsignable.headers.empty());

    URLRequest posted;
    posted.url = "https://h/api/form";
    const OAuthParameters form{{"name", "a b"}, {"id", "7"}};
    oAuthSign(posted, "POST", form, {"T", "s"}, std::nullopt);
    ASSERT_TRUE(posted.body);
    EXPECT_EQ(std::string(posted.body->begin(), posted.body->end()), "name=a%20b&id=7");
    EXPECT_EQ(posted.value("Content-Length"), "15");
    EXPECT_EQ(posted.value("Content-Type"), "application/x-www-form-urlencoded");
    auto pairs = headerPairs(posted.value("Authorization").value_or(""));
    EXPECT_EQ(posted.value("Authorization"), OAuth::calculateSignature(url(posted.url), "POST", form, {"T", "s"},
                                                                       std::nullopt, pairs["oauth_nonce"],
                                                                       std::stoll(pairs["oauth_timestamp"])));
}

}  // namespace
}  // namespace palomir
