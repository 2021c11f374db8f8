#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>

#include "palomir/environment.hpp"
#include "palomir/palomir.hpp"
#include "palomir_test/tls.hpp"
#include "sandbox.hpp"
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

TEST_F(ClientIntegration, ChecksInOverPinnedTLSOnceAndLogsTheNotes) {
    auto result = checkin();
    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    EXPECT_FALSE(result.value().notes.empty());
    ASSERT_TRUE(Palomir::shared().configuration().has_value());
    EXPECT_EQ(Palomir::shared().configuration()->version, result.value().version);

    auto requests = _sandbox->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "PUT");
    EXPECT_EQ(requests[0].target, "/api/checkin/sandbox-token");
    EXPECT_EQ(requests[0].status, 200);
    auto body = nlohmann::json::parse(requests[0].body);
    EXPECT_EQ(body["app_info"]["name"], "Example");
    EXPECT_EQ(body["app_info"]["build"], "42");
    EXPECT_TRUE(_logger->contains("successfully checked in:\n[\"\\tNote\\n\\t\\ttitle: ", LogType::default_));

    // Without a timed check-in the configuration is served from memory.
    ASSERT_TRUE(checkin().hasValue());
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(requestsTo("PUT", "/api/checkin/"), 1u);
}

TEST_F(ClientIntegration, ATimedCheckinIsAskedForOnceItsInstantHasCome) {
    scenarioFile("notes-only.json", 1);
    ASSERT_TRUE(checkin().hasValue());
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(requestsTo("PUT", "/api/checkin/"), 1u);
    std::this_thread::sleep_for(1100ms);
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(requestsTo("PUT", "/api/checkin/"), 2u);
}

