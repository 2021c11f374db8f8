#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "api/api_client_internal.hpp"
#include "palomir/api_client.hpp"
#include "palomir_test/client.hpp"
#include "palomir_test/temp_dir.hpp"
#include "palomir_test/tls.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;
using palomir_test::RecordedRequest;
using palomir_test::TestResponse;

const char* kConfiguration = R"({"version":"7","theme":{"text_color":"#000","background_color":"#fff"},
  "notes":[],"lockdown":{"active":false,"latest_version":"1.0"}})";

const AppInfo kAppInfo{.name = std::nullopt,
                       .bundleIdentifier = "com.example.host",
                       .version = "2.1",
                       .build = "210",
                       .sdkVersion = "1",
                       .preferredLanguages = {"en-GB"},
                       .metadata = std::nullopt};

TestResponse respond(int status, std::string body, std::string contentType = "application/json",
                     palomir_test::Headers headers = {}) {
    return TestResponse{status, std::move(headers), std::move(body), std::move(contentType), std::nullopt};
}

using ServicesAnswer = std::pair<ServicesResponse, MaxAge>;
using ServiceAnswer = std::pair<Service, MaxAge>;

// The one result of an operation. The client completes on a network thread;
// the result is handed to a queue so that Awaited also fails a second call.
template <class T, class Call>
Result<T, APIError> await(Call&& call) {
    auto queue = DispatchQueue::makeSerial("test.delivery");
    Awaited<T, APIError> awaited(queue);
    call([queue, done = awaited.completion()](Result<T, APIError> result) {
        queue->async([done, result = std::move(result)] { done(result); });
    });
    return awaited.get();
}

class APIClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        _pki.leaf.writeDer(_resources / "localhost.crt");
        _pki.root.writePem(_resources / "ca.pem");
    }

    void answer(palomir_test::TlsTestServer::Handler handler) {
        std::lock_guard lock(_handlerMutex);
        _handler = std::move(handler);
    }

    std::shared_ptr<APIClient> makeClient(AppCredentials credentials = {"app-token", "app-secret"},
                                          std::shared_ptr<UserCredentials> user = nullptr) {
        return APIClient::make(std::move(credentials), std::move(user), nullptr, _logger,
                               BackendOptions{_server.url("/api"), {_resources / "ca.pem"}, _resources.path()});
    }

    palomir_test::TempDir _resources;
    palomir_test::Pki _pki = palomir_test::Pki::make("api-client");
    std::mutex _handlerMutex;
    palomir_test::TlsTestServer::Handler _handler = [](const RecordedRequest&) { return respond(200, kConfiguration); };
    palomir_test::TlsTestServer _server{{_pki.chain(), [this](const RecordedRequest& request) {
                                             std::lock_guard lock(_handlerMutex);
                                             return _handler(request);
                                         }}};
    std::shared_ptr<CapturingLogger> _logger = std::make_shared<CapturingLogger>();
};

// The client is dropped at once: the request under way still finishes. The
// signature itself is verified by the sandbox in the integration tests.
TEST_F(APIClientTest, CheckinSendsASignedPutWithTheAppInfoAndLogsTheExchange) {
    answer([](const RecordedRequest&) {
        std::this_thread::sleep_for(300ms);
        return respond(200, kConfiguration);
    });
    const auto result = await<Configuration>([&](auto done) { makeClient()->checkin(kAppInfo, done); });
    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    EXPECT_EQ(result.value().version, "7");

    const auto requests = _server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method + " " + requests[0].path, "PUT /api/checkin/app-token");
    EXPECT_EQ(nlohmann::json::parse(requests[0].body)["app_info"]["bundle_identifier"], "com.example.host");
    // Signing adds the content type a second time; it travels as one field.
    EXPECT_EQ(requests[0].headerValues("Content-Type"), std::vector<std::string>{"application/json, application/json"});
    EXPECT_EQ(requests[0].headerValues("User-Agent"), std::vector<std::string>{AppInfo::userAgent()});
    // What the request names and what HTTP needs, nothing else (no cache
    // fields, no Accept, no user header without user credentials).
    EXPECT_EQ(requests[0].headerNames(), (std::set<std::string>{"Host", "Content-Type", "User-Agent", "Accept-Language",
                                                                 "Content-Length", "Authorization"}));
    EXPECT_EQ(requests[0].headerValues("Authorization")[0].rfind("OAuth oauth_consumer_key=\"app-token\",", 0), 0u);

    const auto record = _logger->logged("request: PUT " + _server.url("/api/checkin/app-token") + "\ndata: ",
                                        LogType::debug);
    ASSERT_TRUE(record);
    EXPECT_NE(record->find("\nresponse: { URL: "), std::string::npos) << *record;
    EXPECT_EQ(record->find("\nerror:"), std::string::npos) << *record;
}

