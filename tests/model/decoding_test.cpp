#include <gtest/gtest.h>

#include <string>

#include "palomir/model.hpp"

namespace palomir {
namespace {

// Decodes `text` as T and returns "ok" or the error message.
template <class T>
std::string outcome(std::string_view text) {
    const auto result = decodeJson<T>(text);
    return result.hasValue() ? "ok" : result.error().message();
}

struct DecodeCase {
    const char* name;
    std::string (*decode)(std::string_view);
    const char* document;
    const char* expected;  // "ok" or the exact error message
};

class Decoding : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Decoding, AcceptsOrRejectsWithKeyPath) {
    EXPECT_EQ(GetParam().decode(GetParam().document), GetParam().expected) << GetParam().document;
}

std::string caseName(const ::testing::TestParamInfo<DecodeCase>& info) { return info.param.name; }

#define THEME R"("theme":{"text_color":"#000","background_color":"#fff"})"
#define LOCKDOWN R"("lockdown":{"active":false,"latest_version":"1.0"})"
#define NOTE_MEMBERS R"({"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","title":"t","content":"c")"
#define NOTE NOTE_MEMBERS "}"
#define SERVICE_MEMBERS R"({"name":"API","identifier":"api","is_available":true,"state":"ok","triggers_message":false)"
#define SERVICE SERVICE_MEMBERS "}"

INSTANTIATE_TEST_SUITE_P(
    Records, Decoding,
    ::testing::Values(
        DecodeCase{"UnknownKeysIgnored", outcome<Configuration>,
                   R"({"extra":{"x":[1]},"version":"3",)" THEME ",\"notes\":[]," LOCKDOWN ",\"services\":null}", "ok"},
        DecodeCase{"NotesNotArray", outcome<Configuration>,
                   R"({"version":"3",)" THEME ",\"notes\":{}," LOCKDOWN "}", "notes: expected an array, found object"},
        DecodeCase{"BadNoteIdentifier", outcome<Configuration>,
                   R"({"version":"3",)" THEME ",\"notes\":[" NOTE R"(,{"identifier":"nope","title":"t","content":"c"}],)" LOCKDOWN "}",
                   "notes[1].identifier: not a valid UUID"},
        DecodeCase{"NestedLockdownNote", outcome<Configuration>,
                   R"({"version":"3",)" THEME R"(,"notes":[],"lockdown":{"active":true,"latest_version":"1","notes":[)" NOTE
                   R"(,{"identifier":7,"title":"t","content":"c"}]}})",
                   "lockdown.notes[1].identifier: expected a string, found number"},
        DecodeCase{"UnknownEvent", outcome<Configuration>,
                   R"({"version":"3","next_checkin":{"on_event":["launch","Foreground"]},)" THEME ",\"notes\":[]," LOCKDOWN "}",
                   "next_checkin.on_event[1]: unknown value \"Foreground\" for CheckinEvent"},
        DecodeCase{"ServiceMissingState", outcome<Configuration>,
                   R"({"version":"3",)" THEME ",\"notes\":[]," LOCKDOWN
                   R"(,"services":[)" SERVICE R"(,{"name":"A","identifier":"a","is_available":true,"triggers_message":true}]})",
                   "services[1].state: missing required key"},
        DecodeCase{"NotAnObject", outcome<Configuration>, "[]", "expected an object, found array"},
        DecodeCase{"NotJson", outcome<Configuration>, "{\"version\":",
                   "[json.exception.parse_error.101] parse error at line 1, column 12: syntax error while parsing "
                   "value - unexpected end of input; expected '[', '{', or a literal"},
        DecodeCase{"NullDate", outcome<NextCheckin>, R"({"automatically_at":null,"on_event":["launch"]})", "ok"},
        DecodeCase{"NoFraction", outcome<NextCheckin>, R"({"automatically_at":"2024-05-01T06:30:00Z","on_event":[]})",
                   "automatically_at: not a valid date"},
        DecodeCase{"GradientSnakeCase", outcome<ColorGradient>,
                   R"({"colors":[],"start_point":[0,0],"endPoint":[0,1]})", "startPoint: missing required key"},
        DecodeCase{"PointOfThree", outcome<ColorGradient>, R"({"colors":[],"startPoint":[0,0,0],"endPoint":[0,1]})",
                   "startPoint: expected an array of two numbers"},
        DecodeCase{"MalformedColorIsFine", outcome<Theme>, R"({"text_color":"red","background_color":"#ff88"})", "ok"},
        DecodeCase{"UpperCaseType", outcome<Lockdown>, R"({"active":true,"type":"HARD","latest_version":"1.0"})",
                   "type: unknown value \"HARD\" for LockdownType"},
        DecodeCase{"ActiveAsString", outcome<Lockdown>, R"({"active":"true","latest_version":"1"})",
                   "active: expected a boolean, found string"},
        DecodeCase{"EmptyMessage", outcome<ServiceMessage>, "{}", "ok"},
        DecodeCase{"BadSecondService", outcome<ServicesResponse>, R"({"services":[)" SERVICE R"(,{"name":"B"}]})",
                   "services[1].identifier: missing required key"},
        DecodeCase{"SingleNoService", outcome<ServiceResponse>, R"({"service":null})",
                   "service: expected an object, found null"},
        DecodeCase{"NoHeaders", outcome<DirectUploadResponse>,
                   R"({"id":7,"key":"k","filename":"log.txt","signed_id":"s","direct_upload":{"url":"u"}})",
                   "direct_upload.headers: missing required key"},
        DecodeCase{"HeaderNotString", outcome<DirectUploadResponse>,
                   R"({"id":7,"key":"k","filename":"f","signed_id":"s","direct_upload":{"url":"u","headers":{"X-A":1}}})",
                   "direct_upload.headers.X-A: expected a string, found number"},
        DecodeCase{"IdAsText", outcome<DirectUploadResponse>,
                   R"({"id":"7","key":"k","filename":"f","signed_id":"s","direct_upload":{"url":"u","headers":{}}})",
                   "id: expected an integer, found string"},
        DecodeCase{"IdWithFraction", outcome<DirectUploadResponse>,
                   R"({"id":7.5,"key":"k","filename":"f","signed_id":"s","direct_upload":{"url":"u","headers":{}}})",
                   "id: expected an integer, found a number with a fraction"},
        DecodeCase{"IdTooLarge", outcome<DirectUploadResponse>,
                   R"({"id":9223372036854775808,"key":"k","filename":"f","signed_id":"s","direct_upload":{"url":"u","headers":{}}})",
                   "id: number does not fit a 64-bit integer"}),
    caseName);

// Lockdown links are opened as they stand and must be absolute URIs; every
// other link may be any URI reference. "R" marks a relative reference.
TEST(Decoding, EachUrlFieldTakesTheFormsOfItsRecord) {
    const std::tuple<std::string (*)(std::string_view), std::string, const char*, bool> fields[] = {
        {outcome<Lockdown>, R"({"active":true,"latest_version":"1",)", "title_image", true},
        {outcome<Lockdown>, R"({"active":true,"latest_version":"1",)", "action_url", true},
        {outcome<Note>, NOTE_MEMBERS ",", "image", false}, {outcome<Service>, SERVICE_MEMBERS ",", "url", false},
        {outcome<Service>, SERVICE_MEMBERS ",", "image", false}, {outcome<ServiceMessage>, "{", "url", false}};
    const std::pair<const char*, std::string> forms[] = {
        {R"("https://a.example/u#f")", "ok"}, {R"("myapp:open")", "ok"}, {R"("mailto:help@example.com")", "ok"},
        {R"("tel:+1-555-0100")", "ok"}, {"null", "ok"}, {R"("images/a.png")", "R"}, {R"("//cdn.example/a")", "R"},
        {R"("")", "not a valid URL"}, {R"("https://a.example/a b")", "not a valid URL"}};
    for (const auto& [decode, object, key, absolute] : fields) {
        for (const auto& [value, verdict] : forms) {
            std::string expected = verdict != "R" ? verdict : absolute ? "not an absolute URL" : "ok";
            if (expected != "ok") expected = key + (": " + expected);
            EXPECT_EQ(decode(object + '"' + key + "\":" + value + "}"), expected) << key << ' ' << value;
        }
    }
}

TEST(Decoding, StateTolerantOnlyWhenDecodingAndOffsetDatesAreTheUtcInstant) {
    EXPECT_EQ(decodeJson<ServiceState>(R"("degraded")").value(), ServiceState::unknown);
    EXPECT_EQ(decodeJson<ServiceState>(R"("OK")").value(), ServiceState::unknown);
    EXPECT_EQ(decodeJson<ServiceState>(R"("disabled")").value(), ServiceState::disabled);
    EXPECT_EQ(serviceStateFromString("degraded"), std::nullopt);
    EXPECT_EQ(serviceStateFromString("warning"), ServiceState::warning);

    const auto a = decodeJson<NextCheckin>(R"({"automatically_at":"2024-05-01T08:30:00.000+02:00","on_event":[]})");
    ASSERT_TRUE(a.hasValue());
    EXPECT_EQ(encode(a.value()).at("automatically_at"), "2024-05-01T06:30:00.000Z");
}

}  // namespace
}  // namespace palomir
