// Reading records straight from text: the corners of JSON that a document
// rarely shows (escapes, repeated keys, odd numbers, deep nesting, malformed
// text) must come out exactly as nlohmann reads and rejects them.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "palomir/any_codable.hpp"
#include "palomir/model.hpp"

namespace palomir {
namespace {

AnyCodable decoded(std::string_view text) {
    const auto result = decodeJson<AnyCodable>(text);
    EXPECT_TRUE(result.hasValue()) << text << ": " << (result.hasError() ? result.error().message() : "");
    return result.hasValue() ? result.value() : AnyCodable::null();
}

struct TextCase {
    const char* name;
    std::string document;
    AnyCodable expected;
};

class TextValues : public ::testing::TestWithParam<TextCase> {};

TEST_P(TextValues, DecodeToTheValueNlohmannReads) {
    const AnyCodable value = decoded(GetParam().document);
    EXPECT_EQ(value, GetParam().expected) << GetParam().document;
}

INSTANTIATE_TEST_SUITE_P(
    Json, TextValues,
    ::testing::Values(
        TextCase{"Escapes", R"("q\"b\\s\/\b\f\n\r\t")", AnyCodable::string("q\"b\\s/\b\f\n\r\t")},
        TextCase{"UnicodeEscapes", R"("\u00e9\u20AC\ud83d\ude00\u0000x")",
                 AnyCodable::string(std::string("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\0x", 11))},
        TextCase{"RawUtf8", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\x7F\"",
                 AnyCodable::string("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\x7F")},
        TextCase{"EscapedKey", R"({"k\u0065y":1})", AnyCodable::map({{"key", AnyCodable::int64(1)}})},
        TextCase{"LastOfRepeatedKeys", R"({"a":1,"b":2,"a":"x"})",
                 AnyCodable::map({{"a", AnyCodable::string("x")}, {"b", AnyCodable::int64(2)}})},
        TextCase{"NegativeZero", "-0", AnyCodable::int64(0)},
        TextCase{"NegativeFloatZero", "-0.0", AnyCodable::double_(-0.0)},
        TextCase{"Exponent", "1E2", AnyCodable::double_(100.0)},
        TextCase{"SignedExponent", "-25e-1", AnyCodable::double_(-2.5)},
        TextCase{"BelowInt64", "-9223372036854775809", AnyCodable::double_(-9223372036854775808.0)},
        TextCase{"Underflow", "1e-400", AnyCodable::double_(0.0)},
        TextCase{"Tenth", "0.1", AnyCodable::double_(0.1)},
        TextCase{"ByteOrderMark", "\xEF\xBB\xBF[true]", AnyCodable::list({AnyCodable::boolean(true)})},
        TextCase{"SpaceAround", " \t\r\n{ \"a\" : [ null , false ] }\n",
                 AnyCodable::map({{"a", AnyCodable::list({AnyCodable::null(), AnyCodable::boolean(false)})}})},
        TextCase{"EmptyContainers", R"([{},[],""])",
                 AnyCodable::list({AnyCodable::map({}), AnyCodable::list({}), AnyCodable::string("")})}),
    [](const ::testing::TestParamInfo<TextCase>& info) { return std::string(info.param.name); });

struct RejectCase {
    const char* name;
    std::string document;
    const char* message;
};

class TextRejections : public ::testing::TestWithParam<RejectCase> {};

TEST_P(TextRejections, FailWithNlohmannsMessage) {
    const auto result = decodeJson<AnyCodable>(GetParam().document);
    ASSERT_TRUE(result.hasError()) << GetParam().document;
    EXPECT_EQ(result.error().keyPath, "");
    EXPECT_EQ(result.error().reason, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Json, TextRejections,
    ::testing::Values(
        RejectCase{"Empty", "",
                   "[json.exception.parse_error.101] parse error at line 1, column 1: syntax error while parsing value - "
                   "unexpected end of input; expected '[', '{', or a literal"},
        RejectCase{"OverlongUtf8", "\"\xC0\x80\"",
                   "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error while parsing value - "
                   "invalid string: ill-formed UTF-8 byte; last read: '\"\xC0'"},
        RejectCase{"LoneHighSurrogate", R"("\ud800")",
                   "[json.exception.parse_error.101] parse error at line 1, column 8: syntax error while parsing value - "
                   "invalid string: surrogate U+D800..U+DBFF must be followed by U+DC00..U+DFFF; last read: '\"\\ud800\"'"},
        RejectCase{"LoneLowSurrogate", R"("\udc00x")",
                   "[json.exception.parse_error.101] parse error at line 1, column 7: syntax error while parsing value - "
                   "invalid string: surrogate U+DC00..U+DFFF must follow U+D800..U+DBFF; last read: '\"\\udc00'"},
        RejectCase{"RawTab", "\"a\tb\"",
                   "[json.exception.parse_error.101] parse error at line 1, column 3: syntax error while parsing value - "
                   "invalid string: control character U+0009 (HT) must be escaped to \\u0009 or \\t; last read: '\"a<U+0009>'"},
        RejectCase{"UnknownEscape", R"("\x")",
                   "[json.exception.parse_error.101] parse error at line 1, column 3: syntax error while parsing value - "
                   "invalid string: forbidden character after backslash; last read: '\"\\x'"},
        RejectCase{"NumberOverflow", "[1E400]", "[json.exception.out_of_range.406] number overflow parsing '1E400'"},
        RejectCase{"LeadingZero", "01",
                   "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error while parsing value - "
                   "unexpected number literal; expected end of input"},
        RejectCase{"BareMinus", "[-]",
                   "[json.exception.parse_error.101] parse error at line 1, column 3: syntax error while parsing value - "
                   "invalid number; expected digit after '-'; last read: '-]'"},
        RejectCase{"TrailingText", "{} x",
                   "[json.exception.parse_error.101] parse error at line 1, column 4: syntax error while parsing value - "
                   "invalid literal; last read: '{} x'; expected end of input"},
        RejectCase{"MissingColon", R"({"a" 1})",
                   "[json.exception.parse_error.101] parse error at line 1, column 6: syntax error while parsing object "
                   "separator - unexpected number literal; expected ':'"},
        RejectCase{"TrailingComma", "[1,]",
                   "[json.exception.parse_error.101] parse error at line 1, column 4: syntax error while parsing value - "
                   "unexpected ']'; expected '[', '{', or a literal"}),
    [](const ::testing::TestParamInfo<RejectCase>& info) { return std::string(info.param.name); });

TEST(JsonText, ManyEscapedStringsKeepTheirText) {
    std::string text = "[";
    for (int i = 0; i < 2000; ++i) text += (i ? "," : "") + std::string("\"\\u0041") + std::to_string(i) + "\\n\"";
    text += "]";
    const AnyCodable value = decoded(text);
    const AnyList* list = value.value.get<AnyList>();
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->size(), 2000u);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ((*list)[i], AnyValue::string("A" + std::to_string(i) + "\n")) << i;
}

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
    ASSERT_TRUE(note.value().image.has_value());
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