// A timed check-in due at once goes to the backend every time.
TEST_F(ClientIntegration, UserCredentialsReachTheBackendAndAFailedCheckinKeepsTheConfiguration) {
    scenarioFile("notes-only.json", 0);
    auto& palomir = Palomir::shared();
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("abc"));
    // A new app credential keeps the user's.
    palomir.setAppCredentials(AppCredentials{"sandbox-token", "sandbox-secret"});
    auto first = checkin();
    ASSERT_TRUE(first.hasValue());
    EXPECT_EQ(_sandbox->requests().back().header("X-Authorization-User"), "Bearer abc");
    palomir.setUserCredentials(nullptr);
    ASSERT_TRUE(checkin().hasValue());
    EXPECT_EQ(_sandbox->requests().back().header("X-Authorization-User"), "");

    fault(sb::Route::checkin, "status:500");
    auto failed = checkin();
    ASSERT_TRUE(failed.hasError());
    ASSERT_NE(failed.error().apiError(), nullptr);
    EXPECT_EQ(*failed.error().apiError(), APIError::requestFailed(RequestError::badStatus(500)));
    EXPECT_EQ(palomir.configuration()->version, first.value().version);
    EXPECT_TRUE(_logger->contains("checkin failed to register Palomir endpoint: Request failed: Bad status: 500",
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
    EXPECT_EQ(result.value().first.size(), 4u);
    EXPECT_EQ(result.value().second, 60.0);
    EXPECT_EQ(posts.entries, (std::vector<std::string>{"servicesUpdated:list of 4", "serviceUpdated:sync",
                                                       "serviceUpdated:photos", "serviceUpdated:sharing",
                                                       "serviceUpdated:search"}));
    EXPECT_TRUE(_logger->contains("successfully fetched services:\n[Service(name: \"Sync\"", LogType::default_));
    auto single = await<Palomir::ServiceResult>([&](auto done) { palomir.service("photos", _queue, done); });
    ASSERT_TRUE(single.hasValue());
    EXPECT_EQ(posts.entries.back(), "serviceUpdated:photos");
    EXPECT_EQ(palomir.services()->size(), 4u);

    fault(sb::Route::services, "status:503");
    auto failed = fetchServices();
    ASSERT_TRUE(failed.hasError());
    EXPECT_EQ(*failed.error().apiError(), APIError::requestFailed(RequestError::badStatus(503)));
    EXPECT_EQ(palomir.services()->size(), 4u);
    EXPECT_EQ(posts.entries.size(), 6u);
    EXPECT_TRUE(_logger->contains("failed to fetch services: Request failed: Bad status: 503", LogType::default_));
    _sandbox->clearFaults();

    auto fetchAuth = [&] {
        return await<Palomir::ServiceResult>([&](auto done) { palomir.systemService("auth", _queue, done); });
    };
    // A single system service starts the list when there is none.
    ASSERT_TRUE(fetchAuth().hasValue());
    ASSERT_EQ(palomir.systemServices()->size(), 1u);
    const auto before = palomir.systemServices()->front();
    std::ifstream in(kScenarios / "outage.json");
    auto document = nlohmann::json::parse(in);
    document["system_services"][0]["state"] = before.state == ServiceState::ok ? "error" : "ok";
    scenario(document.dump());
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

class FilesProvider : public AttachmentProvider {
public:
    std::vector<Attachment> feedbackAttachments() override {
        ++calls;
        return {Attachment::fromText("provided.txt", std::nullopt, "from a provider")};
    }
    int calls = 0;
};

TEST_F(ClientIntegration, FeedbackUploadsEveryFileAndNamesThemEvenWhenABytesUploadFails) {
    fault(sb::Route::directUploads, "status:500*1");
    fault(sb::Route::upload, "status:500*1");

    auto provider = std::make_shared<FilesProvider>();
    auto result = feedback("Crash on launch", "It crashes.",
                           {Attachment::fromText("a.txt", std::nullopt, "first"),
                            Attachment::fromText("b.json", std::nullopt, "{}"),
                            Attachment::fromData("c.bin", "application/octet-stream", {1, 2, 3})},
                           {provider});
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    EXPECT_EQ(result.value(), "");
    EXPECT_EQ(provider->calls, 1);

    auto feedback = _sandbox->recordedFeedback();
    ASSERT_EQ(feedback.size(), 1u);
    EXPECT_EQ(feedback[0].title, "Crash on launch");
    EXPECT_EQ(feedback[0].submittedBy, "tester@example.com");
    // Four files announced, one announcement refused: three named, one of
    // which never had its bytes arrive.
    EXPECT_EQ(feedback[0].files.size(), 3u);
    int missingBytes = 0;
    for (const auto& upload : feedback[0].attachments) missingBytes += upload.uploaded ? 0 : 1;
    EXPECT_EQ(missingBytes, 1);
    EXPECT_TRUE(_logger->contains("failed to start direct upload: Request failed: Bad status: 500", LogType::default_));
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Messages over 1000 characters are cut, and travel whole as a file; the
// client's own log files go along when it is asked for attachments.
TEST_F(ClientIntegration, LongMessagesTravelWholeAsAFileAndTheClientAttachesItsLogs) {
    const std::string exact(1000, 'm'), longer(1001, 'n');
    ASSERT_TRUE(feedback("Exact", exact, {}).hasValue());
    ASSERT_TRUE(feedback("Longer", longer, {}).hasValue());
    // Palomir lives for the process; the provider list only borrows it.
    std::shared_ptr<AttachmentProvider> logs(&Palomir::shared(), [](AttachmentProvider*) {});
    ASSERT_TRUE(feedback("Logs", "see logs", {}, {logs}).hasValue());

    auto feedback = _sandbox->recordedFeedback();
    ASSERT_EQ(feedback.size(), 3u);
    EXPECT_EQ(feedback[0].message, exact);
    EXPECT_TRUE(feedback[0].attachments.empty());
    EXPECT_EQ(feedback[1].message, longer.substr(0, 1000));
    ASSERT_EQ(feedback[1].attachments.size(), 1u);
    const auto& full = feedback[1].attachments[0];
    EXPECT_EQ(full.filename, "full_message.txt");
    EXPECT_EQ(full.contentType, "text/plain");
    EXPECT_EQ(full.byteSize, 1001);
    EXPECT_EQ(readText(full.file), longer);

    ASSERT_EQ(feedback[2].attachments.size(), 1u);
    const auto& log = feedback[2].attachments[0];
    EXPECT_EQ(log.filename.rfind("palomir-main-", 0), 0u);
    EXPECT_EQ(log.contentType, "text/plain");
    EXPECT_NE(readText(log.file).find("[INFO] Palomir started"), std::string::npos);
}

}  // namespace
}  // namespace palomir
