#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace palomir::sandbox {

/// Compares secrets without telling by its time how much of a guess matched.
bool constantTimeEquals(std::string_view a, std::string_view b);

/// The key="value" pairs of an "OAuth ..." Authorization value, decoded;
/// nothing when it is not of that form.
std::optional<std::map<std::string, std::string>> parseOAuthHeader(std::string_view header);

struct SignatureVerdict {
    /// "ok", "missing", "malformed", "unknown-key", "unsupported-method",
    /// "stale", "user-token", "invalid" (and "replay", which the server adds).
    std::string verdict;
    /// The text of the 401 answer; empty when the verdict is "ok".
    std::string error;
    /// When "ok", which base URL the signature was made over:
    /// "path-without-slash" (the Palomir client's form, tried first) or
    /// "path-as-sent" (RFC 5849, as general OAuth 1.0 tools sign).
    std::string form = {};
    /// The oauth_nonce and oauth_timestamp of a well-formed header.
    std::string nonce = {};
    std::int64_t timestamp = 0;

    bool ok() const { return verdict == "ok"; }
};

/// Recomputes the signature of a request as the client made it: `url` is
/// the full URL the client addressed (scheme, host and port as it wrote them,
/// path and query as sent).
SignatureVerdict verifySignature(std::string_view method, std::string_view url,
                                 const std::optional<std::string>& authorization, std::string_view appToken,
                                 std::string_view appSecret, std::chrono::system_clock::time_point now,
                                 std::chrono::seconds tolerance);

}  // namespace palomir::sandbox
