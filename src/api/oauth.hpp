#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "palomir/url.hpp"
#include "palomir/url_request.hpp"

namespace palomir {

/// A key and its secret: the consumer (app token and app secret) or the user
/// (token and token secret).
struct OAuthCredentials {
    std::string key;
    std::string secret;
    friend bool operator==(const OAuthCredentials&, const OAuthCredentials&) = default;
};

/// Request or form parameters, in the caller's order. Names are expected to be
/// unique; form bodies are written in this order.
using OAuthParameters = std::vector<std::pair<std::string, std::string>>;

/// OAuth 1.0 request signing with HMAC-SHA1.
class OAuth {
public:
    /// The complete "Authorization" header value, with a fresh nonce and the
    /// current time.
    static std::string calculateSignature(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                          const OAuthCredentials& consumer,
                                          const std::optional<OAuthCredentials>& user);

    /// As above with a given nonce and timestamp, so that signatures can be
    /// reproduced (tests, and a server checking a client's signature).
    static std::string calculateSignature(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                          const OAuthCredentials& consumer,
                                          const std::optional<OAuthCredentials>& user, std::string_view nonce,
                                          std::int64_t timestamp);

    /// The text that is signed: method, base URL and sorted parameters, each
    /// percent-encoded, joined with "&".
    static std::string signatureBaseText(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                         const OAuthCredentials& consumer,
                                         const std::optional<OAuthCredentials>& user, std::string_view nonce,
                                         std::int64_t timestamp);

    /// Encoded consumer secret + "&" + encoded user secret (or nothing).
    static std::string signingKey(const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user);

    /// Base64 of the HMAC-SHA1 of `text` under `key`.
    static std::string sign(std::string_view key, std::string_view text);

    /// key=value pairs, both percent-encoded, in the parameters' order, joined
    /// with "&" (UTF-8).
    static std::vector<std::uint8_t> httpBody(const OAuthParameters& formParameters);

    /// Percent-encodes every byte outside the RFC 3986 unreserved characters
    /// as "%" and two upper-case hexadecimal digits.
    static std::string rfc3986encode(std::string_view text);

    /// The URL's query items by name (a value-less item maps to ""); a later
    /// item overwrites an earlier one of the same name in place.
    static OAuthParameters queryParameters(const Url& url);

    /// Lower-case scheme and host, user information, the port unless it is
    /// the scheme's default (or the scheme is neither http nor https), and the
    /// decoded path without a trailing slash.
    static std::string oAuthBaseURL(const Url& url);
};

/// Sets the method and the body, and adds "Content-Length", "Content-Type"
/// and "Authorization". Content-Type is added even when one is already
/// present: a JSON request of the API client then carries it twice, which
/// the backend has always received and accepts. The body is not signed.
/// An unparseable URL or an empty method leaves the request unsigned.
void oAuthSign(URLRequest& request, std::string method, std::optional<std::vector<std::uint8_t>> body,
               std::optional<std::string> contentType, const OAuthCredentials& consumer,
               const std::optional<OAuthCredentials>& user);
/// Sets the method and a form-encoded body whose fields are signed too.
void oAuthSign(URLRequest& request, std::string method, const OAuthParameters& urlFormParameters,
               const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user);

}  // namespace palomir
