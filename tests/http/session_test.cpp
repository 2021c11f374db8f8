#include <gtest/gtest.h>

#include <thread>

#include "http_test_support.hpp"

namespace palomir::testing {
namespace {

using palomir_test::FaultServer;
using palomir_test::RecordedRequest;
using palomir_test::TestPki;
using palomir_test::TestResponse;
using palomir_test::TlsTestServer;

class SessionTest : public ::testing::Test {
protected:
    TestPki pki = TestPki::make("Session");
    palomir_test::TempDir dir;

    void SetUp() override { pki.root.writePem(dir / "root.pem"); }

    HttpSessionConfiguration trusting() const {
        HttpSessionConfiguration configuration;
        configuration.trustAnchors = {dir / "root.pem"};
        return configuration;
    }

    std::unique_ptr<TlsTestServer> serve(TlsTestServer::Handler handler = {}) {
        return std::make_unique<TlsTestServer>(TlsTestServer::Options{pki.chain(), std::move(handler), true});
    }
};

TestResponse answerByPath(const RecordedRequest& request) {
    TestResponse response;
    response.body = "answer";
    if (request.path.starts_with("/api/feedback")) {
        response.status = 201;
        response.headers = {{"Cache-Control", "public, max-age=300"}, {"X-Echo", "1"}};
        response.body = R"({"done":true})";
        response.contentType = "application/json";
    } else if (request.path == "/start") {
        response.status = 302;
        response.headers = {{"Location", "/elsewhere"}};
    }
    return response;
}

// One session and one connection for every kind of exchange, each checked
// for carrying nothing of the one before.
TEST_F(SessionTest, SendsWhatItIsGivenAndALaterExchangeCarriesNothingOfAnEarlierOne) {
    auto server = serve(answerByPath);
    auto session = HttpSession::make(trusting());
    auto exchange = [&](const std::string& method, const std::string& path, HttpHeaders headers = {},
                        std::shared_ptr<const std::vector<std::uint8_t>> body = nullptr, bool upload = false) {
        HttpRequest request = get(server->url(path));
        request.method = method;
        request.headers = std::move(headers);
        if (!upload) request.body = body;
        const Outcome outcome = perform(session, request, upload ? body : nullptr);
        EXPECT_TRUE(outcome.response) << method << " " << path << ": " << outcome.errorText();
        return outcome;
    };
    const Outcome posted =
        exchange("POST", "/api/feedback?x=1",
                 {{"Content-Type", "application/json"}, {"X-Twice", "a"}, {"x-twice", "b"}, {"Pragma", "x"}},
                 bytesOf(R"({"a":1})"));
    ASSERT_TRUE(posted.response);
    EXPECT_EQ(posted.response->status, 201);
    EXPECT_EQ(posted.body(), R"({"done":true})");
    EXPECT_EQ(posted.response->header("cache-control"), "public, max-age=300");
    EXPECT_EQ(posted.response->header("CONTENT-TYPE"), "application/json");
    EXPECT_EQ(posted.response->header("X-Missing"), std::nullopt);

    auto bytes = std::make_shared<std::vector<std::uint8_t>>(3 * 1024 * 1024 + 7);
    for (std::size_t i = 0; i < bytes->size(); ++i) (*bytes)[i] = static_cast<std::uint8_t>(i * 31);
    // An upload task is a PUT unless told otherwise, whatever the request says.
    exchange("", "/upload", {{"Content-Type", "image/png"}, {"Content-MD5", "abc=="}}, bytes, true);
    EXPECT_EQ(exchange("HEAD", "/head").body(), "");
    const Outcome redirected = exchange("GET", "/start");
    EXPECT_EQ(redirected.response->status, 302);
    EXPECT_EQ(redirected.response->header("Location"), "/elsewhere");

    const Outcome invalid = perform(session, get("not a url"));
    ASSERT_TRUE(invalid.error);
    EXPECT_EQ(invalid.error->kind, HttpError::Kind::invalidRequest);
    EXPECT_EQ(invalid.error->message, "Invalid URL: not a url");
    EXPECT_EQ(exchange("GET", "/get").body(), "answer");
    exchange("DELETE", "/delete");
    exchange("PUT", "/empty-put");

    const auto seen = server->requests();
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(seen[0].path, "/api/feedback?x=1");
    EXPECT_EQ(seen[0].body, R"({"a":1})");
    EXPECT_EQ(seen[0].headerValues("X-Twice"), std::vector<std::string>{"a, b"});
    EXPECT_EQ(seen[0].headerValues("Content-Type"), std::vector<std::string>{"application/json"});
    EXPECT_EQ(seen[0].headerValues("Pragma"), std::vector<std::string>{"x"});
    // On the wire: the fields given, and only what HTTP needs besides (no
    // Accept, Expect, cache fields or form Content-Type of libcurl's own).
    using Names = std::set<std::string>;
    EXPECT_EQ(seen[0].headerNames(), (Names{"Host", "Content-Type", "X-Twice", "Pragma", "Content-Length"}));
    EXPECT_EQ(seen[1].headerNames(), (Names{"Host", "Content-Type", "Content-MD5", "Content-Length"}));
    EXPECT_EQ(seen[6].headerNames(), (Names{"Host", "Content-Length"}));

    EXPECT_EQ(seen[1].method, "PUT");
    EXPECT_EQ(seen[1].headerValues("Content-Length"), std::vector<std::string>{std::to_string(bytes->size())});
    EXPECT_EQ(seen[1].headerValues("Content-MD5"), std::vector<std::string>{"abc=="});
    EXPECT_TRUE(seen[1].body == std::string(bytes->begin(), bytes->end()));
    EXPECT_EQ(seen[2].method, "HEAD");
    // The redirect was not followed.
    EXPECT_EQ(seen[3].path, "/start");
    const RecordedRequest& last = seen[4];
    EXPECT_EQ(last.method, "GET");
    EXPECT_EQ(last.body, "");
    EXPECT_TRUE(last.headerValues("Content-Type").empty());
    EXPECT_TRUE(last.headerValues("Content-Length").empty());
    EXPECT_TRUE(last.headerValues("X-Twice").empty());
    // One connection carried them (the test server closes it after five).
    EXPECT_EQ(seen[0].remotePort, last.remotePort);
    EXPECT_EQ(seen[5].method, "DELETE");
    EXPECT_EQ(seen[6].headerValues("Content-Length"), std::vector<std::string>{"0"});
}

// Answers of "/<bytes>", with a length, or of "/<bytes>/chunked" without.
TEST_F(SessionTest, BodiesOverTheLimitAreRefused) {
    auto server = serve([](const RecordedRequest& request) {
        TestResponse response;
        const std::size_t bytes = std::stoul(request.path.substr(1));
        if (request.path.ends_with("/chunked"))
            response.chunkedBytes = bytes;
        else
            response.body.assign(bytes, 'x');
        return response;
    });
    const std::string overLimit = "The response body is larger than 100000 bytes";
    struct Case {
        std::string path;
        std::optional<std::size_t> limit;  // none: the default
        std::string refusal;               // empty: accepted
    };
    const std::vector<Case> cases = {{"/100000", 100'000, ""},
                                     {"/100001", 100'000, overLimit},
                                     {"/100000/chunked", 100'000, ""},
                                     {"/300000/chunked", 100'000, overLimit},
                                     {"/10485761/chunked", std::nullopt,
                                      "The response body is larger than 10485760 bytes"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        HttpSessionConfiguration configuration = trusting();
        if (c.limit) configuration.maxBodySize = *c.limit;
        const Outcome outcome = perform(HttpSession::make(configuration), get(server->url(c.path)));
        if (c.refusal.empty()) {
            ASSERT_TRUE(outcome.response) << outcome.errorText();
            EXPECT_EQ(outcome.response->body.size(), std::stoul(c.path.substr(1)));
        } else {
            ASSERT_TRUE(outcome.error);
            EXPECT_EQ(outcome.error->kind, HttpError::Kind::tooLarge);
            EXPECT_EQ(outcome.error->message, c.refusal);
        }
    }
}

// 100 body bytes at one per 200 ms would take 20 s; each byte resets the
// idle limit, so only the total limit can end such an exchange.
const std::string kDripHead = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";
const FaultServer::Behaviour kDripping{kDripHead + std::string(100, 'x'), std::chrono::milliseconds(200), true,
                                       kDripHead.size()};
const FaultServer::Behaviour kStalled{"", std::chrono::milliseconds(0), true};

TEST(SessionTimeouts, EndTheExchange) {
    struct Case {
        FaultServer::Behaviour server;
        std::optional<std::chrono::milliseconds> requestLimit;  // shortens the session's idle 1 s
        std::string message;
        double atLeast;
        double below;
    };
    const std::vector<Case> cases = {
        {kStalled, std::nullopt, "The request timed out: no data for 1000 ms", 0.9, 2.9},
        {kStalled, std::chrono::milliseconds(300), "The request timed out: no data for 300 ms", 0.25, 0.9},
        {kDripping, std::nullopt, "The request timed out: not complete after 3000 ms", 2.9, 7.0}};
    HttpSessionConfiguration configuration;
    configuration.idleTimeout = std::chrono::seconds(1);
    configuration.totalTimeout = std::chrono::seconds(3);
    auto session = HttpSession::make(configuration);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        FaultServer server(c.server);
        HttpRequest request = get(server.url("/checkin"));
        request.idleTimeout = c.requestLimit;
        const Outcome outcome = perform(session, request);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->kind, HttpError::Kind::timedOut);
        EXPECT_EQ(outcome.error->message, c.message);
        EXPECT_GE(outcome.seconds, c.atLeast);
        EXPECT_LT(outcome.seconds, c.below);
    }
}

TEST(SessionErrors, TransportFailuresAreReported) {
    auto session = HttpSession::make({});
    const Outcome scheme = perform(session, get("ftp://127.0.0.1/file"));
    ASSERT_TRUE(scheme.error);
    EXPECT_EQ(scheme.error->kind, HttpError::Kind::invalidRequest);
    EXPECT_EQ(scheme.error->message, "Unsupported URL scheme: ftp");

    int port = 0;
    {
        FaultServer closed({"", std::chrono::milliseconds(0), false});
        port = closed.port();
    }
    const Outcome refused = perform(session, get("http://127.0.0.1:" + std::to_string(port) + "/"));
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->kind, HttpError::Kind::transport);
    EXPECT_EQ(refused.error->code, 7);  // could not connect
    EXPECT_EQ(refused.error->message.rfind("Failed to connect to 127.0.0.1 port " + std::to_string(port), 0), 0u)
        << refused.error->message;
}

TEST(SessionCompletions, ADroppedSessionFinishesTheExchangeUnderWay) {
    const std::string response = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nhi";
    FaultServer server({response, std::chrono::milliseconds(10), false});
    std::promise<std::string> finished;
    auto body = finished.get_future();
    {
        auto session = HttpSession::make({});
        session->dataTask(get(server.url("/")), [&](std::optional<HttpResponse> r, std::optional<HttpError> e) {
            finished.set_value(r ? std::string(r->body.begin(), r->body.end()) : "error: " + e->message);
        });
    }
    ASSERT_EQ(body.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(body.get(), "hi");
}

TEST(SessionCompletions, ACompletionMayStartTheNextTask) {
    FaultServer server({"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx", std::chrono::milliseconds(0), false});
    auto session = HttpSession::make({});
    std::promise<long> second;
    auto status = second.get_future();
    session->dataTask(get(server.url("/1")), [&, session](std::optional<HttpResponse>, std::optional<HttpError>) {
        session->dataTask(get(server.url("/2")), [&](std::optional<HttpResponse> r, std::optional<HttpError>) {
            second.set_value(r ? r->status : -1);
        });
    });
    ASSERT_EQ(status.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(status.get(), 200);
    EXPECT_EQ(server.connections(), 2u);
}

}  // namespace
}  // namespace palomir::testing
