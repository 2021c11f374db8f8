#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "palomir/model.hpp"

namespace palomir {
namespace {

std::string readData(const std::string& name) {
    std::ifstream file(std::string(PALOMIR_MODEL_TEST_DATA) + "/" + name);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Colours encode as component objects that the decoder does not read back,
// so a round trip writes them as hex text again first.
std::string hex(const nlohmann::json& color) {
    char buffer[16];
    auto byte = [&](const char* key) { return static_cast<int>(std::lround(color.at(key).get<double>() * 255.0)); };
    std::snprintf(buffer, sizeof buffer, "#%02x%02x%02x%02x", byte("red"), byte("green"), byte("blue"), byte("alpha"));
    return buffer;
}

void colorsToHex(nlohmann::json& json) {
    if (json.is_object() && json.contains("red") && json.contains("alpha")) {
        json = hex(json);
        return;
    }
    if (json.is_structured())
        for (auto& child : json) colorsToHex(child);
}

// Decodes a document, checks that encoding and decoding again changes
// nothing, and returns the first decoding (nothing when it failed).
template <class T>
std::optional<T> roundTrip(const std::string& name) {
    const auto first = decodeJson<T>(readData(name));
    EXPECT_TRUE(first.hasValue()) << name << ": " << first.error().message();
    if (!first.hasValue()) return std::nullopt;
    nlohmann::json encoded = encode(first.value());
    colorsToHex(encoded);
    const auto second = decode<T>(encoded);
    EXPECT_TRUE(second.hasValue()) << name << ": " << second.error().message();
    if (!second.hasValue()) return first.value();
    nlohmann::json again = encode(second.value());
    colorsToHex(again);
    EXPECT_EQ(again, encoded) << name;
    return first.value();
}

TEST(Documents, RealisticDocumentsRoundTripAndCarryTheirMembers) {
    const auto c = roundTrip<Configuration>("configuration.json").value();
    EXPECT_EQ(plRFC3339.format(*c.nextCheckin->automaticallyAt), "2024-05-01T06:30:00.000Z");
    EXPECT_EQ(c.nextCheckin->onEvent, (std::vector{CheckinEvent::launch, CheckinEvent::foreground}));
    EXPECT_EQ(c.theme.backgroundGradient->endPoint, (ColorGradient::Point{0.5, 1.0}));
    ASSERT_EQ(c.notes.size(), 2u);
    EXPECT_EQ(c.notes[1].identifier.text(), "7D444840-9DC0-11D1-B245-5FFDCE74FAD2");
    EXPECT_EQ(c.notes[1].subtitle, std::nullopt);
    EXPECT_TRUE(evaluate(c.lockdown).isOpen());
    EXPECT_EQ(c.worstService()->identifier, "search");
    EXPECT_EQ(c.services->at(1).message->backgroundColorDark, Color::fromHex("#3D2A00"));

    const auto locked = roundTrip<Configuration>("configuration_lockdown.json").value();
    EXPECT_EQ(evaluate(locked.lockdown), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(locked.lockdown.notes->size(), 1u);
    EXPECT_FALSE(locked.worstService().has_value());
    // "degraded" is no state this client knows.
    EXPECT_EQ(roundTrip<ServicesResponse>("services_response.json").value().services.at(1).state, ServiceState::unknown);
    const auto upload = roundTrip<DirectUploadResponse>("direct_upload_response.json").value();
    EXPECT_EQ(upload.directUpload.headers.at("Content-MD5"), "1B2M2Y8AsgTpgAmY7PhCfg==");
}

}  // namespace
}  // namespace palomir
