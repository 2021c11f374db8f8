#pragma once

// The sandbox's own certificate authority: a root, an intermediate and a
// localhost leaf made with OpenSSL at start, so that a client can pin the
// leaf and trust the root without any files shipped beside the sandbox.

#include <openssl/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace palomir::sandbox {

/// A certificate with its private key (the key may be absent for a
/// certificate read from elsewhere).
class Certificate {
public:
    Certificate(std::shared_ptr<X509> certificate, std::shared_ptr<EVP_PKEY> key);

    X509* x509() const { return _certificate.get(); }
    EVP_PKEY* key() const { return _key.get(); }

    std::string pem() const;
    std::vector<std::uint8_t> der() const;

    // These throw std::runtime_error when the file cannot be written.
    void writePem(const std::filesystem::path& path) const;
    void writeDer(const std::filesystem::path& path) const;
    void writeKeyPem(const std::filesystem::path& path) const;

private:
    std::shared_ptr<X509> _certificate;
    std::shared_ptr<EVP_PKEY> _key;
};

/// Certificates in order, leaf first.
using CertificateChain = std::vector<Certificate>;

void writePem(const std::filesystem::path& path, const CertificateChain& certificates);

/// The names a leaf is issued for.
struct LeafOptions {
    std::string commonName = "localhost";
    std::vector<std::string> dnsNames = {"localhost"};
    std::vector<std::string> ipAddresses = {"127.0.0.1"};
};

/// Makes certificates with P-256 keys (fast to generate), SHA-256 signatures
/// and the extensions a strict verifier expects, valid for thirty days.
struct CertificateFactory {
    static Certificate makeRoot(const std::string& commonName);
    static Certificate makeIntermediate(const Certificate& issuer, const std::string& commonName);
    static Certificate makeLeaf(const Certificate& issuer, const LeafOptions& options = {});
};

/// A root, an intermediate under it and a leaf for localhost/127.0.0.1
/// under that: what a server normally presents is `chain()`.
struct Pki {
    Certificate root;
    Certificate intermediate;
    Certificate leaf;

    static Pki make(const std::string& name);
    /// Leaf and intermediate: the root is not sent.
    CertificateChain chain() const { return {leaf, intermediate}; }
};

}  // namespace palomir::sandbox
