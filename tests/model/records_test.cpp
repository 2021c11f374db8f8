#include <gtest/gtest.h>

#include <set>

#include "data.hpp"
#include "palomir/model.hpp"

namespace palomir {
namespace {

// Each case lists services as [identifier, state, triggers a message].
TEST(WorstService, IsTheFirstMessageServiceInTheWorstState) {
    for (const auto& c : test::dataJson("worst_service.json")) {
        Configuration configuration;
        if (!c.at("services").is_null()) configuration.services.emplace();
        for (const auto& row : c.at("services")) {
            Service& s = configuration.services->emplace_back();
            s.name = s.identifier = row[0].get<std::string>();
            s.available = true;
            s.state = serviceStateFromString(row[1].get<std::string>()).value();
            s.triggersMessage = row[2].get<bool>();
        }
        std::vector<std::string> identifiers;
        for (const auto& s : configuration.messageServices()) identifiers.push_back(s.identifier);
        EXPECT_EQ(identifiers, c.at("message").get<std::vector<std::string>>()) << c.at("name");
        const auto worst = configuration.worstService();
        EXPECT_EQ(worst ? nlohmann::json(worst->identifier) : nlohmann::json(), c.at("worst")) << c.at("name");
    }
}

// An open configuration and a hard lockdown come from the documents.
TEST(LockdownEvaluation, AMissingTypeIsSoftAndAnInactiveLockdownIsOpenWhateverItsType) {
    Lockdown lockdown;
    lockdown.active = true;
    EXPECT_EQ(evaluate(lockdown), LockdownResult::lockedDown(LockdownType::soft));
    lockdown.active = false;
    lockdown.type = LockdownType::hard;
    EXPECT_EQ(evaluate(lockdown), LockdownResult::open());
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

// A given media type stands; otherwise the extension decides, whatever its
// case.
TEST(Attachments, DeriveTheMediaTypeCaseInsensitivelyOnlyWhenNoneIsGiven) {
    const std::tuple<const char*, std::optional<std::string>, const char*> rows[] = {
        {"notes.TXT", std::nullopt, "text/plain"}, {"README", std::nullopt, ""},
        {"photo.png", "application/octet-stream", "application/octet-stream"}, {"a.unknown-kind", std::nullopt, ""}};
    for (const auto& [filename, given, expected] : rows)
        EXPECT_EQ(Attachment::fromData(filename, given, {}).contentType, expected) << filename;

    // A file's whole contents and its media type are proven by the demo's
    // feedback run, a missing file's error by the C facade's; a directory is
    // refused, not read as nothing.
    EXPECT_EQ(Attachment::fromFile(std::filesystem::temp_directory_path()).error(), std::errc::is_a_directory);
}

}  // namespace
}  // namespace palomir
