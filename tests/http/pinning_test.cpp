#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>

#include <functional>
#include <map>

#include "http_test_support.hpp"
#include "platform/pinning.hpp"

namespace palomir::testing {
namespace {

using palomir_test::CertificateChain;
using palomir_test::CertificateFactory;
using palomir_test::TestPki;
using palomir_test::TlsTestServer;

// Trusted: the roots of A and B. Not trusted: U.
struct World {
    TestPki a = TestPki::make("A");
    TestPki b = TestPki::make("B");
    TestPki u = TestPki::make("U");
    palomir_test::TempDir dir;
    std::filesystem::path anchors = dir / "anchors.pem";

    World() { palomir_test::writePem(anchors, {a.root, b.root}); }

    /// A session trusting both roots with `certificate`'s key pinned for "localhost".
    std::shared_ptr<HttpSession> sessionPinning(const std::vector<std::uint8_t>& certificate) const {
        HttpSessionConfiguration configuration;
        configuration.trustAnchors = {anchors};
        configuration.pins = std::make_shared<const PinSet>(
            std::map<std::string, std::vector<std::uint8_t>>{{"localhost", certificate}});
        return HttpSession::make(configuration);
    }
};

using Pins = std::map<std::string, std::vector<std::uint8_t>>;

struct PinCase {
    std::string name;
    std::function<CertificateChain(const World&)> chain;
    std::function<Pins(const World&)> pins;
    std::string host = "localhost";
    /// Empty: the exchange succeeds.
    std::string refusal = "";
    std::function<std::vector<std::filesystem::path>(const World&)> anchors = [](const World& w) {
        return std::vector<std::filesystem::path>{w.anchors};
    };
};

std::ostream& operator<<(std::ostream& out, const PinCase& c) { return out << c.name; }

const std::string noPin = "Certificate pinning refused localhost: no key is pinned for this host";
const std::string noKeyInChain =
    "Certificate pinning refused localhost: no certificate of the verified chain carries the pinned key";

class PinningTest : public ::testing::TestWithParam<PinCase> {};

TEST_P(PinningTest, AcceptsOnlyAVerifiedChainHoldingThePinnedKey) {
    const PinCase& c = GetParam();
    World world;
    TlsTestServer server({c.chain(world), {}, true});

    HttpSessionConfiguration configuration;
    configuration.trustAnchors = c.anchors(world);
    configuration.pins = std::make_shared<const PinSet>(c.pins(world));
    auto session = HttpSession::make(configuration);

    const Outcome outcome = perform(session, get(server.url("/probe", c.host)));
    if (c.refusal.empty()) {
        ASSERT_TRUE(outcome.response) << outcome.errorText();
        EXPECT_EQ(outcome.response->status, 200);
        EXPECT_EQ(outcome.body(), "ok");
        ASSERT_EQ(server.requests().size(), 1u);
        EXPECT_EQ(server.requests()[0].path, "/probe");
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
        PinCase{"LeafPinned", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.a.leaf.der()}}; }},
        PinCase{"IntermediatePinnedLeafDiffers", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.a.intermediate.der()}}; }},
        PinCase{"RootPinnedNotSentByServer", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.a.root.der()}}; }},
        PinCase{"IpLiteralWithoutSni", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"127.0.0.1", w.a.intermediate.der()}}; }, "127.0.0.1"},
        PinCase{"WrongKey", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.b.leaf.der()}}; }, "localhost", noKeyInChain},
        PinCase{"NoPinForHost", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"api.example", w.a.leaf.der()}}; }, "localhost", noPin},
        PinCase{"HostInAnotherCase", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.a.leaf.der()}}; }, "LOCALHOST",
                "Certificate pinning refused LOCALHOST: no key is pinned for this host"},
        PinCase{"EmptyPinSet", [](const World& w) { return w.a.chain(); }, [](const World&) { return Pins{}; },
                "localhost", noPin},
        PinCase{"UnreadablePinnedCertificate", [](const World& w) { return w.a.chain(); },
                [](const World&) { return Pins{{"localhost", {0x30, 0x82, 0x01, 0x00, 0xde, 0xad}}}; }, "localhost",
                noPin},
        PinCase{"UntrustedChainHoldingThePinnedKey", [](const World& w) { return w.u.chain(); },
                [](const World& w) { return Pins{{"localhost", w.u.leaf.der()}}; }, "localhost",
                "SSL certificate problem: unable to get local issuer certificate"},
        PinCase{"PinnedCertificateAppendedToAnotherCasValidChain",
                [](const World& w) { return CertificateChain{w.b.leaf, w.b.intermediate, w.a.intermediate}; },
                [](const World& w) { return Pins{{"localhost", w.a.intermediate.der()}}; }, "localhost",
                noKeyInChain},
        PinCase{"RightKeyWrongHostName",
                [](const World& w) {
                    palomir_test::LeafOptions other;
                    other.commonName = "other.example";
                    other.dnsNames = {"other.example"};
                    other.ipAddresses = {};
                    return CertificateChain{CertificateFactory::makeLeaf(w.a.intermediate, other), w.a.intermediate};
                },
                [](const World& w) { return Pins{{"localhost", w.a.intermediate.der()}}; }, "localhost",
                "SSL certificate problem: hostname mismatch"},
        PinCase{"ExpiredLeaf",
                [](const World& w) {
                    palomir_test::LeafOptions expired;
                    expired.expired = true;
                    return CertificateChain{CertificateFactory::makeLeaf(w.a.intermediate, expired), w.a.intermediate};
                },
                [](const World& w) { return Pins{{"localhost", w.a.intermediate.der()}}; }, "localhost",
                "SSL certificate problem: certificate has expired"},
        // A pinned intermediate in the trust store is no trust anchor on its own.
        PinCase{"TrustedIntermediateWithoutItsRoot", [](const World& w) { return w.a.chain(); },
                [](const World& w) { return Pins{{"localhost", w.a.intermediate.der()}}; }, "localhost",
                "SSL certificate problem: unable to get issuer certificate",
                [](const World& w) {
                    w.a.intermediate.writePem(w.dir / "intermediate.pem");
                    return std::vector<std::filesystem::path>{w.dir / "intermediate.pem"};
                }}),
    [](const auto& info) { return info.param.name; });

