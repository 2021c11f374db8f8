#include "signature.hpp"

#include <openssl/crypto.h>

#include <cctype>
#include <charconv>
#include <cstdint>

#include "api/oauth.hpp"
#include "palomir/url.hpp"
#include "platform/crypto.hpp"

namespace palomir::sandbox {

namespace {

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        int high = crypto::hexDigitValue(text[i + 1]);
        int low = crypto::hexDigitValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

void skipBlanks(std::string_view& text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

}  // namespace

bool constantTimeEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::map<std::string, std::string>> parseOAuthHeader(std::string_view header) {
    skipBlanks(header);
    if (header.size() < 6 || !equalsIgnoringCase(header.substr(0, 5), "OAuth") || header[5] != ' ') return std::nullopt;
    header.remove_prefix(6);
    std::map<std::string, std::string> pairs;
    while (true) {
        skipBlanks(header);
        auto equals = header.find('=');
        if (equals == std::string_view::npos || equals == 0) return std::nullopt;
        auto key = percentDecode(header.substr(0, equals));
        header.remove_prefix(equals + 1);
        if (header.empty() || header.front() != '"') return std::nullopt;
        header.remove_prefix(1);
        auto quote = header.find('"');
        if (quote == std::string_view::npos) return std::nullopt;
        auto value = percentDecode(header.substr(0, quote));
        header.remove_prefix(quote + 1);
        if (!key || !value || pairs.count(*key)) return std::nullopt;
        pairs.emplace(std::move(*key), std::move(*value));
        skipBlanks(header);
        if (header.empty()) break;
        if (header.front() != ',') return std::nullopt;
        header.remove_prefix(1);
    }
    return pairs;
}

SignatureVerdict verifySignature(std::string_view method, std::string_view url,
                                 const std::optional<std::string>& authorization, std::string_view appToken,
                                 std::string_view appSecret, std::chrono::system_clock::time_point now,
                                 std::chrono::seconds tolerance) {
    if (!authorization || authorization->empty()) return {"missing", "Missing OAuth Authorization header"};
    auto pairs = parseOAuthHeader(*authorization);
    auto malformed = SignatureVerdict{"malformed", "Malformed OAuth Authorization header"};
    if (!pairs) return malformed;
    for (const char* required :
         {"oauth_consumer_key", "oauth_nonce", "oauth_signature", "oauth_signature_method", "oauth_timestamp"})
        if (!pairs->count(required)) return malformed;
    if (auto version = pairs->find("oauth_version"); version != pairs->end() && version->second != "1.0")
        return malformed;

    if (!constantTimeEquals(pairs->at("oauth_consumer_key"), appToken))
        return {"unknown-key", "Unknown consumer key"};
    if (pairs->at("oauth_signature_method") != "HMAC-SHA1")
        return {"unsupported-method", "Unsupported signature method"};
    // This backend knows no user tokens, so it cannot check a signature made
    // with a token secret.
    if (pairs->count("oauth_token")) return {"user-token", "Unknown OAuth token"};

    const std::string& stamp = pairs->at("oauth_timestamp");
    std::int64_t timestamp = 0;
    auto [end, error] = std::from_chars(stamp.data(), stamp.data() + stamp.size(), timestamp);
    if (error != std::errc() || end != stamp.data() + stamp.size()) return malformed;
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    if (timestamp > seconds + tolerance.count() || timestamp < seconds - tolerance.count())
        return {"stale", "Stale timestamp"};

    auto parsed = Url::parse(url);
    if (!parsed) return {"invalid", "Invalid signature"};
    const OAuthCredentials consumer{std::string(appToken), std::string(appSecret)};
    const std::string& nonce = pairs->at("oauth_nonce");
    // Only the encoded base URL differs between the two forms: the Palomir
    // client drops a trailing slash from the path, RFC 5849 keeps the path as
    // sent. Restoring the slashes the client form dropped gives the other.
    std::string text = OAuth::signatureBaseText(*parsed, method, {}, consumer, std::nullopt, nonce, timestamp);
    std::string key = OAuth::signingKey(consumer, std::nullopt);
    const std::string& given = pairs->at("oauth_signature");
    auto matched = [&](const char* form) {
        return SignatureVerdict{"ok", "", form, nonce, timestamp};
    };
    if (constantTimeEquals(OAuth::sign(key, text), given)) return matched("path-without-slash");
    std::string_view path = parsed->path();
    std::string slashes;
    while (path.size() > 1 && path.back() == '/') {
        slashes += "%2F";
        path.remove_suffix(1);
    }
    if (!slashes.empty()) {
        auto baseEnd = text.find('&', text.find('&') + 1);
        text.insert(baseEnd, slashes);
        if (constantTimeEquals(OAuth::sign(key, text), given)) return matched("path-as-sent");
    }
    return {"invalid", "Invalid signature"};
}

}  // namespace palomir::sandbox
