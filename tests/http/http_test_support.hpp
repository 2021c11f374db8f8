#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "palomir_test/temp_dir.hpp"
#include "palomir_test/tls.hpp"
#include "platform/http_session.hpp"

namespace palomir::testing {

struct Outcome {
    std::optional<HttpResponse> response;
    std::optional<HttpError> error;
    double seconds = 0;

    std::string body() const { return response ? std::string(response->body.begin(), response->body.end()) : ""; }
    std::string errorText() const { return error ? error->message : "(no error)"; }
};

/// An HTTPS server on loopback, keeping connections alive, with a session
/// configuration that trusts its root.
struct TrustedServer {
    TrustedServer(const std::string& name, palomir_test::TlsTestServer::Handler handler)
        : pki(palomir_test::TestPki::make(name)), server({pki.chain(), std::move(handler), true}) {
        pki.root.writePem(dir / "root.pem");
        configuration.trustAnchors = {dir / "root.pem"};
    }
    palomir_test::TestPki pki;
    palomir_test::TempDir dir;
    palomir_test::TlsTestServer server;
    HttpSessionConfiguration configuration;
};

/// Runs one task and waits for its completion (at most 30 s).
inline Outcome perform(const std::shared_ptr<HttpSession>& session, HttpRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    const auto start = std::chrono::steady_clock::now();
    // Every completion runs on the session's thread with exactly one of the two.
    HttpCompletion completion = [promise, start, weak = std::weak_ptr<HttpSession>(session)](
                                    std::optional<HttpResponse> response, std::optional<HttpError> error) {
        const auto alive = weak.lock();
        EXPECT_TRUE(!alive || alive->isCurrent());
        EXPECT_NE(response.has_value(), error.has_value());
        Outcome outcome;
        outcome.response = std::move(response);
        outcome.error = std::move(error);
        outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        promise->set_value(std::move(outcome));
    };
    session->dataTask(std::move(request), std::move(completion));
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        ADD_FAILURE() << "no completion within 30 s";
        return {};
    }
    return future.get();
}

inline HttpRequest get(std::string url) {
    HttpRequest request;
    request.url = std::move(url);
    return request;
}

}  // namespace palomir::testing
