#pragma once

// Talks to a sandbox the way the API client does: OAuth-signed requests over
// TLS, trusting only the sandbox's own CA.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "api/oauth.hpp"
#include "sandbox.hpp"

namespace palomir::sandbox::testing {

struct Signing {
    std::string token = "sandbox-token";
    std::string secret = "sandbox-secret";
    /// Seconds added to the current time.
    std::int64_t clockOffset = 0;
    /// Send this Authorization value as it stands.
    std::optional<std::string> authorization = std::nullopt;
    /// A fresh one when absent.
    std::optional<std::string> nonce = std::nullopt;
    bool sign = true;
};

struct Reply {
    int status = 0;
    std::string body;
    httplib::Headers headers;
    std::chrono::milliseconds elapsed{0};

    std::string header(const std::string& name) const {
        auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

class SandboxClient {
public:
    explicit SandboxClient(const Sandbox& sandbox, std::string host = "localhost")
        : _port(sandbox.port()), _caFile(sandbox.caFile()), _host(std::move(host)), _adminToken(sandbox.adminToken()) {}

    /// `target` is the path and query under the server root ("/api/services/").
    Reply send(const std::string& method, const std::string& target, const std::string& body = {},
               const Signing& signing = {}, httplib::Headers headers = {}) const {
        httplib::SSLClient client(_host, _port);
        client.set_ca_cert_path(_caFile.c_str());
        client.enable_server_certificate_verification(true);
        client.set_decompress(false);

        std::string url = "https://" + _host + ":" + std::to_string(_port) + target;
        if (target.starts_with("/_sandbox/"))
            headers.emplace("X-Sandbox-Token", _adminToken);
        else if (signing.authorization)
            headers.emplace("Authorization", *signing.authorization);
        else if (signing.sign)
            headers.emplace("Authorization", authorization(url, method, signing));

        httplib::Request request;
        request.method = method;
        request.path = target;
        request.headers = std::move(headers);
        if (method != "GET") {
            request.body = body;
            if (!request.has_header("Content-Type"))
                request.headers.emplace("Content-Type", "application/json, application/json");
        }
        auto start = std::chrono::steady_clock::now();
        auto result = client.send(request);
        Reply reply;
        reply.elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        if (result) {
            reply.status = result->status;
            reply.body = result->body;
            reply.headers = result->headers;
        }
        return reply;
    }

    Reply checkin(const Signing& signing = {}) const {
        return send("PUT", "/api/checkin/sandbox-token", R"({"app_info": {"app_version": "1.0"}})", signing);
    }

private:
    static std::string authorization(const std::string& url, const std::string& method, const Signing& signing) {
        auto now = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
        return OAuth::calculateSignature(*Url::parse(url), method, {}, OAuthCredentials{signing.token, signing.secret},
                                         std::nullopt, signing.nonce.value_or("n" + std::to_string(++nonces)),
                                         now.count() + signing.clockOffset);
    }

    int _port;
    std::filesystem::path _caFile;
    std::string _host;
    std::string _adminToken;
    static inline std::atomic<int> nonces = 0;
};

}  // namespace palomir::sandbox::testing
