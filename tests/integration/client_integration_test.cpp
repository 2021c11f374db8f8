#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "support.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;
namespace sb = palomir::sandbox;

class ClientIntegration : public SandboxClientTest {
protected:
    void SetUp() override {
        sb::SandboxOptions options;
        options.scenarioFile = kScenarios / "notes-only.json";
        startSandbox(options);
    }
};

// One configuration is asked for and then served from memory until its
// timed check-in comes; the user's token is signed along (an empty one sends
// no header at all), and a failed check-in keeps what was held.
TEST_F(ClientIntegration, ChecksInOverPinnedTLSAndServesFromMemoryUntilTheTimedCheckin) {
    auto result = checkin();
    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    // The notice describes the notes the scenario serves.
    EXPECT_TRUE(_logger->logged("successfully checked in:\n[\"\\tNote\\n\\t\\ttitle: ", LogType::default_));
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(_sandbox->requests().size(), 1u);

    auto& palomir = Palomir::shared();
    scenarioFile("notes-only.json", 1);
    palomir.setConfiguration(std::nullopt);
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("abc"));
    const auto timed = checkin();
    ASSERT_TRUE(timed.hasValue());
    EXPECT_EQ(_sandbox->requests().back().header("X-Authorization-User"), "Bearer abc");
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(requestsTo("PUT", "/api/checkin/"), 2u);

    std::this_thread::sleep_for(1100ms);
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>(""));
    fault(sb::Route::checkin, "status:500");
    auto failed = checkin();
    ASSERT_TRUE(failed.hasError());
    EXPECT_EQ(requestsTo("PUT", "/api/checkin/"), 3u);
    const auto sent = _sandbox->requests().back().headers;
    EXPECT_TRUE(std::none_of(sent.begin(), sent.end(), [](const auto& h) { return h.first == "X-Authorization-User"; }));
    ASSERT_NE(failed.error().apiError(), nullptr);
    EXPECT_EQ(*failed.error().apiError(), APIError::requestFailed(RequestError::badStatus(500)));
    EXPECT_EQ(palomir.configuration()->version, timed.value().version);
    EXPECT_TRUE(_logger->logged("checkin failed to register Palomir endpoint: Request failed: Bad status: 500",
                                  LogType::default_));
}

struct Posts {
    std::mutex mutex;
    std::vector<std::string> entries;
    void add(const Notification& n) {
        std::string what;
        if (auto* service = std::any_cast<Service>(&n.object)) what = service->identifier;
        if (auto* list = std::any_cast<std::vector<Service>>(&n.object)) what = "list of " + std::to_string(list->size());
        std::lock_guard lock(mutex);
        entries.push_back(n.name + ":" + what);
    }
};

// A list fetch posts the list, then each service in order, and a failed one
// keeps the list. Observers of either system-service name receive every
// post; a single service, user or system, is announced but never merged.
TEST_F(ClientIntegration, ServiceFetchesPostInOrderAndOnlyListsChangeTheStoredLists) {
    scenarioFile("outage.json");
    auto& palomir = Palomir::shared();
    auto& center = palomir.notificationCenter();
    Posts posts, systemList, systemService;
    center.addObserver(std::string(Palomir::servicesUpdated), nullptr, [&](const Notification& n) { posts.add(n); });
    center.addObserver(std::string(Palomir::serviceUpdated), nullptr, [&](const Notification& n) { posts.add(n); });
    center.addObserver(std::string(Palomir::systemServicesUpdated), nullptr,
                       [&](const Notification& n) { systemList.add(n); });
    center.addObserver(std::string(Palomir::systemServiceUpdated), nullptr,
                       [&](const Notification& n) { systemService.add(n); });

    auto result = fetchServices();
    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    EXPECT_EQ(posts.entries, (std::vector<std::string>{"servicesUpdated:list of 4", "serviceUpdated:sync",
                                                       "serviceUpdated:photos", "serviceUpdated:sharing",
                                                       "serviceUpdated:search"}));
    EXPECT_TRUE(_logger->logged("successfully fetched services:\n[Service(name: \"Sync\"", LogType::default_));
    auto single = await<Palomir::ServiceResult>([&](auto done) { palomir.service("photos", _queue, done); });
    ASSERT_TRUE(single.hasValue());
    EXPECT_EQ(posts.entries.back(), "serviceUpdated:photos");
    EXPECT_EQ(palomir.services()->size(), 4u);

    fault(sb::Route::services, "status:503");
    EXPECT_TRUE(fetchServices().hasError());
    EXPECT_EQ(palomir.services()->size(), 4u);
    EXPECT_EQ(posts.entries.size(), 6u);
    EXPECT_TRUE(_logger->logged("failed to fetch services: Request failed: Bad status: 503", LogType::default_));
    _sandbox->clearFaults();

    auto fetchAuth = [&] {
        return await<Palomir::ServiceResult>([&](auto done) { palomir.systemService("auth", _queue, done); });
    };
    // A single system service starts the list when there is none.
    ASSERT_TRUE(fetchAuth().hasValue());
    ASSERT_EQ(palomir.systemServices()->size(), 1u);
    const auto before = palomir.systemServices()->front();
    auto document = nlohmann::json::parse(readText(kScenarios / "outage.json"));
    document["system_services"][0]["state"] = before.state == ServiceState::ok ? "error" : "ok";
    ASSERT_TRUE(_sandbox->setScenarioJson(document.dump()).hasValue());
    auto changed = fetchAuth();
    ASSERT_TRUE(changed.hasValue());
    EXPECT_NE(changed.value().first.state, before.state);
    EXPECT_EQ(palomir.systemServices()->front(), before);

    systemList.entries.clear();
    systemService.entries.clear();
    ASSERT_TRUE(await<Palomir::ServicesResult>([&](auto done) { palomir.systemServices(_queue, done); }).hasValue());
    const std::vector<std::string> expected{"systemServiceUpdated:list of 1", "systemServiceUpdated:auth"};
    EXPECT_EQ(systemList.entries, expected);
    EXPECT_EQ(systemService.entries, expected);
}

