#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// OpenSSL types, declared here so that users of a PinSet need not include
// OpenSSL's headers.
struct evp_pkey_st;
struct x509_store_ctx_st;

namespace palomir {

/// Public keys pinned per host. A TLS connection to a host is accepted only
/// when OpenSSL's own verification of the server's chain succeeds and some
/// certificate of the verified chain (leaf, intermediate or root) carries the
/// key pinned for exactly that host name (case-sensitive; an IPv6 literal with
/// or without its brackets). A host without a
/// pin, and every host of an empty set, is refused.
class PinSet {
public:
    /// Host name -> DER bytes of an X.509 certificate whose public key is
    /// pinned. Certificates that cannot be read are left out silently.
    explicit PinSet(const std::map<std::string, std::vector<std::uint8_t>>& pinnedCertificates);
    PinSet();
    ~PinSet();
    PinSet(const PinSet&) = delete;
    PinSet& operator=(const PinSet&) = delete;

    /// Number of hosts with a usable key.
    std::size_t size() const { return _keys.size(); }
    bool hasPin(const std::string& host) const { return _keys.count(host) != 0; }  // IPv6 without brackets

    /// Whether some certificate of a chain that OpenSSL has just verified
    /// carries the key pinned for `host`. `verifiedChain` is a
    /// STACK_OF(X509) as X509_STORE_CTX_get0_chain returns it.
    bool matchesVerifiedChain(const std::string& host, const void* verifiedChain) const;

private:
    struct KeyDeleter {
        void operator()(evp_pkey_st* key) const;
    };
    std::map<std::string, std::unique_ptr<evp_pkey_st, KeyDeleter>> _keys;
};

/// What the TLS layer checks for one connection: the host the request named
/// (never the SNI, which IP literals do not send) and the pins, if any.
/// A refusal is recorded in `refusal` so the transfer can report why.
struct TlsVerification {
    std::string host;
    std::shared_ptr<const PinSet> pins;  // null: ordinary verification only
    std::shared_ptr<std::optional<std::string>> refusal = std::make_shared<std::optional<std::string>>();

    /// The certificate verification step of a handshake: OpenSSL's chain
    /// verification (with the host name checked and partial chains not
    /// accepted), then the pin check over the verified chain. Returns 1 to
    /// proceed, 0 to abort the handshake (with an error set on `storeContext`).
    int verify(x509_store_ctx_st* storeContext) const;
};

}  // namespace palomir
