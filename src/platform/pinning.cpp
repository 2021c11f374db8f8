#include "platform/pinning.hpp"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace palomir {

namespace {

// An IPv6 literal is written in brackets in a URL and bare in a certificate;
// pins are kept and looked up bare, however the host wrote them.
std::string withoutBrackets(const std::string& host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') return host.substr(1, host.size() - 2);
    return host;
}

}  // namespace

void PinSet::KeyDeleter::operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }

PinSet::PinSet() = default;
PinSet::~PinSet() = default;

PinSet::PinSet(const std::map<std::string, std::vector<std::uint8_t>>& pinnedCertificates) {
    for (const auto& [host, der] : pinnedCertificates) {
        const unsigned char* cursor = der.data();
        X509* certificate = d2i_X509(nullptr, &cursor, static_cast<long>(der.size()));
        if (!certificate) continue;
        // The key's reference is our own, so the certificate can go.
        EVP_PKEY* key = X509_get_pubkey(certificate);
        X509_free(certificate);
        if (!key) continue;
        _keys[withoutBrackets(host)].reset(key);
    }
}

bool PinSet::matchesVerifiedChain(const std::string& host, const void* verifiedChain) const {
    const auto pinned = _keys.find(host);
    if (pinned == _keys.end() || !verifiedChain) return false;
    const auto* chain = static_cast<const STACK_OF(X509)*>(verifiedChain);
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        const EVP_PKEY* key = X509_get0_pubkey(sk_X509_value(chain, i));
        if (key && EVP_PKEY_eq(key, pinned->second.get()) == 1) return true;
    }
    return false;
}

namespace {

int refuse(X509_STORE_CTX* storeContext, const std::shared_ptr<std::optional<std::string>>& refusal,
           std::string reason) {
    // Without an error the handshake would still abort, but the TLS layer
    // would report "ok" as the reason.
    X509_STORE_CTX_set_error(storeContext, X509_V_ERR_APPLICATION_VERIFICATION);
    *refusal = std::move(reason);
    return 0;
}

}  // namespace

int TlsVerification::verify(X509_STORE_CTX* storeContext) const {
    X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(storeContext);
    // A certificate in the trust store that is not self-signed (a pinned
    // intermediate, say) must not end a chain by itself.
    X509_VERIFY_PARAM_clear_flags(parameters, X509_V_FLAG_PARTIAL_CHAIN);
    const std::string bareHost = withoutBrackets(host);
    // The name is checked inside the handshake, not after it, so that a
    // mismatch never gets as far as sending a request.
    if (X509_VERIFY_PARAM_set1_ip_asc(parameters, bareHost.c_str()) != 1)
        X509_VERIFY_PARAM_set1_host(parameters, bareHost.c_str(), bareHost.size());

    if (X509_verify_cert(storeContext) != 1) {
        if (X509_STORE_CTX_get_error(storeContext) == X509_V_OK)
            X509_STORE_CTX_set_error(storeContext, X509_V_ERR_UNSPECIFIED);
        return 0;
    }
    if (!pins) return 1;
    // Strict by design: without a pin nothing is sent. The host most likely
    // has not shipped the certificate yet, so the text says what to supply.
    if (!pins->hasPin(bareHost))
        return refuse(storeContext, refusal,
                      "Certificate pinning refused " + bareHost + ": no key is pinned for this host (supply the "
                      "certificate whose key to pin as \"" + host + ".crt\" in Palomir's resource bundle or in "
                      "BackendOptions::resourceDirectory)");
    if (!pins->matchesVerifiedChain(bareHost, X509_STORE_CTX_get0_chain(storeContext)))
        return refuse(storeContext, refusal,
                      "Certificate pinning refused " + bareHost + ": no certificate of the verified chain carries the pinned key");
    return 1;
}

}  // namespace palomir