// Trusted, but not pinned: only a fresh verification of the later
// connection can tell. The server either closes every connection after one
// request, or restarts, dropping whatever TLS state it had.
class RogueChainLater : public ::testing::TestWithParam<bool> {};

TEST_P(RogueChainLater, IsRefusedOnTheNextConnection) {
    const bool restart = GetParam();
    World world;
    TlsTestServer server({world.a.chain(), {}, restart});
    auto session = world.sessionPinning(world.a.intermediate.der());

    const Outcome first = perform(session, get(server.url("/first")));
    ASSERT_TRUE(first.response) << first.errorText();
    server.setChain(world.b.chain());
    if (restart) server.restart();
    const Outcome second = perform(session, get(server.url("/second")));
    ASSERT_TRUE(second.error) << "the rogue chain was accepted";
    EXPECT_EQ(second.error->message, noKeyInChain);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].path, "/first");
}

INSTANTIATE_TEST_SUITE_P(Server, RogueChainLater, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Restarted" : "ClosingConnections"; });

TEST(PinningSession, EachRequestIsCheckedAgainstItsOwnHost) {
    World world;
    TlsTestServer server({world.a.chain(), {}, true});
    auto session = world.sessionPinning(world.a.leaf.der());

    ASSERT_TRUE(perform(session, get(server.url("/named"))).response);
    // The same server and certificate, reached by an address that has no pin.
    const Outcome byAddress = perform(session, get(server.url("/address", "127.0.0.1")));
    ASSERT_TRUE(byAddress.error) << "a host without a pin was accepted";
    EXPECT_EQ(byAddress.error->message, "Certificate pinning refused 127.0.0.1: no key is pinned for this host");
    ASSERT_TRUE(perform(session, get(server.url("/named-again"))).response);

    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].path, "/named");
    EXPECT_EQ(seen[1].path, "/named-again");
}

TEST(PinningSession, ResumesTlsSessionsOnlyWithoutPins) {
    World world;
    TlsTestServer server({world.a.chain(), {}, false});
    HttpSessionConfiguration configuration;
    configuration.trustAnchors = {world.anchors};
    auto unpinned = HttpSession::make(configuration);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(perform(unpinned, get(server.url("/"))).response);
    // The server does resume sessions...
    const std::size_t resumedBefore = server.resumedHandshakes();
    EXPECT_GE(resumedBefore, 1u);

    configuration.pins = std::make_shared<const PinSet>(Pins{{"localhost", world.a.intermediate.der()}});
    auto pinned = HttpSession::make(configuration);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(perform(pinned, get(server.url("/"))).response);
    // ...but a pinned session never offers one.
    EXPECT_EQ(server.completedHandshakes(), 6u);
    EXPECT_EQ(server.resumedHandshakes(), resumedBefore);
}

TEST(UnpinnedSession, VerifiesTheChainAndTheName) {
    World world;
    TlsTestServer trusted({world.a.chain(), {}, true});
    TlsTestServer untrusted({world.u.chain(), {}, true});
    HttpSessionConfiguration configuration;
    configuration.trustAnchors = {world.anchors};
    auto session = HttpSession::make(configuration);

    const Outcome good = perform(session, get(trusted.url("/")));
    ASSERT_TRUE(good.response) << good.errorText();
    EXPECT_EQ(good.response->status, 200);

    const Outcome bad = perform(session, get(untrusted.url("/")));
    ASSERT_TRUE(bad.error);
    EXPECT_EQ(bad.error->kind, HttpError::Kind::refusedTls);
    EXPECT_EQ(bad.error->message, "SSL certificate problem: unable to get local issuer certificate");
    EXPECT_TRUE(untrusted.requests().empty());
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
    EXPECT_EQ(refused.error->message, "SSL certificate problem: unable to get local issuer certificate");
    ASSERT_TRUE(found.response) << found.errorText();
    EXPECT_EQ(found.response->status, 200);
}

}  // namespace
}  // namespace palomir::testing
