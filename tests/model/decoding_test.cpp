#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <stdexcept>
#include <string>

#include "data.hpp"
#include "palomir/model.hpp"

namespace palomir {
namespace {

// Decodes `text` as T and returns "ok" or the error message.
template <class T>
std::string outcome(std::string_view text) {
    const auto result = decodeJson<T>(text);
    return result.hasValue() ? "ok" : result.error().message();
}

// Each case names the record it decodes, gives a document (or raw text) and
// expects "ok" or the exact error message with its key path.
TEST(Decoding, AcceptsOrRejectsWithKeyPath) {
    const std::map<std::string, std::string (*)(std::string_view)> decoders{
        {"Configuration", outcome<Configuration>}, {"NextCheckin", outcome<NextCheckin>},
        {"ColorGradient", outcome<ColorGradient>}, {"Theme", outcome<Theme>}, {"Color", outcome<Color>},
        {"Lockdown", outcome<Lockdown>}, {"ServiceMessage", outcome<ServiceMessage>},
        {"ServicesResponse", outcome<ServicesResponse>}, {"ServiceResponse", outcome<ServiceResponse>},
        {"DirectUploadResponse", outcome<DirectUploadResponse>}};
    for (const auto& c : test::dataJson("decoding.json")) {
        const auto text = c.contains("text") ? c["text"].get<std::string>() : c.at("document").dump();
        EXPECT_EQ(decoders.at(c.at("type").get<std::string>())(text), c.at("expected").get<std::string>())
            << c.at("name");
    }
}

// Lockdown links are opened as they stand and must be absolute URIs; every
// other link may be any URI reference. "R" marks a relative reference.
TEST(Decoding, EachUrlFieldTakesTheFormsOfItsRecord) {
    const std::string lockdown = R"({"active":true,"latest_version":"1",)";
    const std::string note = R"({"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","title":"t","content":"c",)";
    const std::string service = R"({"name":"API","identifier":"api","is_available":true,"state":"ok","triggers_message":false,)";
    const std::tuple<std::string (*)(std::string_view), std::string, const char*, bool> fields[] = {
        {outcome<Lockdown>, lockdown, "title_image", true}, {outcome<Lockdown>, lockdown, "action_url", true},
        {outcome<Note>, note, "image", false}, {outcome<Service>, service, "url", false},
        {outcome<Service>, service, "image", false}, {outcome<ServiceMessage>, "{", "url", false}};
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

// Components are byte / 255.0, computed as the parser computes them: exact.
TEST(ColorParse, FollowsTheHexRulesAndEncodesAsComponents) {
    for (const auto& row : test::dataJson("colors.json")) {
        const auto rgba = row.at("rgba").get<std::array<int, 4>>();
        const Color expected{rgba[0] / 255.0, rgba[1] / 255.0, rgba[2] / 255.0, rgba[3] / 255.0};
        EXPECT_EQ(Color::fromHex(row.at("text").get<std::string>()), expected) << row.dump();
    }
    EXPECT_EQ(encode(Color::fromHex("#ff8800")),
              (nlohmann::json{{"red", 1.0}, {"green", 136 / 255.0}, {"blue", 0.0}, {"alpha", 1.0}}));
}

// An accepted date formats as its UTC instant, which is its own text when
// it was written in UTC.
TEST(DateParse, AcceptsOnlyTheStrictFormAndFormatsTheUtcInstant) {
    for (const auto& row : test::dataJson("dates.json")) {
        const auto text = row.at("text").get<std::string>();
        const auto parsed = plRFC3339.parse(text);
        EXPECT_EQ(parsed ? nlohmann::json(parsed->time_since_epoch().count()) : nlohmann::json(), row.at("ms"))
            << row.dump();
        if (parsed) {
            EXPECT_EQ(plRFC3339.format(*parsed), row.value("utc", text));
        }
    }
    for (std::int64_t day = -400; day < 20000; day += 7) {
        const Date date{std::chrono::milliseconds(day * 86400000 + 3723456)};
        const auto text = plRFC3339Format(date);
        EXPECT_EQ(plRFC3339Parse(text), date) << text;
    }
}

// Colours encode as component objects that the decoder does not read back,
// so a round trip writes them as hex text again first.
void colorsToHex(nlohmann::json& json) {
    if (json.is_object() && json.contains("red") && json.contains("alpha")) {
        char hex[10];
        const auto byte = [&](const char* key) { return static_cast<int>(std::lround(json.at(key).get<double>() * 255)); };
        std::snprintf(hex, sizeof hex, "#%02x%02x%02x%02x", byte("red"), byte("green"), byte("blue"), byte("alpha"));
        json = hex;
    } else if (json.is_structured()) {
        for (auto& child : json) colorsToHex(child);
    }
}

// Decodes a document, checks that encoding and decoding again changes
// nothing, and returns the first decoding. A decoding that fails throws,
// which fails the test with the decoder's message.
template <class T>
T decoded(const Result<T, DecodingError>& result) {
    if (result.hasError()) throw std::runtime_error(result.error().message());
    return result.value();
}

template <class T>
T roundTrip(const std::string& name) {
    const T first = decoded(decode<T>(test::dataJson(name)));
    nlohmann::json encoded = encode(first);
    colorsToHex(encoded);
    nlohmann::json again = encode(decoded(decode<T>(encoded)));
    colorsToHex(again);
    EXPECT_EQ(again, encoded) << name;
    return first;
}

TEST(Documents, RealisticDocumentsRoundTripAndCarryTheirMembers) {
    const auto c = roundTrip<Configuration>("configuration.json");
    EXPECT_EQ(plRFC3339.format(*c.nextCheckin->automaticallyAt), "2024-05-01T06:30:00.000Z");
    EXPECT_EQ(c.nextCheckin->onEvent, (std::vector{CheckinEvent::launch, CheckinEvent::foreground}));
    EXPECT_EQ(c.theme.backgroundGradient->endPoint, (ColorGradient::Point{0.5, 1.0}));
    ASSERT_EQ(c.notes.size(), 2u);
    EXPECT_EQ(c.notes[1].identifier.text(), "7D444840-9DC0-11D1-B245-5FFDCE74FAD2");
    EXPECT_EQ(c.notes[1].subtitle, std::nullopt);
    EXPECT_TRUE(evaluate(c.lockdown).isOpen());
    EXPECT_EQ(c.worstService()->identifier, "search");
    EXPECT_EQ(c.services->at(1).message->backgroundColorDark, Color::fromHex("#3D2A00"));

    const auto locked = roundTrip<Configuration>("configuration_lockdown.json");
    EXPECT_EQ(evaluate(locked.lockdown), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(locked.lockdown.notes->size(), 1u);
    // "degraded" is no state this client knows.
    EXPECT_EQ(roundTrip<ServicesResponse>("services_response.json").services.at(1).state, ServiceState::unknown);
    const auto upload = roundTrip<DirectUploadResponse>("direct_upload_response.json");
    EXPECT_EQ(upload.directUpload.headers.at("Content-MD5"), "1B2M2Y8AsgTpgAmY7PhCfg==");
}

}  // namespace
}  // namespace palomir
