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

template <class T>
void expectRoundTrip(const std::string& name) {
    const auto first = decodeJson<T>(readData(name));
    ASSERT_TRUE(first.hasValue()) << first.error().message();
    nlohmann::json encoded = encode(first.value());
    colorsToHex(encoded);
    const auto second = decode<T>(encoded);
    ASSERT_TRUE(second.hasValue()) << second.error().message();
    nlohmann::json again = encode(second.value());
    colorsToHex(again);
    EXPECT_EQ(again, encoded);
}

TEST(Documents, RoundTrip) {
    expectRoundTrip<Configuration>("configuration.json");
    expectRoundTrip<Configuration>("configuration_lockdown.json");
    expectRoundTrip<ServicesResponse>("services_response.json");
    expectRoundTrip<DirectUploadResponse>("direct_upload_response.json");
}

TEST(Documents, RealisticDocumentsCarryTheirMembers) {
    const auto result = decodeJson<Configuration>(readData("configuration.json"));
    ASSERT_TRUE(result.hasValue()) << result.error().message();
    const Configuration& c = result.value();
    EXPECT_EQ(plRFC3339.format(*c.nextCheckin->automaticallyAt), "2024-05-01T06:30:00.000Z");
    EXPECT_EQ(c.nextCheckin->onEvent, (std::vector{CheckinEvent::launch, CheckinEvent::foreground}));
    EXPECT_EQ(c.theme.backgroundGradient->endPoint, (ColorGradient::Point{0.5, 1.0}));
    ASSERT_EQ(c.notes.size(), 2u);
    EXPECT_EQ(c.notes[1].identifier.text(), "7D444840-9DC0-11D1-B245-5FFDCE74FAD2");
    EXPECT_EQ(c.notes[1].subtitle, std::nullopt);
    EXPECT_TRUE(evaluate(c.lockdown).isOpen());
    EXPECT_EQ(c.worstService()->identifier, "search");
    EXPECT_EQ(c.services->at(1).message->backgroundColorDark, Color::fromHex("#3D2A00"));

    const auto locked = decodeJson<Configuration>(readData("configuration_lockdown.json"));
    ASSERT_TRUE(locked.hasValue()) << locked.error().message();
    EXPECT_EQ(evaluate(locked.value().lockdown), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(locked.value().lockdown.notes->size(), 1u);
    EXPECT_FALSE(locked.value().worstService().has_value());

    const auto services = decodeJson<ServicesResponse>(readData("services_response.json"));
    ASSERT_TRUE(services.hasValue());
    EXPECT_EQ(services.value().services.at(1).state, ServiceState::unknown);  // "degraded"
    const auto upload = decodeJson<DirectUploadResponse>(readData("direct_upload_response.json"));
    ASSERT_TRUE(upload.hasValue());
    EXPECT_EQ(upload.value().directUpload.headers.at("Content-MD5"), "1B2M2Y8AsgTpgAmY7PhCfg==");
}

}  // namespace
}  // namespace palomir
