#include "api/oauth.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <atomic>
#include <chrono>
#include <cstring>

#include <pthread.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/params.h>

#include "platform/crypto.hpp"

namespace palomir {
namespace {

// The unreserved set, and for every byte its encoded form: built at compile
// time, so there is no run-time initialisation to race on.
constexpr std::string_view kUnreservedCharacters =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-._~";
constexpr char kHex[] = "0123456789ABCDEF";

struct EncodedByte {
    char text[4];  // padded to four so that it can be stored in one move
    std::uint8_t length;
};

constexpr std::array<EncodedByte, 256> makeEncodingTable() {
    std::array<EncodedByte, 256> table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        table[byte] = EncodedByte{{'%', kHex[byte >> 4], kHex[byte & 0x0F], 0}, 3};
    }
    for (char c : kUnreservedCharacters) table[static_cast<unsigned char>(c)] = EncodedByte{{c, 0, 0, 0}, 1};
    return table;
}
constexpr std::array<EncodedByte, 256> kEncoding = makeEncodingTable();

// The parameters stand in the base text encoded twice. Encoding an encoded
// text only turns each "%" into "%25", so the two passes fold into one:
// reserved bytes become "%25" and their two hexadecimal digits.
struct DoublyEncodedByte {
    char text[8];
    std::uint8_t length;
};

constexpr std::array<DoublyEncodedByte, 256> makeDoubleEncodingTable() {
    std::array<DoublyEncodedByte, 256> table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        table[byte] = DoublyEncodedByte{{'%', '2', '5', kHex[byte >> 4], kHex[byte & 0x0F], 0, 0, 0}, 5};
    }
    for (char c : kUnreservedCharacters)
        table[static_cast<unsigned char>(c)] = DoublyEncodedByte{{c, 0, 0, 0, 0, 0, 0, 0}, 1};
    return table;
}
constexpr std::array<DoublyEncodedByte, 256> kDoubleEncoding = makeDoubleEncodingTable();

void appendDoublyEncoded(std::string& out, std::string_view text) {
    const size_t start = out.size();
    out.resize(start + text.size() * 5 + 3);
    char* p = out.data() + start;
    for (char c : text) {
        const DoublyEncodedByte& encoded = kDoubleEncoding[static_cast<unsigned char>(c)];
        std::memcpy(p, encoded.text, 8);
        p += encoded.length;
    }
    out.resize(static_cast<size_t>(p - out.data()));
}

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

// RAND_bytes costs the same few microseconds for 16 bytes as for a kilobyte,
// so nonces are cut from a per-thread pool of random bytes. A forked child
// starts a new pool rather than repeat nonces its parent hands out too.
std::atomic<unsigned> gForkGeneration{0};

// The nonce is the canonical upper-case text of a random version-4 UUID,
// written into the caller's buffer to spare an allocation per signature.
std::string_view randomNonce(char (&text)[36]) {
    static const int registered = pthread_atfork(nullptr, nullptr, [] { gForkGeneration.fetch_add(1); });
    (void)registered;
    struct Pool {
        std::array<std::uint8_t, 1024> bytes;
        size_t used = sizeof bytes;
        unsigned generation = 0;
    };
    thread_local Pool pool;
    const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
    if (pool.used == pool.bytes.size() || pool.generation != generation) {
        crypto::randomBytes(pool.bytes);
        pool.used = 0;
        pool.generation = generation;
    }
    std::array<std::uint8_t, 16> bytes;
    std::memcpy(bytes.data(), pool.bytes.data() + pool.used, bytes.size());
    pool.used += bytes.size();
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static constexpr char kDigits[] = "0123456789ABCDEF";
    char* p = text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) *p++ = '-';
        *p++ = kDigits[bytes[i] >> 4];
        *p++ = kDigits[bytes[i] & 0x0F];
    }
    return std::string_view(text, sizeof text);
}

// Pairs live back to back in one buffer per thread, so that collecting and
// sorting them allocates nothing once the buffers have grown. They are kept
// doubly encoded, as the base text needs them: that maps "%" to "%25" and
// keeps every other byte, which leaves their order by (singly) encoded key
// unchanged.
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
        appendDoublyEncoded(arena, key);
        entry.keyLength = static_cast<std::uint32_t>(arena.size() - entry.keyOffset);
        entry.valueOffset = static_cast<std::uint32_t>(arena.size());
        appendDoublyEncoded(arena, value);
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

void appendBaseURL(std::string& out, const Url& url) {
    const size_t start = out.size();
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
        const std::string_view scheme(out.data() + start, url.scheme().size());
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
}

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
    thread_local std::string baseURL;
    baseURL.clear();
    appendBaseURL(baseURL, url);
    OAuth::appendRfc3986encoded(base, baseURL);
    base.push_back('&');
    // The encoded parameter text, written piece by piece with its separators
    // already encoded as %3D and %26.
    bool first = true;
    for (const auto& entry : scratch.entries) {
        if (!first) base.append("%26");
        first = false;
        base.append(scratch.key(entry));
        base.append("%3D");
        base.append(scratch.value(entry));
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
    // This runs over every byte of the base text twice per signature, so it
    // makes room for the worst case (plus the padding of the last store) and
    // then writes without a branch per byte.
    const size_t start = out.size();
    out.resize(start + text.size() * 3 + 1);
    char* p = out.data() + start;
    for (char c : text) {
        const EncodedByte& encoded = kEncoding[static_cast<unsigned char>(c)];
        std::memcpy(p, encoded.text, 4);
        p += encoded.length;
    }
    out.resize(static_cast<size_t>(p - out.data()));
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
    appendBaseURL(out, url);
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
    char nonce[36];
    return calculateSignature(url, method, parameters, consumer, user, randomNonce(nonce),
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
