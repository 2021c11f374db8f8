#pragma once

// Test-time TLS material and servers: certificates made with OpenSSL while
// the test runs, an HTTPS server on loopback that records what it receives
// and can change its certificate chain at run time, and a raw TCP server
// that misbehaves on purpose.

#include <openssl/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace palomir_test {

/// A fresh directory under the system's temporary directory, removed with
/// everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return _path; }
    std::filesystem::path operator/(const std::string& name) const { return _path / name; }

private:
    std::filesystem::path _path;
};

/// A certificate with its private key (the key may be absent for a
/// certificate read from elsewhere).
class Certificate {
public:
    Certificate(std::shared_ptr<X509> certificate, std::shared_ptr<EVP_PKEY> key);

    X509* x509() const { return _certificate.get(); }
    EVP_PKEY* key() const { return _key.get(); }

    std::string pem() const;
    std::vector<std::uint8_t> der() const;

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

struct LeafOptions {
    std::string commonName = "localhost";
    std::vector<std::string> dnsNames = {"localhost"};
    std::vector<std::string> ipAddresses = {"127.0.0.1"};
    /// Valid from two days ago until yesterday.
    bool expired = false;
};

/// Makes certificates with P-256 keys (fast to generate), SHA-256 signatures
/// and the extensions a strict verifier expects.
struct CertificateFactory {
    static Certificate makeRoot(const std::string& commonName);
    static Certificate makeIntermediate(const Certificate& issuer, const std::string& commonName);
    static Certificate makeLeaf(const Certificate& issuer, const LeafOptions& options = {});
    static Certificate makeSelfSignedLeaf(const LeafOptions& options = {});
};

/// A root, an intermediate under it and a leaf for localhost/127.0.0.1
/// under that: what a server normally presents is `chain()`.
struct TestPki {
    Certificate root;
    Certificate intermediate;
    Certificate leaf;

    static TestPki make(const std::string& name);
    /// Leaf and intermediate: the root is not sent.
    CertificateChain chain() const { return {leaf, intermediate}; }
};

using Headers = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
    std::string method;
    std::string path;  // with the query, as requested
    Headers headers;
    std::string body;
    /// The client's port: requests with the same one shared a connection.
    int remotePort = 0;

    /// All values of a field (any letter case) as received, in order.
    std::vector<std::string> headerValues(const std::string& name) const;
    /// The fields' names as received.
    std::set<std::string> headerNames() const {
        std::set<std::string> names;
        for (const auto& header : headers) names.insert(header.first);
        return names;
    }
};

struct TestResponse {
    int status = 200;
    Headers headers;
    std::string body;
    std::string contentType = "text/plain";
    /// Sends this many bytes ('x') in chunks, with no Content-Length.
    std::optional<std::size_t> chunkedBytes;
};

/// HTTPS on loopback with a port of the system's choosing. Every request is
/// recorded before the handler answers it (by default 200 "ok").
class TlsTestServer {
public:
    using Handler = std::function<TestResponse(const RecordedRequest&)>;

    struct Options {
        /// Leaf first; the leaf must carry its private key.
        CertificateChain chain;
        Handler handler;
        /// False: the server closes every connection after one request.
        bool keepAlive = true;
        /// The loopback address to listen on ("::1" for IPv6); binding fails
        /// with an exception where the machine lacks it.
        std::string address = "127.0.0.1";
    };

    explicit TlsTestServer(Options options);
    ~TlsTestServer();
    TlsTestServer(const TlsTestServer&) = delete;
    TlsTestServer& operator=(const TlsTestServer&) = delete;

    int port() const { return _port; }
    /// "https://<host>:<port><path>".
    std::string url(const std::string& path = "/", const std::string& host = "localhost") const;

    /// Handshakes from now on present `chain`; open connections keep theirs.
    void setChain(CertificateChain chain);

    std::vector<RecordedRequest> requests() const;
    /// TLS handshakes that the server completed.
    std::size_t completedHandshakes() const;
    /// Of those, the ones that resumed an earlier TLS session.
    std::size_t resumedHandshakes() const;

    struct State;

private:
    void start();
    void stop();

    std::shared_ptr<State> _state;
    int _port = 0;
};

/// A plain TCP server on 127.0.0.1 that reads a request's head and then
/// answers badly: not at all, or slowly, byte by byte.
class FaultServer {
public:
    struct Behaviour {
        /// Raw bytes sent after the request head arrived; empty: never answer.
        std::string response;
        /// Pause before each byte; zero sends the response at once.
        std::chrono::milliseconds dripInterval{0};
        /// Keep the connection open after the response until the server stops.
        bool holdOpen = true;
        /// How many bytes at the start of the response go out at once, before
        /// the dripping starts (a complete head, say).
        std::size_t sendAtOnce = 0;
    };

    explicit FaultServer(Behaviour behaviour);
    ~FaultServer();
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    int port() const { return _port; }
    /// "http://127.0.0.1:<port><path>".
    std::string url(const std::string& path = "/") const;
    std::size_t connections() const { return _connections.load(); }

private:
    void acceptLoop();
    void serve(int socket);

    Behaviour _behaviour;
    int _listener = -1;
    int _port = 0;
    std::atomic<bool> _stopping{false};
    std::atomic<std::size_t> _connections{0};
    std::thread _acceptor;
    std::mutex _mutex;
    std::vector<std::thread> _workers;
};

}  // namespace palomir_test
