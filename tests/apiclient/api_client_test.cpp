#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "api/api_client_internal.hpp"
#include "palomir/api_client.hpp"
#include "palomir_test/tls.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;
using palomir_test::RecordedRequest;
using palomir_test::TestPki;
using palomir_test::TestResponse;
using palomir_test::TlsTestServer;

const char* kConfiguration = R"({"version":"7","theme":{"text_color":"#000","background_color":"#fff"},
  "notes":[],"lockdown":{"active":false,"latest_version":"1.0"}})";

class CapturingLogger : public Logger {
public:
    void log(const std::string& message, LogType type) override {
        std::lock_guard lock(_mutex);
        _lines.emplace_back(message, type);
    }
    std::vector<std::pair<std::string, LogType>> lines() const {
        std::lock_guard lock(_mutex);
        return _lines;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::pair<std::string, LogType>> _lines;
};

TestResponse respond(int status, std::string body, std::string contentType = "application/json",
                     palomir_test::Headers headers = {}) {
    return TestResponse{status, std::move(headers), std::move(body), std::move(contentType), std::nullopt};
}

const AppInfo kAppInfo{.name = std::nullopt,
                       .bundleIdentifier = "com.example.host",
                       .version = "2.1",
                       .build = "210",
                       .sdkVersion = "1",
                       .preferredLanguages = {"en-GB"},
                       .metadata = std::nullopt};

// Waits for the one completion of an operation and fails if a second arrives.
template <class T>
class Outcome {
public:
    std::function<void(Result<T, APIError>)> completion() {
        return [this](Result<T, APIError> result) {
            std::lock_guard lock(_mutex);
            ++_calls;
            if (!_result) {
                _result.emplace(std::move(result));
                _promise.set_value();
            }
        };
    }
    const Result<T, APIError>& get() {
        EXPECT_EQ(_future.wait_for(20s), std::future_status::ready);
        std::this_thread::sleep_for(20ms);  // room for a wrongful second call
        std::lock_guard lock(_mutex);
        EXPECT_EQ(_calls, 1);
        return *_result;
    }

private:
    std::mutex _mutex;
    std::promise<void> _promise;
    std::future<void> _future = _promise.get_future();
    std::optional<Result<T, APIError>> _result;
    int _calls = 0;
};

class APIClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        _pki.leaf.writeDer(_resources / "localhost.crt");
        _pki.root.writePem(_resources / "ca.pem");
        _server = std::make_unique<TlsTestServer>(TlsTestServer::Options{
            _pki.chain(), [this](const RecordedRequest& request) {
                std::lock_guard lock(_handlerMutex);
                return _handler(request);
            }});
    }

    void answer(std::function<TestResponse(const RecordedRequest&)> handler) {
        std::lock_guard lock(_handlerMutex);
        _handler = std::move(handler);
    }

    BackendOptions options() const {
        return BackendOptions{_server->url("/api"), {_resources / "ca.pem"}, _resources.path()};
    }

    std::shared_ptr<APIClient> makeClient(AppCredentials credentials = {"app-token", "app-secret"},
                                          std::shared_ptr<UserCredentials> user = nullptr) {
        return APIClient::make(std::move(credentials), std::move(user), nullptr, _logger, options());
    }

    palomir_test::TempDir _resources;
    TestPki _pki = TestPki::make("api-client");
    std::mutex _handlerMutex;
    std::function<TestResponse(const RecordedRequest&)> _handler = [](const RecordedRequest&) {
        return respond(200, kConfiguration, "application/json");
    };
    std::unique_ptr<TlsTestServer> _server;
    std::shared_ptr<CapturingLogger> _logger = std::make_shared<CapturingLogger>();
};

