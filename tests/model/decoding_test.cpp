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

// The decoder of each record the data rows name: "ok" or the error message.
const std::map<std::string, std::string (*)(std::string_view)> kDecoders{
    {"Configuration", outcome<Configuration>}, {"NextCheckin", outcome<NextCheckin>},
    {"ColorGradient", outcome<ColorGradient>}, {"Theme", outcome<Theme>}, {"Color", outcome<Color>},
    {"Lockdown", outcome<Lockdown>}, {"Note", outcome<Note>}, {"Service", outcome<Service>},
    {"ServiceMessage", outcome<ServiceMessage>}, {"ServicesResponse", outcome<ServicesResponse>},
    {"ServiceResponse", outcome<ServiceResponse>}, {"DirectUploadResponse", outcome<DirectUploadResponse>}};

// Each case names the record it decodes, gives a document (or raw text) and
// expects "ok" or the exact error message with its key path.
TEST(Decoding, AcceptsOrRejectsWithKeyPath) {
    for (const auto& c : test::dataJson("decoding.json")) {
        const auto text = c.contains("text") ? c["text"].get<std::string>() : c.at("document").dump();
        EXPECT_EQ(kDecoders.at(c.at("type").get<std::string>())(text), c.at("expected").get<std::string>())
            << c.at("name");
    }
}

// Lockdown links are opened as they stand and must be absolute URIs; every
// other link may be any URI reference. Each field of the data is given each
// form; "R" marks a relative reference.
TEST(Decoding, EachUrlFieldTakesTheFormsOfItsRecord) {
    const auto table = test::dataJson("url_fields.json");
    for (const auto& field : table.at("fields")) {
        const auto key = field.at("key").get<std::string>();
        for (const auto& form : table.at("forms")) {
            const auto verdict = form.at("verdict").get<std::string>();
            std::string expected = verdict != "R" ? verdict : field.at("absolute").get<bool>() ? "not an absolute URL" : "ok";
            if (expected != "ok") expected = key + ": " + expected;
            auto document = field.at("document");
            document[key] = form.at("value");
            EXPECT_EQ(kDecoders.at(field.at("type").get<std::string>())(document.dump()), expected) << document.dump();
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

// (The check-in time, the notes' identifiers in upper case and an open
// lockdown are read back through the C facade's run.)
TEST(Documents, RealisticDocumentsRoundTripAndCarryTheirMembers) {
    const auto c = roundTrip<Configuration>("configuration.json");
    EXPECT_EQ(c.nextCheckin->onEvent, (std::vector{CheckinEvent::launch, CheckinEvent::foreground}));
    EXPECT_EQ(c.theme.backgroundGradient->endPoint, (ColorGradient::Point{0.5, 1.0}));
    ASSERT_EQ(c.notes.size(), 2u);
    EXPECT_EQ(c.notes[1].subtitle, std::nullopt);
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