// Success is 200 to 299, and only then is the body read: the edges here,
// the other statuses and bodies in the sweep against the sandbox.
TEST_F(APIClientTest, ClassifiesTheAnswer) {
    auto client = makeClient();
    auto fetch = [&](const TestResponse& response) {
        answer([response](const RecordedRequest&) { return response; });
        return await<ServicesAnswer>([&](auto done) { client->services(kAppInfo, false, done); });
    };
    const auto refused = fetch(respond(300, R"({"services":[]})"));
    ASSERT_TRUE(refused.hasError());
    EXPECT_EQ(refused.error().localizedDescription(), "Request failed: Bad status: 300");
    const auto accepted =
        fetch(respond(299, R"({"services":[]})", "application/json", {{"Cache-Control", "public, MAX-AGE = 300"}}));
    ASSERT_TRUE(accepted.hasValue()) << accepted.error().localizedDescription();
    EXPECT_EQ(accepted.value().second, 300.0);
}

TEST(MaxAgeParsing, ReadsOnlyDigits) {
    const std::vector<std::pair<const char*, MaxAge>> cases = {
        {"max-age=60", 60.0},      {"max-age\t=\n5", 5.0},           {"max-age=-5", std::nullopt},
        {"max-age=.5", std::nullopt}, {"max-age=1.5", 1.0},          {"s-max-age=7, max-age=9", 7.0},
        {"max-age, max-age=12", 12.0}, {"no-store", std::nullopt},    {"", std::nullopt}};
    for (const auto& [header, expected] : cases) EXPECT_EQ(parseMaxAge(header), expected) << header;
}

// The token check is shared by every endpoint; check-in, which has the token
// in its path, is proven refused by the sweep.
TEST_F(APIClientTest, LocalFailuresComeBeforeAnyTraffic) {
    const auto badToken = await<ServicesAnswer>(
        [&](auto done) { makeClient({"bad token", "secret"})->services(kAppInfo, true, done); });
    EXPECT_EQ(badToken.error().localizedDescription(), "Invalid app token");
    const auto badName = await<ServiceAnswer>(
        [&](auto done) { makeClient()->service("two words", kAppInfo, false, done); });
    EXPECT_EQ(badName.error().localizedDescription(), "Invalid URL");

    // Without the certificate to pin nothing is sent at all.
    std::filesystem::remove(_resources / "localhost.crt");
    const auto unpinned = await<Configuration>([&](auto done) { makeClient()->checkin(kAppInfo, done); });
    EXPECT_EQ(unpinned.error().localizedDescription().rfind(
                  "Request failed: Network error: Certificate pinning refused localhost: no key is pinned", 0),
              0u);
    EXPECT_TRUE(_server.requests().empty());
}

// The user token is answered from another thread, as a host refreshing its
// token would; one that never answers holds up only its own request, not the
// caller. How a token becomes the header, and that an empty one sends none,
// the integration run proves.
TEST_F(APIClientTest, SendsTheUserTokenAnsweredLaterAndASilentOneHoldsUpOnlyItsRequest) {
    auto user = std::make_shared<ClosureUserCredentials>([](ClosureUserCredentials::Callback callback) {
        std::thread([callback] { callback("abc"); }).detach();
    });
    ASSERT_TRUE(await<Configuration>([&](auto done) {
                    makeClient({"app-token", "app-secret"}, user)->checkin(kAppInfo, done);
                }).hasValue());
    EXPECT_EQ(_server.requests().at(0).headerValues("X-Authorization-User"), std::vector<std::string>{"Bearer abc"});

    auto silent = std::make_shared<ClosureUserCredentials>([](ClosureUserCredentials::Callback) {});
    std::atomic<bool> stuckCalled = false;
    makeClient({"app-token", "app-secret"}, silent)->checkin(kAppInfo, [&](auto) { stuckCalled = true; });
    EXPECT_TRUE(await<Configuration>([&](auto done) { makeClient()->checkin(kAppInfo, done); }).hasValue());
    EXPECT_FALSE(stuckCalled);
}

// The bytes go to the backend's target with its headers only: the storage
// behind it checks them and knows nothing of signing or user agents.
TEST_F(APIClientTest, DirectUploadSendsTheBytesWithTheTargetsHeadersOnly) {
    auto bytes = std::make_shared<const std::vector<std::uint8_t>>(std::vector<std::uint8_t>{'a', 'b', 'c'});
    const DirectUploadResponse::DirectUpload target{_server.url("/uploads/abc?sig=1"),
                                                    {{"Content-MD5", "kAFQmDzST7DWlj99KOF/cg=="}}};
    ASSERT_TRUE(await<bool>([&](auto done) { makeClient()->directUpload(bytes, target, nullptr, done); }).hasValue());
    const auto request = _server.requests().at(0);
    EXPECT_EQ(request.method + " " + request.path + " " + request.body, "PUT /uploads/abc?sig=1 abc");
    EXPECT_EQ(request.headerNames(), (std::set<std::string>{"Host", "Content-MD5", "Content-Length"}));
    EXPECT_EQ(request.headerValues("Content-MD5"), std::vector<std::string>{"kAFQmDzST7DWlj99KOF/cg=="});
    EXPECT_TRUE(_logger->logged("direct upload:\ndata: ", LogType::debug));
}

}  // namespace
}  // namespace palomir
