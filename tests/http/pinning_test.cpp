#include <gtest/gtest.h>
#include <openssl/evp.h>
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

using Pins = std::map<std::string, std::vector<std::uint8_t>>;

// Trusted: the roots of A and B. Not trusted: U.
struct World {
    TestPki a = TestPki::make("A");
    TestPki b = TestPki::make("B");
    TestPki u = TestPki::make("U");
    palomir_test::TempDir dir;
    std::filesystem::path anchors = dir / "anchors.pem";

    World() { palomir_test::writePem(anchors, {a.root, b.root}); }

    /// Without pins: an unpinned session.
    std::shared_ptr<HttpSession> session(const std::optional<Pins>& pins, std::filesystem::path trusted = {}) const {
        HttpSessionConfiguration configuration;
        configuration.trustAnchors = {trusted.empty() ? anchors : trusted};
        if (pins) configuration.pins = std::make_shared<const PinSet>(*pins);
        return HttpSession::make(configuration);
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
        const TestPki& pki = which[0] == 'a' ? a : which[0] == 'b' ? b : u;
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

    const Outcome outcome = perform(world.session(pins, trusted), get(server.url("/probe", c.host)));
    if (c.refusal.empty()) {
        EXPECT_EQ(outcome.body(), "ok") << outcome.errorText();
        EXPECT_EQ(server.requests().size(), 1u);
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
    auto unpinned = world.session(std::nullopt);
    auto pinned = world.session(Pins{{"localhost", world.a.intermediate.der()}});
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
    ASSERT_TRUE(found.response) << found.errorText();
    EXPECT_EQ(found.response->status, 200);
}

}  // namespace
}  // namespace palomir::testing
