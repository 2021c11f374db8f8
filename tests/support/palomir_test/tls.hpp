#pragma once

// Test-time TLS servers: an HTTPS server on loopback that records what it
// receives and can change its certificate chain at run time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "pki.hpp"

namespace palomir_test {

// The sandbox's certificate authority serves the tests too.
using palomir::sandbox::CertificateChain;
using palomir::sandbox::CertificateFactory;
using palomir::sandbox::LeafOptions;
using palomir::sandbox::Pki;
using palomir::sandbox::writePem;

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
    std::shared_ptr<State> _state;
    int _port = 0;
};

}  // namespace palomir_test
