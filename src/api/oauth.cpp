#include "api/oauth.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/params.h>

#include "palomir/uuid.hpp"

namespace palomir {
namespace {

// The unreserved set, as a table built at compile time: no run-time
// initialisation to race on.
constexpr std::array<bool, 256> makeUnreservedTable() {
    std::array<bool, 256> table{};
    constexpr std::string_view unreserved =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-._~";
    for (char c : unreserved) table[static_cast<unsigned char>(c)] = true;
    return table;
}
constexpr std::array<bool, 256> kUnreserved = makeUnreservedTable();
constexpr char kHex[] = "0123456789ABCDEF";

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

void appendLower(std::string& out, std::string_view text) {
    for (char c : text) out.push_back(asciiLower(c));
}

// A signature is computed on every request, and the API client may sign on
// several threads; each thread keeps one MAC context and re-keys it only when
// the key changes (in practice never: one app secret per process).
class MacContext {
public:
    MacContext() {
        _mac = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
        if (_mac) _ctx = EVP_MAC_CTX_new(_mac);
    }
    ~MacContext() {
        EVP_MAC_CTX_free(_ctx);
        EVP_MAC_free(_mac);
    }
    MacContext(const MacContext&) = delete;
    MacContext& operator=(const MacContext&) = delete;

    bool compute(std::string_view key, std::string_view message, unsigned char (&out)[20]) {
        if (!_ctx) return false;
        if (!_keyed || key != _key) {
            char digest[] = "SHA1";
            OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                   OSSL_PARAM_construct_end()};
            // A non-null pointer even for an empty key, which is a valid HMAC key.
            static const unsigned char empty = 0;
            const auto* keyBytes = key.empty() ? &empty : reinterpret_cast<const unsigned char*>(key.data());
            _keyed = EVP_MAC_init(_ctx, keyBytes, key.size(), params) == 1;
            if (!_keyed) return false;
            _key.assign(key);
        } else if (EVP_MAC_init(_ctx, nullptr, 0, nullptr) != 1) {
            _keyed = false;
            return false;
        }
        size_t length = 0;
        if (EVP_MAC_update(_ctx, reinterpret_cast<const unsigned char*>(message.data()), message.size()) != 1 ||
            EVP_MAC_final(_ctx, out, &length, sizeof out) != 1 || length != sizeof out) {
            _keyed = false;
            return false;
        }
        return true;
    }

private:
    EVP_MAC* _mac = nullptr;
    EVP_MAC_CTX* _ctx = nullptr;
    std::string _key;
    bool _keyed = false;
};

void hmacSha1(std::string_view key, std::string_view message, unsigned char (&out)[20]) {
    thread_local MacContext context;
    if (context.compute(key, message, out)) return;
    unsigned int length = sizeof out;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(message.data()),
         message.size(), out, &length);
}

// Encoded pairs live back to back in one buffer per thread, so that collecting
// and sorting them allocates nothing once the buffers have grown.
struct Entry {
    std::uint32_t keyOffset;
    std::uint32_t keyLength;
    std::uint32_t valueOffset;
    std::uint32_t valueLength;
};

struct Scratch {
    std::string arena;
    std::vector<Entry> entries;

    void clear() {
        arena.clear();
        entries.clear();
    }
    void add(std::string_view key, std::string_view value) {
        Entry entry{};
        entry.keyOffset = static_cast<std::uint32_t>(arena.size());
        OAuth::appendRfc3986encoded(arena, key);
        entry.keyLength = static_cast<std::uint32_t>(arena.size() - entry.keyOffset);
        entry.valueOffset = static_cast<std::uint32_t>(arena.size());
        OAuth::appendRfc3986encoded(arena, value);
        entry.valueLength = static_cast<std::uint32_t>(arena.size() - entry.valueOffset);
        entries.push_back(entry);
    }
    std::string_view key(const Entry& e) const { return {arena.data() + e.keyOffset, e.keyLength}; }
    std::string_view value(const Entry& e) const { return {arena.data() + e.valueOffset, e.valueLength}; }
};

struct Timestamp {
    char text[24];
    std::string_view view;
    explicit Timestamp(std::int64_t seconds) {
        auto result = std::to_chars(text, text + sizeof text, seconds);
        view = std::string_view(text, static_cast<size_t>(result.ptr - text));
    }
};