// The client is dropped at once: the request under way still finishes.
TEST_F(APIClientTest, CheckinSendsASignedPutWithTheAppInfoAndDecodesTheConfiguration) {
    answer([](const RecordedRequest&) {
        std::this_thread::sleep_for(300ms);
        return respond(200, kConfiguration);
    });
    Outcome<Configuration> outcome;
    makeClient()->checkin(kAppInfo, outcome.completion());
    const auto& result = outcome.get();
    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    EXPECT_EQ(result.value().version, "7");

    auto requests = _server->requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& request = requests[0];
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.path, "/api/checkin/app-token");
    // Signing adds the content type a second time; it travels as one field.
    EXPECT_EQ(request.headerValues("Content-Type"), std::vector<std::string>{"application/json, application/json"});
    EXPECT_EQ(request.headerValues("User-Agent"), std::vector<std::string>{AppInfo::userAgent()});
    // On the wire: what the request names and what HTTP needs, nothing else
    // (no cache fields, no Accept, no user header without user credentials).
    ASSERT_EQ(request.headerNames(), (std::set<std::string>{"Host", "Content-Type", "User-Agent", "Accept-Language",
                                                             "Content-Length", "Authorization"}));
    // The signature itself is verified by the sandbox in the integration tests.
    EXPECT_EQ(request.headerValues("Authorization")[0].rfind("OAuth oauth_consumer_key=\"app-token\",", 0), 0u);

    auto body = nlohmann::json::parse(request.body);
    EXPECT_EQ(body["app_info"]["bundle_identifier"], "com.example.host");
    EXPECT_EQ(body["app_info"]["preferred_languages"], nlohmann::json::array({"en-GB"}));
    EXPECT_FALSE(body["app_info"].contains("name"));

    // One debug record of the exchange, without the secret.
    auto lines = _logger->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second, LogType::debug);
    const std::string prefix = "request: PUT " + _server->url("/api/checkin/app-token") + "\ndata: ";
    EXPECT_EQ(lines[0].first.rfind(prefix, 0), 0u) << lines[0].first;
    EXPECT_NE(lines[0].first.find("\nresponse: { URL: "), std::string::npos);
    EXPECT_EQ(lines[0].first.find("\nerror:"), std::string::npos);
    EXPECT_EQ(lines[0].first.find("app-secret"), std::string::npos);
}

TEST_F(APIClientTest, ServiceEndpointsUseTheirPathsAndSendNoBody) {
    answer([](const RecordedRequest&) {
        return respond(200, R"({"services":[],"service":{"name":"DB","identifier":"db","is_available":true,"state":"ok","triggers_message":false}})");
    });
    auto client = makeClient();
    for (const bool system : {false, true}) {
        Outcome<std::pair<ServicesResponse, MaxAge>> list;
        client->services(kAppInfo, system, list.completion());
        EXPECT_TRUE(list.get().hasValue());
        Outcome<std::pair<Service, MaxAge>> one;
        client->service("db", kAppInfo, system, one.completion());
        EXPECT_TRUE(one.get().hasValue());
    }
    auto requests = _server->requests();
    ASSERT_EQ(requests.size(), 4u);
    // Lists keep their trailing slash; a single service has none.
    const char* paths[] = {"/api/services/", "/api/services/db", "/api/system_services/", "/api/system_services/db"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(requests[i].method, "GET");
        EXPECT_EQ(requests[i].path, paths[i]);
        EXPECT_TRUE(requests[i].body.empty());
    }
}

TEST_F(APIClientTest, ClassifiesTheAnswer) {
    struct Case {
        TestResponse response;
        std::string expected;  // the error's text; empty: success
        MaxAge maxAge = std::nullopt;
    };
    const std::vector<Case> cases = {
        {respond(304, ""), "Request failed: Bad status: 304"},
        {respond(500, R"({"services":[]})"), "Request failed: Bad status: 500"},
        {respond(200, ""), "Empty response"},
        {respond(200, R"({"items":[]})"),
         "Failed to decode response: {\"items\":[]}\nerror:services: missing required key"},
        {respond(200, "<html>maintenance</html>", "text/html"),
         "Failed to decode response: <html>maintenance</html>\nerror:[json.exception.parse_error.101] parse "
         "error at line 1, column 1: syntax error while parsing value - invalid literal; last read: '<'"},
        {respond(200, R"({"services":[]})", "application/json", {{"Cache-Control", "public, MAX-AGE = 300"}}), "",
         300.0}};
    auto client = makeClient();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.response.status);
        answer([&](const RecordedRequest&) { return c.response; });
        Outcome<std::pair<ServicesResponse, MaxAge>> outcome;
        client->services(kAppInfo, false, outcome.completion());
        const auto& result = outcome.get();
        if (c.expected.empty()) {
            ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
            EXPECT_EQ(result.value().second, c.maxAge);
        } else {
            ASSERT_TRUE(result.hasError());
            EXPECT_EQ(result.error().localizedDescription(), c.expected);
        }
    }
}

TEST(MaxAgeParsing, ReadsOnlyDigits) {
    const std::vector<std::pair<const char*, MaxAge>> cases = {
        {"max-age=60", 60.0},      {"max-age\t=\n5", 5.0},           {"max-age=-5", std::nullopt},
        {"max-age=.5", std::nullopt}, {"max-age=1.5", 1.0},          {"s-max-age=7, max-age=9", 7.0},
        {"max-age, max-age=12", 12.0}, {"no-store", std::nullopt},    {"", std::nullopt}};
    for (const auto& [header, expected] : cases) EXPECT_EQ(parseMaxAge(header), expected) << header;
}

