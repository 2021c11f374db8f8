#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "http_test_support.hpp"

namespace palomir::testing {
namespace {

using palomir_test::RecordedRequest;
using palomir_test::TestResponse;
using palomir_test::TlsTestServer;

// One session and one connection for every kind of exchange, each checked
// for carrying nothing of the one before. (Redirects left unfollowed and
// upload chains started from a completion are proven by the client's
// hostile-server sweep and its feedback runs.)
TEST(Session, SendsWhatItIsGivenAndALaterExchangeCarriesNothingOfAnEarlierOne) {
    TrustedServer trusted("Session", [](const RecordedRequest& request) {
        TestResponse response;
        response.status = request.method == "POST" ? 201 : 200;
        response.headers = {{"Cache-Control", "max-age=300"}};
        response.body = "answer";
        return response;
    });
    auto& server = trusted.server;
    auto session = HttpSession::make(trusted.configuration);
    auto exchange = [&](const std::string& method, HttpHeaders headers = {},
                        std::shared_ptr<const std::vector<std::uint8_t>> body = nullptr) {
        HttpRequest request = get(server.url("/" + method));
        request.method = method;
        request.headers = std::move(headers);
        request.body = body;
        const Outcome outcome = perform(session, request);
        EXPECT_TRUE(outcome.response) << method << ": " << outcome.errorText();
        return outcome;
    };
    const std::string json = R"({"a":1})";
    const Outcome posted = exchange("POST", {{"Content-Type", "application/json"}, {"X-Twice", "a"}, {"x-twice", "b"}},
                                    std::make_shared<const std::vector<std::uint8_t>>(json.begin(), json.end()));
    ASSERT_TRUE(posted.response);
    EXPECT_EQ(posted.response->status, 201);
    EXPECT_EQ(posted.body(), "answer");
    EXPECT_EQ(posted.response->header("CACHE-control"), "max-age=300");

    auto bytes = std::make_shared<std::vector<std::uint8_t>>(3 * 1024 * 1024 + 7);
    for (std::size_t i = 0; i < bytes->size(); ++i) (*bytes)[i] = static_cast<std::uint8_t>(i * 31);
    exchange("PUT", {{"Content-MD5", "abc=="}}, bytes);
    EXPECT_EQ(exchange("HEAD").body(), "");
    exchange("GET");
    exchange("PUT");

    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[0].path, "/POST");
    EXPECT_EQ(seen[0].body, json);
    EXPECT_EQ(seen[0].headerValues("X-Twice"), std::vector<std::string>{"a, b"});
    // On the wire: the fields given, and only what HTTP needs besides (no
    // Accept, Expect, cache fields or form Content-Type of libcurl's own).
    using Names = std::set<std::string>;
    EXPECT_EQ(seen[0].headerNames(), (Names{"Host", "Content-Type", "X-Twice", "Content-Length"}));
    EXPECT_EQ(seen[1].method, "PUT");
    EXPECT_EQ(seen[1].headerNames(), (Names{"Host", "Content-MD5", "Content-Length"}));
    EXPECT_TRUE(seen[1].body == std::string(bytes->begin(), bytes->end()));
    EXPECT_EQ(seen[2].method, "HEAD");
    EXPECT_EQ(seen[3].headerNames(), (Names{"Host"}));
    EXPECT_EQ(seen[3].body, "");
    EXPECT_EQ(seen[4].method, "PUT");
    EXPECT_EQ(seen[4].headerValues("Content-Length"), std::vector<std::string>{"0"});
    // One connection carried them all.
    EXPECT_EQ(seen[0].remotePort, seen[4].remotePort);
}

// Answers of "/<bytes>", with a length, or of "/<bytes>/chunked" without.
TEST(Session, BodiesOverTheLimitAreRefused) {
    TrustedServer trusted("Limits", [](const RecordedRequest& request) {
        TestResponse response;
        const std::size_t bytes = std::stoul(request.path.substr(1));
        if (request.path.ends_with("/chunked"))
            response.chunkedBytes = bytes;
        else
            response.body.assign(bytes, 'x');
        return response;
    });
    // The default limit is proven by the sweep, through the API client.
    const std::string overLimit = "The response body is larger than 100000 bytes";
    const std::pair<std::string, std::string> cases[] = {
        {"/100000", ""}, {"/100001", overLimit}, {"/100000/chunked", ""}, {"/300000/chunked", overLimit}};
    HttpSessionConfiguration configuration = trusted.configuration;
    configuration.maxBodySize = 100'000;
    auto session = HttpSession::make(configuration);
    for (const auto& [path, refusal] : cases) {
        SCOPED_TRACE(path);
        const Outcome outcome = perform(session, get(trusted.server.url(path)));
        if (refusal.empty()) {
            ASSERT_TRUE(outcome.response) << outcome.errorText();
            EXPECT_EQ(outcome.response->body.size(), std::stoul(path.substr(1)));
        } else {
            ASSERT_TRUE(outcome.error);
            EXPECT_EQ(outcome.error->kind, HttpError::Kind::tooLarge);
            EXPECT_EQ(outcome.error->message, refusal);
        }
    }
}

// The session's own idle and total limits, and their words, are proven
// through the check-in session by the hostile-server sweep; a request's own
// shorter limit only here, against a server that answers nothing for 1 s.
TEST(Session, RequestsThatFailEndWithTheirReasonPromptly) {
    TrustedServer stalled("Stalled", [](const RecordedRequest&) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        return TestResponse{};
    });
    HttpRequest impatient = get(stalled.server.url("/checkin"));
    impatient.idleTimeout = std::chrono::milliseconds(300);
    // A port held by a socket that never listens: connecting is refused, and
    // no other server on the machine can take the port meanwhile.
    const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), length), 0);
    ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    const int closedPort = ntohs(address.sin_port);
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedPort) + "/";
    const std::tuple<HttpRequest, HttpError::Kind, std::string> cases[] = {
        {impatient, HttpError::Kind::timedOut, "The request timed out: no data for 300 ms"},
        {get("not a url"), HttpError::Kind::invalidRequest, "Invalid URL: not a url"},
        {get("ftp://127.0.0.1/file"), HttpError::Kind::invalidRequest, "Unsupported URL scheme: ftp"},
        {get(refused), HttpError::Kind::transport, "Failed to connect to 127.0.0.1 port " + std::to_string(closedPort)}};
    HttpSessionConfiguration configuration = stalled.configuration;
    configuration.idleTimeout = std::chrono::seconds(1);
    auto session = HttpSession::make(configuration);
    for (const auto& [request, kind, message] : cases) {
        SCOPED_TRACE(request.url);
        const Outcome outcome = perform(session, request);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->kind, kind);
        EXPECT_EQ(outcome.error->message.substr(0, message.size()), message);
        // The impatient request waits out its own limit, not less.
        EXPECT_GE(outcome.seconds, kind == HttpError::Kind::timedOut ? 0.25 : 0.0);
        EXPECT_LT(outcome.seconds, 0.9);
    }
    ::close(holder);
}

}  // namespace
}  // namespace palomir::testing
