#include "pki.hpp"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <stdexcept>

namespace palomir::sandbox {

namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("sandbox certificates: " + what); }

std::shared_ptr<EVP_PKEY> makeKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    if (!key) fail("key generation failed");
    return {key, EVP_PKEY_free};
}

std::string fromBio(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<std::size_t>(length));
    BIO_free(bio);
    return text;
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) fail("cannot write " + path.string());
}

void addExtension(X509* certificate, X509V3_CTX* context, int nid, const std::string& value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str());
    if (!extension) fail("bad extension " + value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

// `issuer` null: self-signed with the new key. A CA carries no names.
Certificate make(const LeafOptions& blueprint, bool isCa, const Certificate* issuer) {
    auto key = makeKey();
    std::shared_ptr<X509> certificate(X509_new(), X509_free);
    X509* x = certificate.get();
    X509_set_version(x, 2);

    std::uint64_t serial = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), serial >> 1);  // positive, never zero in practice

    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), 30 * 24 * 3600);

    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("Palomir Sandbox"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(blueprint.commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(x, issuer ? X509_get_subject_name(issuer->x509()) : name);
    X509_set_pubkey(x, key.get());

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer ? issuer->x509() : x, x, nullptr, nullptr, 0);
    addExtension(x, &context, NID_basic_constraints, isCa ? "critical,CA:TRUE" : "critical,CA:FALSE");
    addExtension(x, &context, NID_key_usage,
                 isCa ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyEncipherment");
    addExtension(x, &context, NID_subject_key_identifier, "hash");
    addExtension(x, &context, NID_authority_key_identifier, "keyid:always");
    if (!isCa) {
        addExtension(x, &context, NID_ext_key_usage, "serverAuth");
        std::string names;
        for (const auto& dns : blueprint.dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
        for (const auto& ip : blueprint.ipAddresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
        if (!names.empty()) addExtension(x, &context, NID_subject_alt_name, names);
    }

    if (X509_sign(x, issuer ? issuer->key() : key.get(), EVP_sha256()) == 0) fail("signing failed");
    return Certificate(std::move(certificate), std::move(key));
}

}  // namespace

Certificate::Certificate(std::shared_ptr<X509> certificate, std::shared_ptr<EVP_PKEY> key)
    : _certificate(std::move(certificate)), _key(std::move(key)) {}

std::string Certificate::pem() const {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, _certificate.get());
    return fromBio(bio);
}

std::vector<std::uint8_t> Certificate::der() const {
    unsigned char* data = nullptr;
    const int length = i2d_X509(_certificate.get(), &data);
    if (length <= 0) fail("cannot encode a certificate");
    std::vector<std::uint8_t> bytes(data, data + length);
    OPENSSL_free(data);
    return bytes;
}

void Certificate::writePem(const std::filesystem::path& path) const { writeFile(path, pem()); }

void Certificate::writeDer(const std::filesystem::path& path) const {
    const auto bytes = der();
    writeFile(path, std::string(bytes.begin(), bytes.end()));
}

void Certificate::writeKeyPem(const std::filesystem::path& path) const {
    if (!_key) fail("the certificate has no private key");
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, _key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    writeFile(path, fromBio(bio));
}

void writePem(const std::filesystem::path& path, const CertificateChain& certificates) {
    std::string text;
    for (const auto& certificate : certificates) text += certificate.pem();
    writeFile(path, text);
}

Certificate CertificateFactory::makeRoot(const std::string& commonName) {
    return make(LeafOptions{commonName, {}, {}}, true, nullptr);
}

Certificate CertificateFactory::makeIntermediate(const Certificate& issuer, const std::string& commonName) {
    return make(LeafOptions{commonName, {}, {}}, true, &issuer);
}

Certificate CertificateFactory::makeLeaf(const Certificate& issuer, const LeafOptions& options) {
    return make(options, false, &issuer);
}

Pki Pki::make(const std::string& name) {
    Certificate root = CertificateFactory::makeRoot(name + " Root CA");
    Certificate intermediate = CertificateFactory::makeIntermediate(root, name + " Intermediate CA");
    Certificate leaf = CertificateFactory::makeLeaf(intermediate);
    return Pki{std::move(root), std::move(intermediate), std::move(leaf)};
}

}  // namespace palomir::sandbox