TEST_F(APIClientTest, LocalFailuresComeBeforeAnyTraffic) {
    auto client = makeClient({"bad token", "secret"});
    Outcome<Configuration> checkin;
    Outcome<std::pair<ServicesResponse, MaxAge>> services;
    Outcome<std::pair<Service, MaxAge>> service;
    Outcome<DirectUploadResponse> upload;
    Outcome<Feedback> feedback;
    client->checkin(kAppInfo, checkin.completion());
    client->services(kAppInfo, true, services.completion());
    client->service("db", kAppInfo, false, service.completion());
    client->startDirectUpload(DirectUpload{"a.txt", 1, "x", "text/plain", std::nullopt}, upload.completion());
    client->createFeedback(Feedback{"t", "m", "me", std::nullopt}, kAppInfo, feedback.completion());
    EXPECT_EQ(checkin.get().error().localizedDescription(), "Invalid app token");
    EXPECT_EQ(services.get().error().localizedDescription(), "Invalid app token");
    EXPECT_EQ(service.get().error().localizedDescription(), "Invalid app token");
    EXPECT_EQ(upload.get().error().localizedDescription(), "Invalid app token");
    EXPECT_EQ(feedback.get().error().localizedDescription(), "Invalid app token");

    // With a usable token, an identifier that breaks the URL.
    Outcome<std::pair<Service, MaxAge>> broken;
    makeClient()->service("two words", kAppInfo, false, broken.completion());
    EXPECT_EQ(broken.get().error().localizedDescription(), "Invalid URL");

    // Without the pinned certificate nothing is sent at all.
    std::filesystem::remove(_resources / "localhost.crt");
    Outcome<Configuration> unpinned;
    makeClient()->checkin(kAppInfo, unpinned.completion());
    EXPECT_EQ(unpinned.get().error().localizedDescription().rfind(
                  "Request failed: Network error: Certificate pinning refused localhost: no key is pinned for this "
                  "host (supply the certificate whose key to pin as \"localhost.crt\"", 0), 0u);
    EXPECT_TRUE(_server->requests().empty());
}

// The user token is answered from another thread, as a host refreshing its
// token would; one that never answers holds up only its own client.
TEST_F(APIClientTest, SendsTheNormalisedUserTokenAndASilentOneHoldsUpOnlyItsClient) {
    for (const std::optional<std::string>& token : {std::optional<std::string>("abc"), std::optional<std::string>("")}) {
        auto user = std::make_shared<ClosureUserCredentials>([token](ClosureUserCredentials::Callback callback) {
            std::thread([callback, token] { callback(token); }).detach();
        });
        Outcome<Configuration> outcome;
        makeClient({"app-token", "app-secret"}, user)->checkin(kAppInfo, outcome.completion());
        ASSERT_TRUE(outcome.get().hasValue());
    }
    auto requests = _server->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].headerValues("X-Authorization-User"), std::vector<std::string>{"Bearer abc"});
    EXPECT_TRUE(requests[1].headerValues("X-Authorization-User").empty());

    auto silent = std::make_shared<ClosureUserCredentials>([](ClosureUserCredentials::Callback) {});
    auto stuck = makeClient({"app-token", "app-secret"}, silent);
    std::atomic<bool> stuckCalled = false;
    stuck->checkin(kAppInfo, [&](auto) { stuckCalled = true; });
    Outcome<Configuration> other;
    makeClient()->checkin(kAppInfo, other.completion());
    EXPECT_TRUE(other.get().hasValue());
    EXPECT_FALSE(stuckCalled);
}

