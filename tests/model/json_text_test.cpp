// Reading straight from text goes through our own flat reader, not nlohmann's
// tree. Every corner of JSON (escapes, repeated keys, odd numbers, malformed
// text) must come out exactly as nlohmann reads or rejects it, so nlohmann's
// own parser is the reference here.
#include <gtest/gtest.h>

#include <string>

#include "palomir/any_codable.hpp"
#include "palomir/model.hpp"

namespace palomir {
namespace {

std::string manyEscapedStrings() {
    std::string text = "[";
    for (int i = 0; i < 2000; ++i) {
        text += (i ? ",\"\\u0041" : "\"\\u0041") + std::to_string(i) + "\\n\"";
    }
    return text + "]";
}

class TextAgreesWithNlohmann : public ::testing::TestWithParam<std::string> {};

TEST_P(TextAgreesWithNlohmann, SameValueOrSameMessage) {
    const std::string& text = GetParam();
    const auto ours = decodeJson<AnyCodable>(text);
    try {
        const auto reference = decode<AnyCodable>(nlohmann::json::parse(text));
        ASSERT_TRUE(reference.hasValue());
        ASSERT_TRUE(ours.hasValue()) << ours.error().message();
        EXPECT_EQ(ours.value(), reference.value());
    } catch (const nlohmann::json::exception& e) {
        ASSERT_TRUE(ours.hasError());
        EXPECT_EQ(ours.error().keyPath, "");
        EXPECT_EQ(ours.error().reason, e.what());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, TextAgreesWithNlohmann,
    ::testing::Values(R"("q\"b\\s\/\b\f\n\r\t")", R"("\u00e9\u20AC\ud83d\ude00\u0000x")",
                      "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\x7F\"", R"({"k\u0065y":1})",
                      R"({"a":1,"b":2,"a":"x"})", "-0", "-0.0", "1E2", "-25e-1", "-9223372036854775809", "1e-400",
                      "0.1", "\xEF\xBB\xBF[true]", " \t\r\n{ \"a\" : [ null , false ] }\n", R"([{},[],""])",
                      manyEscapedStrings()));

INSTANTIATE_TEST_SUITE_P(
    Rejected, TextAgreesWithNlohmann,
    ::testing::Values("", "\"\xC0\x80\"", R"("\ud800")", R"("\udc00x")", "\"a\tb\"", R"("\x")", "[1E400]", "01",
                      "[-]", "{} x", R"({"a" 1})", "[1,]"));

TEST(JsonText, RepeatedKeysInRecordsKeepTheLast) {
    const auto upload = decodeJson<DirectUploadResponse>(
        R"({"id":"x","id":7.0,"key":"k","filename":"f","signed_id":"s",)"
        R"("direct_upload":{"url":"u","headers":{"X-B":1,"X-A":"a","X-B":"b"}}})");
    ASSERT_TRUE(upload.hasValue()) << upload.error().message();
    EXPECT_EQ(upload.value().identifier, 7);
    EXPECT_EQ(upload.value().directUpload.headers, (std::map<std::string, std::string>{{"X-A", "a"}, {"X-B", "b"}}));

    // Of several bad headers the first in key order is named, not the first written.
    const auto bad = decodeJson<DirectUploadResponse::DirectUpload>(R"({"url":"u","headers":{"b":1,"a":null}})");
    ASSERT_TRUE(bad.hasError());
    EXPECT_EQ(bad.error().message(), "headers.a: expected a string, found null");
}

TEST(JsonText, EscapedKeysAndValuesReachTheRecord) {
    const auto note = decodeJson<Note>(
        R"({"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","t\u0069tle":"caf\u00e9","content":"a\"b",)"
        R"("image":"https:\/\/cdn.example.com\/x.png"})");
    ASSERT_TRUE(note.hasValue()) << note.error().message();
    EXPECT_EQ(note.value().title, "caf\xC3\xA9");
    EXPECT_EQ(note.value().content, "a\"b");
    EXPECT_EQ(note.value().image->absoluteString(), "https://cdn.example.com/x.png");
}

TEST(JsonText, DeepNestingInAnUnreadMemberIsHarmless) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const std::string text = R"({"extra":)" + deep + R"(,"on_event":["launch"]})";
    const auto fromText = decodeJson<NextCheckin>(text);
    ASSERT_TRUE(fromText.hasValue()) << fromText.error().message();
    EXPECT_EQ(fromText.value().onEvent, std::vector<CheckinEvent>{CheckinEvent::launch});
    const auto fromValue = decode<NextCheckin>(nlohmann::json::parse(text));
    ASSERT_TRUE(fromValue.hasValue()) << fromValue.error().message();
    EXPECT_EQ(fromValue.value().onEvent, std::vector<CheckinEvent>{CheckinEvent::launch});
}

}  // namespace
}  // namespace palomir