void appendBaseText(std::string& base, const Url& url, std::string_view method, const OAuthParameters& parameters,
                    const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                    std::string_view nonce, std::string_view timestamp) {
    thread_local Scratch scratch;
    scratch.clear();
    scratch.add("oauth_consumer_key", consumer.key);
    scratch.add("oauth_signature_method", "HMAC-SHA1");
    scratch.add("oauth_version", "1.0");
    scratch.add("oauth_timestamp", timestamp);
    scratch.add("oauth_nonce", nonce);
    if (user) scratch.add("oauth_token", user->key);
    for (const auto& [key, value] : parameters) scratch.add(key, value);
    for (const auto& [key, value] : OAuth::queryParameters(url)) scratch.add(key, value);

    // Equal keys keep their collection order (defaults, parameters, query).
    std::stable_sort(scratch.entries.begin(), scratch.entries.end(),
                     [&](const Entry& a, const Entry& b) { return scratch.key(a) < scratch.key(b); });

    OAuth::appendRfc3986encoded(base, method);
    base.push_back('&');
    OAuth::appendRfc3986encoded(base, OAuth::oAuthBaseURL(url));
    base.push_back('&');
    // Encoding the joined parameter text is the same as encoding its pieces
    // with the separators written as %3D and %26, which spares building it.
    bool first = true;
    for (const auto& entry : scratch.entries) {
        if (!first) base.append("%26");
        first = false;
        OAuth::appendRfc3986encoded(base, scratch.key(entry));
        base.append("%3D");
        OAuth::appendRfc3986encoded(base, scratch.value(entry));
    }
}

void appendSigningKey(std::string& out, const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    OAuth::appendRfc3986encoded(out, consumer.secret);
    out.push_back('&');
    if (user) OAuth::appendRfc3986encoded(out, user->secret);
}

void appendSignature(std::string& out, std::string_view key, std::string_view text) {
    unsigned char mac[20];
    hmacSha1(key, text, mac);
    unsigned char encoded[29];
    const int length = EVP_EncodeBlock(encoded, mac, sizeof mac);
    out.append(reinterpret_cast<const char*>(encoded), static_cast<size_t>(length));
}

void appendHeaderPair(std::string& header, std::string_view key, std::string_view value, bool comma = true) {
    if (comma) header.push_back(',');
    header.append(key);
    header.append("=\"");
    OAuth::appendRfc3986encoded(header, value);
    header.push_back('"');
}

}  // namespace

void OAuth::appendRfc3986encoded(std::string& out, std::string_view text) {
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (kUnreserved[byte]) {
            out.push_back(c);
        } else {
            const char escape[3] = {'%', kHex[byte >> 4], kHex[byte & 0x0F]};
            out.append(escape, 3);
        }
    }
}

std::string OAuth::rfc3986encode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    appendRfc3986encoded(out, text);
    return out;
}

OAuthParameters OAuth::queryParameters(const Url& url) {
    OAuthParameters result;
    if (!url.query()) return result;
    for (auto& item : url.queryItems()) {
        auto existing = std::find_if(result.begin(), result.end(), [&](const auto& p) { return p.first == item.name; });
        std::string value = item.value.value_or(std::string());
        if (existing != result.end()) {
            existing->second = std::move(value);
        } else {
            result.emplace_back(std::move(item.name), std::move(value));
        }
    }
    return result;
}

std::string OAuth::oAuthBaseURL(const Url& url) {
    std::string out;
    out.reserve(url.absoluteString().size());
    appendLower(out, url.scheme());
    out.append("://");
    if (url.user()) {
        out.append(*url.user());
        if (url.password()) {
            out.push_back(':');
            out.append(*url.password());
        }
        out.push_back('@');
    }
    appendLower(out, url.host());
    if (const auto port = url.port()) {
        std::string_view scheme(out.data(), url.scheme().size());
        const bool isHttp = scheme == "http";
        const bool isHttps = scheme == "https";
        if ((isHttp && *port != 80) || (isHttps && *port != 443)) {
            out.push_back(':');
            out.append(std::to_string(*port));
        }
    }
    std::string_view path = url.path();
    // The path as the URL reports it: a trailing slash is not part of it,
    // though the root path "/" stays what it is.
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    out.append(path);
    return out;
}

std::string OAuth::signingKey(const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    std::string key;
    appendSigningKey(key, consumer, user);
    return key;
}

std::string OAuth::sign(std::string_view key, std::string_view text) {
    std::string out;
    appendSignature(out, key, text);
    return out;
}

