#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "palomir/model.hpp"

namespace palomir {
namespace {

Service service(std::string identifier, ServiceState state, bool triggersMessage) {
    Service s;
    s.name = identifier;
    s.identifier = std::move(identifier);
    s.available = true;
    s.state = state;
    s.triggersMessage = triggersMessage;
    return s;
}

struct WorstCase {
    const char* name;
    std::optional<std::vector<Service>> services;
    std::vector<std::string> messageIdentifiers;
    std::optional<std::string> worst;
};

class WorstService : public ::testing::TestWithParam<WorstCase> {};

TEST_P(WorstService, PicksFirstMessageServiceInWorstState) {
    Configuration configuration;
    configuration.services = GetParam().services;
    std::vector<std::string> identifiers;
    for (const auto& s : configuration.messageServices()) identifiers.push_back(s.identifier);
    EXPECT_EQ(identifiers, GetParam().messageIdentifiers);
    const auto worst = configuration.worstService();
    EXPECT_EQ(worst ? std::optional(worst->identifier) : std::nullopt, GetParam().worst);
}

using S = ServiceState;
INSTANTIATE_TEST_SUITE_P(
    Table, WorstService,
    ::testing::Values(
        WorstCase{"Absent", std::nullopt, {}, std::nullopt},
        WorstCase{"UnknownBeatsError",
                  std::vector{service("w", S::warning, true), service("u", S::unknown, true), service("e", S::error, true)},
                  {"w", "u", "e"}, "u"},
        WorstCase{"DisabledBeatsError",
                  std::vector{service("e", S::error, true), service("d", S::disabled, true)}, {"e", "d"}, "d"},
        WorstCase{"FirstOfEqualStatesWins",
                  std::vector{service("ok", S::ok, true), service("e1", S::error, true), service("e2", S::error, true)},
                  {"ok", "e1", "e2"}, "e1"},
        WorstCase{"SilentServiceNeverWorst",
                  std::vector{service("u", S::unknown, false), service("w", S::warning, true)}, {"w"}, "w"},
        WorstCase{"NothingTriggers", std::vector{service("u", S::unknown, false)}, {}, std::nullopt}),
    [](const auto& info) { return info.param.name; });

TEST(LockdownEvaluation, ActiveDecidesAndMissingTypeIsSoft) {
    Lockdown lockdown;
    lockdown.latestVersion = "9.9";
    EXPECT_EQ(evaluate(lockdown), LockdownResult::open());
    lockdown.active = true;
    EXPECT_EQ(evaluate(lockdown), LockdownResult::lockedDown(LockdownType::soft));
    lockdown.type = LockdownType::hard;
    EXPECT_EQ(evaluate(lockdown), LockdownResult::lockedDown(LockdownType::hard));
    lockdown.active = false;
    EXPECT_TRUE(evaluate(lockdown).isOpen());
    EXPECT_EQ(evaluate(lockdown).type(), std::nullopt);
}

TEST(NoteDescription, ListsFieldsAndEndsWithAQuote) {
    const auto note = decodeJson<Note>(R"({"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","title":"New",)"
                                       R"("content":"Body","image":"https://example.com/a.png"})");
    ASSERT_TRUE(note.hasValue());
    EXPECT_EQ(note.value().description(),
              "\tNote\n\t\ttitle: New\n\t\tsubtitle: \n\t\tcontent: Body\n\t\timage: https://example.com/a.png\"");
}

TEST(Encoding, LeavesAbsentOptionalsOut) {
    Configuration configuration;
    configuration.version = "3";
    configuration.lockdown.latestVersion = "1.0";
    const auto json = encode(configuration);
    std::set<std::string> keys;
    for (const auto& item : json.items()) keys.insert(item.key());
    EXPECT_EQ(keys, (std::set<std::string>{"version", "theme", "notes", "lockdown"}));
    EXPECT_EQ(json.at("lockdown"), (nlohmann::json{{"active", false}, {"latest_version", "1.0"}}));

    Feedback feedback{"Bug", "It broke", "ann@example.com", std::nullopt};
    EXPECT_EQ(encode(feedback), (nlohmann::json{{"title", "Bug"}, {"message", "It broke"}, {"submitted_by", "ann@example.com"}}));
}

TEST(Attachments, DeriveTheMediaTypeCaseInsensitivelyOnlyWhenNoneIsGiven) {
    const auto text = Attachment::fromText("notes.TXT", std::nullopt, "h\xc3\xa9");
    EXPECT_EQ(text.contentType, "text/plain");
    EXPECT_EQ(text.data, (std::vector<std::uint8_t>{'h', 0xc3, 0xa9}));
    EXPECT_EQ(Attachment::fromData("photo.png", "application/octet-stream", {1}).contentType, "application/octet-stream");
    EXPECT_EQ(Attachment::fromData("README", std::nullopt, {}).contentType, "");

    // From a file: its whole contents (more than one read's worth), or why not.
    const auto path = std::filesystem::temp_directory_path() / "palomir-attachment.txt";
    std::ofstream(path, std::ios::binary) << std::string(40000, 'x');
    const auto file = Attachment::fromFile(path);
    std::filesystem::remove(path);
    ASSERT_TRUE(file.hasValue());
    EXPECT_EQ(std::tie(file.value().filename, file.value().contentType, file.value().data),
              std::tuple("palomir-attachment.txt", "text/plain", std::vector<std::uint8_t>(40000, 'x')));
    EXPECT_EQ(Attachment::fromFile(path).error(), std::errc::no_such_file_or_directory);
    EXPECT_EQ(Attachment::fromFile(path.parent_path()).error(), std::errc::is_a_directory);

    EXPECT_EQ(mimeTypeForExtension("json"), "application/json");
    EXPECT_EQ(mimeTypeForExtension("PNG"), "image/png");
    // Log files are attached to feedback; the system list may not know them.
    EXPECT_EQ(mimeTypeForExtension("log"), "text/plain");
    EXPECT_EQ(mimeTypeForExtension(""), "");
    EXPECT_EQ(mimeTypeForExtension("definitely-unknown"), "");
}

}  // namespace
}  // namespace palomir