TEST_F(APIClientTest, UploadsAndFeedbackSendSnakeCaseBodiesAndTheBytesWithTheTargetsHeadersOnly) {
    answer([](const RecordedRequest& request) {
        if (request.path == "/api/direct_uploads")
            return respond(200, R"({"id":7,"key":"k","filename":"log.txt","signed_id":"s","direct_upload":{"url":"u","headers":{}}})");
        if (request.path == "/api/feedback")
            return respond(201, R"({"title":"t","message":"m","submitted_by":"me","files":["s"]})");
        return request.path == "/uploads/denied" ? respond(403, "denied", "text/plain") : respond(204, "", "text/plain");
    });
    auto client = makeClient();
    Outcome<DirectUploadResponse> announced;
    client->startDirectUpload(DirectUpload{"log.txt", 0, "1B2M2Y8AsgTpgAmY7PhCfg==", "text/plain", std::vector<std::uint8_t>{}},
                              announced.completion());
    ASSERT_TRUE(announced.get().hasValue());
    EXPECT_EQ(announced.get().value().signedID, "s");
    Outcome<Feedback> feedback;
    client->createFeedback(Feedback{"t", "m", "me", std::vector<std::string>{"s"}}, kAppInfo, feedback.completion());
    ASSERT_TRUE(feedback.get().hasValue());

    DirectUploadResponse::DirectUpload target{_server->url("/uploads/abc?sig=1"),
                                              {{"Content-Type", "text/plain"}, {"Content-MD5", "kAFQmDzST7DWlj99KOF/cg=="}}};
    auto bytes = std::make_shared<const std::vector<std::uint8_t>>(std::vector<std::uint8_t>{'a', 'b', 'c'});
    Outcome<bool> uploaded;
    client->directUpload(bytes, target, nullptr, uploaded.completion());
    ASSERT_TRUE(uploaded.get().hasValue());

    auto requests = _server->requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(nlohmann::json::parse(requests[0].body),
              nlohmann::json::parse(R"({"blob":{"filename":"log.txt","byte_size":0,)"
                                    R"("checksum":"1B2M2Y8AsgTpgAmY7PhCfg==","content_type":"text/plain"}})"));
    auto body = nlohmann::json::parse(requests[1].body);
    EXPECT_EQ(body["feedback"], nlohmann::json::parse(R"({"title":"t","message":"m","submitted_by":"me","files":["s"]})"));
    EXPECT_EQ(body["app_info"]["sdk_version"], "1");
    // The upload carries the target's own fields and what HTTP needs, nothing else.
    EXPECT_EQ(requests[2].headerNames(), (std::set<std::string>{"Host", "Content-Type", "Content-MD5", "Content-Length"}));
    EXPECT_EQ(requests[2].method, "PUT");
    EXPECT_EQ(requests[2].path, "/uploads/abc?sig=1");
    EXPECT_EQ(requests[2].body, "abc");
    EXPECT_EQ(requests[2].headerValues("Content-MD5"), std::vector<std::string>{"kAFQmDzST7DWlj99KOF/cg=="});
    EXPECT_EQ(_logger->lines().back().first.rfind("direct upload:\ndata: ", 0), 0u);

    Outcome<bool> rejected;
    client->directUpload(bytes, {_server->url("/uploads/denied"), {}}, nullptr, rejected.completion());
    EXPECT_EQ(rejected.get().error().localizedDescription(), "Request failed: Bad status: 403");
    Outcome<bool> unusable;
    client->directUpload(bytes, {"not a url", {}}, nullptr, unusable.completion());
    EXPECT_EQ(unusable.get().error().localizedDescription().rfind("Request failed: Network error: ", 0), 0u);
}

// A stalled server meets the idle limit (1 s); one that keeps dripping
// bytes, each resetting the idle limit, meets the limit on the whole
// exchange (5 s).
TEST(CheckinTimeouts, AreGivenUpWithinTheCheckinLimits) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 4000\r\n\r\n";
    struct Case {
        palomir_test::FaultServer::Behaviour server;
        std::chrono::milliseconds atLeast;
        std::chrono::milliseconds below;
    };
    const std::vector<Case> cases = {{{"", 0ms, true, 0}, 900ms, 4s},
                                     {{head + std::string(4000, ' '), 200ms, true, head.size()}, 4500ms, 9s}};
    for (const auto& c : cases) {
        palomir_test::FaultServer server(c.server);
        BackendOptions options;
        options.baseURL = server.url("/api");
        Outcome<Configuration> outcome;
        auto started = std::chrono::steady_clock::now();
        APIClient::make({"t", "s"}, nullptr, nullptr, nullptr, options)->checkin(kAppInfo, outcome.completion());
        const auto& result = outcome.get();
        auto elapsed = std::chrono::steady_clock::now() - started;
        ASSERT_TRUE(result.hasError());
        EXPECT_EQ(result.error().localizedDescription().rfind("Request failed: Network error: ", 0), 0u);
        EXPECT_GE(elapsed, c.atLeast) << result.error().localizedDescription();
        EXPECT_LT(elapsed, c.below);
    }
}

}  // namespace
}  // namespace palomir