// Three files and the client's log file, asked for once: one announcement is
// refused, and one file's bytes are refused by the storage. That file is named
// all the same (its signed id stands for it), so three are.
TEST_F(ClientIntegration, FeedbackNamesEveryAnnouncedFileEvenWhenItsBytesUploadFails) {
    fault(sb::Route::directUploads, "status:500*1");
    fault(sb::Route::upload, "status:500*1");

    // Palomir lives for the process; the provider list only borrows it.
    std::shared_ptr<AttachmentProvider> logs(&Palomir::shared(), [](AttachmentProvider*) {});
    auto result = feedback("Crash on launch", "It crashes.",
                           {Attachment::fromText("a.txt", std::nullopt, "first"),
                            Attachment::fromText("b.json", std::nullopt, "{}"),
                            Attachment::fromData("c.bin", "application/octet-stream", {1, 2, 3})},
                           {logs});
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    EXPECT_EQ(result.value(), "");

    auto feedback = _sandbox->recordedFeedback();
    ASSERT_EQ(feedback.size(), 1u);
    EXPECT_EQ(feedback[0].title, "Crash on launch");
    EXPECT_EQ(feedback[0].submittedBy, "tester@example.com");
    ASSERT_EQ(feedback[0].files.size(), 3u);
    // The storage's refusal shows as the one file whose bytes never arrived.
    const auto& named = feedback[0].attachments;
    EXPECT_EQ(std::count_if(named.begin(), named.end(), [](const auto& attachment) { return !attachment.uploaded; }), 1);
    EXPECT_TRUE(_logger->logged("failed to start direct upload: Request failed: Bad status: 500", LogType::default_));
}

// A message over 1000 characters is cut, and travels whole as a file; the
// client's own log files go along when it is asked for attachments.
TEST_F(ClientIntegration, LongMessagesTravelWholeAsAFileAndTheClientAttachesItsLogs) {
    const std::string longer(1001, 'n');
    ASSERT_TRUE(feedback("Longer", longer, {}).hasValue());
    std::shared_ptr<AttachmentProvider> logs(&Palomir::shared(), [](AttachmentProvider*) {});
    ASSERT_TRUE(feedback("Logs", "see logs", {}, {logs}).hasValue());

    auto feedback = _sandbox->recordedFeedback();
    ASSERT_EQ(feedback.size(), 2u);
    EXPECT_EQ(feedback[0].message, longer.substr(0, 1000));
    ASSERT_EQ(feedback[0].attachments.size(), 1u);
    const auto& full = feedback[0].attachments[0];
    EXPECT_EQ(full.filename, "full_message.txt");
    EXPECT_EQ(full.contentType, "text/plain");
    EXPECT_EQ(full.byteSize, 1001);
    EXPECT_EQ(readText(full.file), longer);

    ASSERT_EQ(feedback[1].attachments.size(), 1u);
    const auto& log = feedback[1].attachments[0];
    EXPECT_EQ(log.filename.rfind("palomir-main-", 0), 0u);
    EXPECT_EQ(log.contentType, "text/plain");
    EXPECT_NE(readText(log.file).find("[INFO] Palomir started"), std::string::npos);
}

}  // namespace
}  // namespace palomir
