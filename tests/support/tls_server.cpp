#include <httplib.h>
#include <openssl/ssl.h>

#include <strings.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "palomir_test/tls.hpp"

namespace palomir_test {

std::vector<std::string> RecordedRequest::headerValues(const std::string& name) const {
    std::vector<std::string> values;
    for (const auto& [field, value] : headers)
        if (strcasecmp(field.c_str(), name.c_str()) == 0) values.push_back(value);
    return values;
}

struct TlsTestServer::State {
    std::mutex mutex;
    Options options;  // the chain may change under the mutex
    std::vector<RecordedRequest> requests;
    std::atomic<std::size_t> handshakes{0};
    std::atomic<std::size_t> resumed{0};

    std::unique_ptr<httplib::SSLServer> server;
    std::thread thread;
};

namespace {

using State = TlsTestServer::State;

// Chosen per handshake, so that a new chain applies to the next connection.
int presentChain(SSL* ssl, void* argument) {
    auto* state = static_cast<State*>(argument);
    CertificateChain chain;
    {
        std::lock_guard lock(state->mutex);
        chain = state->options.chain;
    }
    if (chain.empty() || !chain.front().key()) return 0;
    if (SSL_use_certificate(ssl, chain.front().x509()) != 1) return 0;
    if (SSL_use_PrivateKey(ssl, chain.front().key()) != 1) return 0;
    SSL_clear_chain_certs(ssl);
    for (std::size_t i = 1; i < chain.size(); ++i)
        if (SSL_add1_chain_cert(ssl, chain[i].x509()) != 1) return 0;
    return 1;
}

void countHandshakes(const SSL* ssl, int where, int) {
    if (!(where & SSL_CB_HANDSHAKE_DONE)) return;
    auto* state = static_cast<State*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    ++state->handshakes;
    if (SSL_session_reused(const_cast<SSL*>(ssl))) ++state->resumed;
}

}  // namespace

TlsTestServer::TlsTestServer(Options options) : _state(std::make_shared<State>()) {
    State* state = _state.get();
    state->options = std::move(options);
    state->server = std::make_unique<httplib::SSLServer>([state](SSL_CTX& context) {
        SSL_CTX_set_app_data(&context, state);
        SSL_CTX_set_cert_cb(&context, presentChain, state);
        SSL_CTX_set_info_callback(&context, countHandshakes);
        SSL_CTX_set_session_id_context(&context, reinterpret_cast<const unsigned char*>("palomir-test"), 12);
        return true;
    });
    auto route = [state](const httplib::Request& request, httplib::Response& response) {
        RecordedRequest recorded;
        recorded.method = request.method;
        recorded.path = request.target.empty() ? request.path : request.target;
        for (const auto& [name, value] : request.headers)
            // The server's own notes (REMOTE_ADDR, LOCAL_PORT, ...) are no request header.
            if (!name.starts_with("REMOTE_") && !name.starts_with("LOCAL_")) recorded.headers.emplace_back(name, value);
        recorded.body = request.body;
        recorded.remotePort = request.remote_port;
        Handler handler;
        {
            std::lock_guard lock(state->mutex);
            state->requests.push_back(recorded);
            handler = state->options.handler;
        }
        TestResponse answer;
        answer.body = "ok";
        if (handler) answer = handler(recorded);
        response.status = answer.status;
        for (const auto& [name, value] : answer.headers) response.set_header(name, value);
        if (answer.chunkedBytes) {
            const std::size_t total = *answer.chunkedBytes;
            response.set_chunked_content_provider(answer.contentType, [total](std::size_t offset, httplib::DataSink& sink) {
                if (offset >= total) {
                    sink.done();
                    return true;
                }
                const std::string chunk(std::min<std::size_t>(64 * 1024, total - offset), 'x');
                return sink.write(chunk.data(), chunk.size());
            });
        } else if (!answer.body.empty()) {
            response.set_content(answer.body, answer.contentType);
        }
    };
    const std::string everything = ".*";
    state->server->Get(everything, route);
    state->server->Post(everything, route);
    state->server->Put(everything, route);
    if (!state->options.keepAlive) state->server->set_keep_alive_max_count(1);
    // Idle connections would hold up the server's end for the default 5 s.
    state->server->set_keep_alive_timeout(1);
    if (!state->server->is_valid()) throw std::runtime_error("test server: TLS set-up failed");

    _port = state->server->bind_to_any_port(state->options.address);
    if (_port <= 0) throw std::runtime_error("test server: cannot bind to " + state->options.address);
    httplib::SSLServer* server = state->server.get();
    state->thread = std::thread([server] { server->listen_after_bind(); });
}

TlsTestServer::~TlsTestServer() {
    _state->server->stop();
    _state->thread.join();
}

std::string TlsTestServer::url(const std::string& path, const std::string& host) const {
    return "https://" + host + ":" + std::to_string(_port) + path;
}

void TlsTestServer::setChain(CertificateChain chain) {
    std::lock_guard lock(_state->mutex);
    _state->options.chain = std::move(chain);
}

std::vector<RecordedRequest> TlsTestServer::requests() const {
    std::lock_guard lock(_state->mutex);
    return _state->requests;
}

std::size_t TlsTestServer::completedHandshakes() const { return _state->handshakes.load(); }

std::size_t TlsTestServer::resumedHandshakes() const { return _state->resumed.load(); }

}  // namespace palomir_test
