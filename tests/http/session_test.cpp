#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "palomir_test/temp_dir.hpp"
#include "palomir_test/tls.hpp"
#include "platform/http_session.hpp"
#include "platform/pinning.hpp"

namespace palomir::testing {
namespace {

using palomir_test::CertificateChain;
using palomir_test::CertificateFactory;
using palomir_test::RecordedRequest;
using palomir_test::Pki;
using palomir_test::TestResponse;
using palomir_test::TlsTestServer;

struct Outcome {
    std::optional<HttpResponse> response;
    std::optional<HttpError> error;
    double seconds = 0;

    std::string body() const { return response ? std::string(response->body.begin(), response->body.end()) : ""; }
    std::string errorText() const { return error ? error->message : "(no error)"; }
};

/// Runs one task and waits for its completion (at most 30 s).
Outcome perform(const std::shared_ptr<HttpSession>& session, HttpRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    const auto start = std::chrono::steady_clock::now();
    // Every completion runs on the session's thread with exactly one of the two.
    HttpCompletion completion = [promise, start, weak = std::weak_ptr<HttpSession>(session)](
                                    std::optional<HttpResponse> response, std::optional<HttpError> error) {
        const auto alive = weak.lock();
        EXPECT_TRUE(!alive || alive->isCurrent());
        EXPECT_NE(response.has_value(), error.has_value());
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        promise->set_value(Outcome{std::move(response), std::move(error), seconds});
    };
    session->dataTask(std::move(request), std::move(completion));
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        ADD_FAILURE() << "no completion within 30 s";
        return {};
    }
    return future.get();
}

HttpRequest get(std::string url) {
    HttpRequest request;
    request.url = std::move(url);
    return request;
}

using Pins = std::map<std::string, std::vector<std::uint8_t>>;

// Trusted: the roots of A and B. Not trusted: U.
struct World {
    Pki a = Pki::make("A");
    Pki b = Pki::make("B");
    Pki u = Pki::make("U");
    palomir_test::TempDir dir;
    std::filesystem::path anchors = dir / "anchors.pem";

    World() { palomir_test::writePem(anchors, {a.root, b.root}); }

    /// Without pins: an unpinned session.
    HttpSessionConfiguration configuration(const std::optional<Pins>& pins = {}, std::filesystem::path trusted = {}) const {
        HttpSessionConfiguration configuration;
        configuration.trustAnchors = {trusted.empty() ? anchors : trusted};
        if (pins) configuration.pins = std::make_shared<const PinSet>(*pins);
        return configuration;
    }

    /// "a", "u": that authority's usual chain; "appended": B's chain with A's
    /// intermediate after it; "expired", "otherName", "ipv6": a leaf under
    /// A's intermediate that has expired, names another host, or names ::1.
    CertificateChain chain(const std::string& kind) const {
        if (kind == "a") return a.chain();
        if (kind == "u") return u.chain();
        if (kind == "appended") return {b.leaf, b.intermediate, a.intermediate};
        if (kind == "expired") {
            // The authority only issues current certificates: this one is
            // made to run out yesterday and signed again by its issuer.
            const auto leaf = CertificateFactory::makeLeaf(a.intermediate);
            X509_gmtime_adj(X509_getm_notAfter(leaf.x509()), -86400);
            X509_sign(leaf.x509(), a.intermediate.key(), EVP_sha256());
            return {leaf, a.intermediate};
        }
        const palomir_test::LeafOptions leaf =
            kind == "ipv6" ? palomir_test::LeafOptions{"::1", {}, {"::1"}}
                           : palomir_test::LeafOptions{"other.example", {"other.example"}, {}};
        return {CertificateFactory::makeLeaf(a.intermediate, leaf), a.intermediate};
    }

