#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/pinning.hpp"

namespace palomir {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// Every value of `name` (compared without regard to case) joined with ", ";
/// nothing when the field is absent.
std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name);

struct HttpRequest {
    std::string url;
    std::string method = "GET";
    /// In the order added. A name that occurs more than once is sent as one
    /// field whose values are joined with ", ".
    HttpHeaders headers;
    /// Sent as is; shared so that large bodies are never copied.
    std::shared_ptr<const std::vector<std::uint8_t>> body;
    /// Seconds without progress after which the exchange is given up; the
    /// shorter of this and the session's limit applies.
    std::optional<std::chrono::milliseconds> idleTimeout;
};

struct HttpResponse {
    long status = 0;
    /// As received, in order, of the final response only.
    HttpHeaders headers;
    std::vector<std::uint8_t> body;

    std::optional<std::string> header(std::string_view name) const { return headerValue(headers, name); }
};

/// A failure below HTTP: no connection, a refused certificate, a time-out,
/// an oversized body. `message` is readable text for a person.
struct HttpError {
    enum class Kind {
        transport,   // connection, protocol or TLS failures libcurl reports
        refusedTls,  // the certificate chain was not accepted
        timedOut,
        tooLarge,
        invalidRequest,
    };
    Kind kind = Kind::transport;
    /// libcurl's code (CURLcode), 0 for failures found by the session itself.
    int code = 0;
    std::string message;
};

/// Exactly one of response and error is set.
using HttpCompletion = std::function<void(std::optional<HttpResponse>, std::optional<HttpError>)>;

struct HttpSessionConfiguration {
    /// Names the network thread (for logs and debuggers).
    std::string label = "palomir.http";
    /// Longest time without progress: connection set-up included, then
    /// without a body byte moving either way or a complete header line
    /// arriving.
    std::chrono::milliseconds idleTimeout{60'000};
    /// Longest time for a whole exchange; none: no limit beyond idleTimeout.
    std::optional<std::chrono::milliseconds> totalTimeout;
    /// PEM files of certificate authorities trusted beside the system's.
    std::vector<std::filesystem::path> trustAnchors;
    /// Whether the system's certificate authorities are trusted (the hashed
    /// directory OpenSSL names, or $SSL_CERT_DIR).
    bool trustSystemAnchors = true;
    /// Null: ordinary verification. Otherwise every connection must also
    /// pass the pin check, and TLS sessions are never resumed.
    std::shared_ptr<const PinSet> pins;
    /// A response body larger than this fails the exchange, without being
    /// held in memory.
    std::size_t maxBodySize = 10 * 1024 * 1024;
};

/// One connection pool and one network thread, on which every completion of
/// the session runs. Redirects are not followed (a 3xx is a plain status).
/// A task in flight keeps the session's machinery alive, so an exchange
/// finishes and completes even after its owner dropped the session. The
/// thread starts with the first task, sleeps while nothing is under way and
/// ends once the session is released and idle. Nothing is cached: every
/// request goes to the server, with the header fields it was given.
class HttpSession {
public:
    static std::shared_ptr<HttpSession> make(HttpSessionConfiguration configuration = {});
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    const HttpSessionConfiguration& configuration() const;

    /// Sends the request with its body, if any. The completion is called
    /// exactly once, on the session's thread, never inside this call.
    void dataTask(HttpRequest request, HttpCompletion completion);

    /// True on the session's network thread.
    bool isCurrent() const;

    struct Core;

private:
    explicit HttpSession(std::shared_ptr<Core> core);
    std::shared_ptr<Core> _core;
};

}  // namespace palomir