std::string OAuth::signatureBaseText(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                     const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                                     std::string_view nonce, std::int64_t timestamp) {
    std::string base;
    appendBaseText(base, url, method, parameters, consumer, user, nonce, Timestamp(timestamp).view);
    return base;
}

std::string OAuth::calculateSignature(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                      const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                                      std::string_view nonce, std::int64_t timestamp) {
    const Timestamp stamp(timestamp);

    thread_local std::string base;
    thread_local std::string key;
    base.clear();
    key.clear();
    appendBaseText(base, url, method, parameters, consumer, user, nonce, stamp.view);
    appendSigningKey(key, consumer, user);

    char signatureText[29];
    {
        unsigned char mac[20];
        hmacSha1(key, base, mac);
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(signatureText), mac, sizeof mac);
    }
    const std::string_view signature(signatureText, 28);

    // The OAuth keys need no encoding, and sorted they always stand in this order.
    std::string header;
    header.reserve(256);
    header.append("OAuth ");
    appendHeaderPair(header, "oauth_consumer_key", consumer.key, false);
    appendHeaderPair(header, "oauth_nonce", nonce);
    appendHeaderPair(header, "oauth_signature", signature);
    appendHeaderPair(header, "oauth_signature_method", "HMAC-SHA1");
    appendHeaderPair(header, "oauth_timestamp", stamp.view);
    if (user) appendHeaderPair(header, "oauth_token", user->key);
    appendHeaderPair(header, "oauth_version", "1.0");
    return header;
}

std::string OAuth::calculateSignature(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                      const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    return calculateSignature(url, method, parameters, consumer, user, Uuid::random().text(),
                              static_cast<std::int64_t>(seconds));
}

std::vector<std::uint8_t> OAuth::httpBody(const OAuthParameters& formParameters) {
    std::string text;
    bool first = true;
    for (const auto& [key, value] : formParameters) {
        if (!first) text.push_back('&');
        first = false;
        appendRfc3986encoded(text, key);
        text.push_back('=');
        appendRfc3986encoded(text, value);
    }
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

namespace {

// SignableRequest and URLRequest have the same shape; one implementation serves both.
template <class Request>
void addAuthorization(Request& request, const OAuthParameters& parameters, const OAuthCredentials& consumer,
                      const std::optional<OAuthCredentials>& user) {
    if (request.method.empty()) return;
    const auto url = Url::parse(request.url);
    if (!url) return;
    request.headers.emplace_back("Authorization",
                                 OAuth::calculateSignature(*url, request.method, parameters, consumer, user));
}

template <class Request>
void signWithBody(Request& request, std::string method, std::optional<std::vector<std::uint8_t>> body,
                  std::optional<std::string> contentType, const OAuthCredentials& consumer,
                  const std::optional<OAuthCredentials>& user) {
    request.method = std::move(method);
    if (body) {
        request.headers.emplace_back("Content-Length", std::to_string(body->size()));
        request.body = std::move(body);
    }
    if (contentType) request.headers.emplace_back("Content-Type", std::move(*contentType));
    addAuthorization(request, {}, consumer, user);
}

template <class Request>
void signForm(Request& request, std::string method, const OAuthParameters& urlFormParameters,
              const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    request.method = std::move(method);
    request.body = OAuth::httpBody(urlFormParameters);
    request.headers.emplace_back("Content-Length", std::to_string(request.body->size()));
    request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
    addAuthorization(request, urlFormParameters, consumer, user);
}

}  // namespace

void SignableRequest::oAuthSign(std::string method_, std::optional<std::vector<std::uint8_t>> body_,
                                std::optional<std::string> contentType, const OAuthCredentials& consumer,
                                const std::optional<OAuthCredentials>& user) {
    signWithBody(*this, std::move(method_), std::move(body_), std::move(contentType), consumer, user);
}

void SignableRequest::oAuthSign(std::string method_, const OAuthParameters& urlFormParameters,
                                const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    signForm(*this, std::move(method_), urlFormParameters, consumer, user);
}

void oAuthSign(URLRequest& request, std::string method, std::optional<std::vector<std::uint8_t>> body,
               std::optional<std::string> contentType, const OAuthCredentials& consumer,
               const std::optional<OAuthCredentials>& user) {
    signWithBody(request, std::move(method), std::move(body), std::move(contentType), consumer, user);
}

void oAuthSign(URLRequest& request, std::string method, const OAuthParameters& urlFormParameters,
               const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    signForm(request, std::move(method), urlFormParameters, consumer, user);
}

}  // namespace palomir