    /// "a.leaf", "b.root", ...: that certificate; "garbage": bytes that are
    /// no certificate.
    std::vector<std::uint8_t> certificate(const std::string& which) const {
        if (which == "garbage") return {0x30, 0x82, 0x01, 0x00, 0xde, 0xad};
        const Pki& pki = which[0] == 'a' ? a : which[0] == 'b' ? b : u;
        const std::string part = which.substr(2);
        return (part == "leaf" ? pki.leaf : part == "root" ? pki.root : pki.intermediate).der();
    }
};

struct PinCase {
    std::string name;
    std::string chain;
    std::string pinned;  // empty: no pin at all; "unpinned": a session without pinning
    std::string refusal = "";  // empty: the exchange succeeds
    std::string host = "localhost";
    std::string pinnedHost = "";  // empty: the host requested
    bool onlyTheIntermediateTrusted = false;
};

std::ostream& operator<<(std::ostream& out, const PinCase& c) { return out << c.name; }

// The refusal names the resource that would have held the pin.
std::string noPinFor(const std::string& host) {
    return "Certificate pinning refused " + host + ": no key is pinned for this host (supply the certificate whose "
           "key to pin as \"" + host + ".crt\" in Palomir's resource bundle or in BackendOptions::resourceDirectory)";
}
const std::string noPin = noPinFor("localhost");
const std::string noKeyInChain =
    "Certificate pinning refused localhost: no certificate of the verified chain carries the pinned key";
const std::string noIssuer = "SSL certificate problem: unable to get local issuer certificate";

class PinningTest : public ::testing::TestWithParam<PinCase> {};

TEST_P(PinningTest, AcceptsOnlyAVerifiedChainHoldingThePinnedKey) {
    const PinCase& c = GetParam();
    World world;
    std::unique_ptr<TlsTestServer> listening;
    try {
        listening = std::make_unique<TlsTestServer>(
            TlsTestServer::Options{world.chain(c.chain), {}, true, c.chain == "ipv6" ? "::1" : "127.0.0.1"});
    } catch (const std::exception& e) {
        GTEST_SKIP() << "this machine has no IPv6 loopback: " << e.what();
    }
    TlsTestServer& server = *listening;
    std::optional<Pins> pins;
    if (c.pinned != "unpinned") pins.emplace();
    if (pins && !c.pinned.empty()) (*pins)[c.pinnedHost.empty() ? c.host : c.pinnedHost] = world.certificate(c.pinned);
    std::filesystem::path trusted;
    if (c.onlyTheIntermediateTrusted) {
        trusted = world.dir / "intermediate.pem";
        world.a.intermediate.writePem(trusted);
    }

    const Outcome outcome = perform(HttpSession::make(world.configuration(pins, trusted)), get(server.url("/probe", c.host)));
    if (c.refusal.empty()) {
        EXPECT_EQ(outcome.body(), "ok") << outcome.errorText();
    } else {
        ASSERT_TRUE(outcome.error) << "accepted, status " << outcome.response->status;
        EXPECT_EQ(outcome.error->kind, HttpError::Kind::refusedTls);
        EXPECT_EQ(outcome.error->message, c.refusal);
        // The handshake never completed, so not one request byte was sent.
        EXPECT_TRUE(server.requests().empty());
        EXPECT_EQ(server.completedHandshakes(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Chains, PinningTest,
    ::testing::Values(
        PinCase{"Unpinned", "a", "unpinned"},
        PinCase{"UnpinnedUntrusted", "u", "unpinned", noIssuer},
        PinCase{"LeafPinned", "a", "a.leaf"},
        PinCase{"IntermediatePinnedLeafDiffers", "a", "a.intermediate"},
        PinCase{"RootPinnedNotSentByServer", "a", "a.root"},
        PinCase{"IpLiteralWithoutSni", "a", "a.intermediate", "", "127.0.0.1"},
        // Pinned under the host as the URL writes it, brackets and all.
        PinCase{"IPv6Literal", "ipv6", "a.intermediate", "", "[::1]"},
        PinCase{"WrongKey", "a", "b.leaf", noKeyInChain},
        PinCase{"NoPinForHost", "a", "a.leaf", noPin, "localhost", "api.example"},
        PinCase{"HostInAnotherCase", "a", "a.leaf",
                noPinFor("LOCALHOST"), "LOCALHOST", "localhost"},
        PinCase{"EmptyPinSet", "a", "", noPin},
        PinCase{"UnreadablePinnedCertificate", "a", "garbage", noPin},
        PinCase{"UntrustedChainHoldingThePinnedKey", "u", "u.leaf", noIssuer},
        PinCase{"PinnedCertificateAppendedToAnotherCasValidChain", "appended", "a.intermediate", noKeyInChain},
        PinCase{"RightKeyWrongHostName", "otherName", "a.intermediate", "SSL certificate problem: hostname mismatch"},
        PinCase{"ExpiredLeaf", "expired", "a.intermediate", "SSL certificate problem: certificate has expired"},
        // A pinned intermediate in the trust store is no trust anchor on its own.
        PinCase{"TrustedIntermediateWithoutItsRoot", "a", "a.intermediate",
                "SSL certificate problem: unable to get issuer certificate", "localhost", "", true}),
    [](const auto& info) { return info.param.name; });

// Every connection of a pinned session is checked afresh against the pin of
// its own host: one reached by an address without a pin is refused, and so
// is a rogue chain (trusted, but not pinned) presented on the next
// connection. For that a pinned session never offers to resume a TLS
// session; the server closes every connection after one request and does
// resume those an unpinned session offers.
TEST(PinningSession, ChecksEveryConnectionAgainstThePinOfItsHost) {
    World world;
    TlsTestServer server({world.a.chain(), {}, false});
    auto unpinned = HttpSession::make(world.configuration());
    auto pinned = HttpSession::make(world.configuration(Pins{{"localhost", world.a.intermediate.der()}}));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(perform(unpinned, get(server.url("/"))).response);
    const std::size_t resumedBefore = server.resumedHandshakes();
    EXPECT_GE(resumedBefore, 1u);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(perform(pinned, get(server.url("/"))).response);
    EXPECT_EQ(server.completedHandshakes(), 6u);
    EXPECT_EQ(server.resumedHandshakes(), resumedBefore);

    const Outcome byAddress = perform(pinned, get(server.url("/address", "127.0.0.1")));
    ASSERT_TRUE(byAddress.error) << "a host without a pin was accepted";
    EXPECT_EQ(byAddress.error->message, noPinFor("127.0.0.1"));
    server.setChain(world.b.chain());
    const Outcome rogue = perform(pinned, get(server.url("/rogue")));
    ASSERT_TRUE(rogue.error) << "the rogue chain was accepted";
    EXPECT_EQ(rogue.error->message, noKeyInChain);
    // Neither refused exchange sent a byte of its request.
    EXPECT_EQ(server.requests().size(), 6u);
}

// The system's authorities are found by their subject's hash in the
// certificate directory when a chain needs one, without a bundle file.
TEST(UnpinnedSession, SystemAnchorsAreLookedUpInTheHashedDirectory) {
    World world;
    TlsTestServer server({world.a.chain(), {}, true});
    palomir_test::TempDir system;
    char name[16];
    std::snprintf(name, sizeof name, "%08lx.0",
                  X509_NAME_hash_ex(X509_get_subject_name(world.a.root.x509()), nullptr, nullptr, nullptr));
    world.a.root.writePem(system / name);
    // The machine's own authorities do not include the test CA.
    const Outcome refused = perform(HttpSession::make({}), get(server.url("/")));
    setenv("SSL_CERT_DIR", system.path().c_str(), 1);
    setenv("SSL_CERT_FILE", (system / "absent.pem").c_str(), 1);
    const Outcome found = perform(HttpSession::make({}), get(server.url("/")));
    unsetenv("SSL_CERT_DIR");
    unsetenv("SSL_CERT_FILE");

    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->message, noIssuer);
    EXPECT_TRUE(found.response) << found.errorText();
}

// One session and one connection for every kind of exchange, each checked
// for carrying nothing of the one before. (Redirects left unfollowed and
// upload chains started from a completion are proven by the client's
// hostile-server sweep and its feedback runs.)
TEST(Session, SendsWhatItIsGivenAndALaterExchangeCarriesNothingOfAnEarlierOne) {
    World world;
    TlsTestServer server({world.a.chain(), [](const RecordedRequest&) {
                              return TestResponse{200, {{"Cache-Control", "max-age=300"}}, "answer", "text/plain", std::nullopt};
                          }});
    auto session = HttpSession::make(world.configuration());
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
    const Outcome posted = exchange("POST", {{"Content-Type", "application/json"}},
                                    std::make_shared<const std::vector<std::uint8_t>>(json.begin(), json.end()));
    ASSERT_TRUE(posted.response);
    EXPECT_EQ(posted.response->header("CACHE-control"), "max-age=300");

    auto bytes = std::make_shared<std::vector<std::uint8_t>>(3 * 1024 * 1024 + 7);
    for (std::size_t i = 0; i < bytes->size(); ++i) (*bytes)[i] = static_cast<std::uint8_t>(i * 31);
    exchange("PUT", {{"Content-MD5", "abc=="}}, bytes);
    exchange("GET");
    exchange("PUT");

    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].body, json);
    // On the wire: the fields given, and only what HTTP needs besides (no
    // Accept, Expect, cache fields or form Content-Type of libcurl's own).
    using Names = std::set<std::string>;
    EXPECT_EQ(seen[0].headerNames(), (Names{"Host", "Content-Type", "Content-Length"}));
    EXPECT_EQ(seen[1].headerNames(), (Names{"Host", "Content-MD5", "Content-Length"}));
    EXPECT_TRUE(seen[1].body == std::string(bytes->begin(), bytes->end()));
    EXPECT_EQ(seen[2].headerNames(), (Names{"Host"}));
    EXPECT_EQ(seen[2].body, "");
    EXPECT_EQ(seen[3].method, "PUT");
    EXPECT_EQ(seen[3].headerValues("Content-Length"), std::vector<std::string>{"0"});
    // One connection carried them all.
    EXPECT_EQ(seen[0].remotePort, seen[3].remotePort);
}

// Answers of "/<bytes>", with a length, or of "/<bytes>/chunked" without.
TEST(Session, BodiesOverTheLimitAreRefused) {
    World world;
    TlsTestServer server({world.a.chain(), [](const RecordedRequest& request) {
                              TestResponse response;
                              const std::size_t bytes = std::stoul(request.path.substr(1));
                              if (request.path.ends_with("/chunked"))
                                  response.chunkedBytes = bytes;
                              else
                                  response.body.assign(bytes, 'x');
                              return response;
                          }});
    // The default limit is proven by the sweep, through the API client.
    const std::string overLimit = "The response body is larger than 100000 bytes";
    const std::pair<std::string, std::string> cases[] = {
        {"/100000", ""}, {"/100001", overLimit}, {"/100000/chunked", ""}, {"/300000/chunked", overLimit}};
    HttpSessionConfiguration configuration = world.configuration();
    configuration.maxBodySize = 100'000;
    auto session = HttpSession::make(configuration);
    for (const auto& [path, refusal] : cases) {
        SCOPED_TRACE(path);
        const Outcome outcome = perform(session, get(server.url(path)));
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
    World world;
    TlsTestServer stalled({world.a.chain(), [](const RecordedRequest&) {
                               std::this_thread::sleep_for(std::chrono::seconds(1));
                               return TestResponse{};
                           }});
    HttpRequest impatient = get(stalled.url("/checkin"));
    impatient.idleTimeout = std::chrono::milliseconds(300);
    // A port held by a socket that never listens: connecting is refused, and
    // no other server on the machine can take the port meanwhile.
    const struct Held { int fd; ~Held() { ::close(fd); } } holder{::socket(AF_INET, SOCK_STREAM, 0)};
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(holder.fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    ::getsockname(holder.fd, reinterpret_cast<sockaddr*>(&address), &length);
    const int closedPort = ntohs(address.sin_port);
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedPort) + "/";
    const std::tuple<HttpRequest, HttpError::Kind, std::string> cases[] = {
        {impatient, HttpError::Kind::timedOut, "The request timed out: no data for 300 ms"},
        {get("not a url"), HttpError::Kind::invalidRequest, "Invalid URL: not a url"},
        {get("ftp://127.0.0.1/file"), HttpError::Kind::invalidRequest, "Unsupported URL scheme: ftp"},
        {get(refused), HttpError::Kind::transport, "Failed to connect to 127.0.0.1 port " + std::to_string(closedPort)}};
    HttpSessionConfiguration configuration = world.configuration();
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
}

}  // namespace
}  // namespace palomir::testing
