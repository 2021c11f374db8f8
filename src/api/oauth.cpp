#include "api/oauth.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <new>

#include "palomir/uuid.hpp"
#include "platform/crypto.hpp"

namespace palomir {
namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

OAuthParameters defaultParameters(const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                                  std::string_view nonce, std::int64_t timestamp) {
    OAuthParameters parameters{{"oauth_consumer_key", consumer.key},
                               {"oauth_signature_method", "HMAC-SHA1"},
                               {"oauth_version", "1.0"},
                               {"oauth_timestamp", std::to_string(timestamp)},
                               {"oauth_nonce", std::string(nonce)}};
    if (user) parameters.emplace_back("oauth_token", user->key);
    return parameters;
}

// Encodes every key and value and joins the pairs sorted by encoded key
// (pairs with equal keys keep the order they were collected in), each as
// key, `equals`, value, `close`, separated by `separator`.
std::string encodedSortedText(OAuthParameters pairs, std::string_view equals, std::string_view close,
                              std::string_view separator) {
    for (auto& [key, value] : pairs) {
        key = OAuth::rfc3986encode(key);
        value = OAuth::rfc3986encode(value);
    }
    std::stable_sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::string text;
    for (const auto& [key, value] : pairs) {
        if (!text.empty()) text.append(separator);
        text.append(key).append(equals).append(value).append(close);
    }
    return text;
}

}  // namespace

std::string OAuth::rfc3986encode(std::string_view text) {
    // libcurl leaves exactly the unreserved characters as they are and
    // writes every other byte as %XX in capitals. A length of 0 would make
    // it measure the text itself.
    if (text.empty()) return {};
    char* escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
    if (!escaped) throw std::bad_alloc();
    std::string out(escaped);
    curl_free(escaped);
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
    const std::string scheme = lowered(url.scheme());
    std::string out = scheme + "://";
    if (url.user()) {
        out += *url.user();
        if (url.password()) out += ":" + *url.password();
        out += "@";
    }
    out += lowered(url.host());
    if (const auto port = url.port()) {
        if ((scheme == "http" && *port != 80) || (scheme == "https" && *port != 443))
            out += ":" + std::to_string(*port);
    }
    // The path as the URL reports it: a trailing slash is not part of it,
    // though the root path "/" stays what it is.
    std::string_view path = url.path();
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    out += path;
    return out;
}

std::string OAuth::signingKey(const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    return rfc3986encode(consumer.secret) + "&" + (user ? rfc3986encode(user->secret) : std::string());
}

std::string OAuth::sign(std::string_view key, std::string_view text) {
    return crypto::base64Encode(crypto::hmacSha1(key, text));
}

std::string OAuth::signatureBaseText(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                     const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                                     std::string_view nonce, std::int64_t timestamp) {
    OAuthParameters pairs = defaultParameters(consumer, user, nonce, timestamp);
    pairs.insert(pairs.end(), parameters.begin(), parameters.end());
    const OAuthParameters query = queryParameters(url);
    pairs.insert(pairs.end(), query.begin(), query.end());

    std::string base = rfc3986encode(method);
    base.append("&").append(rfc3986encode(oAuthBaseURL(url))).append("&");
    return base.append(rfc3986encode(encodedSortedText(std::move(pairs), "=", "", "&")));
}

std::string OAuth::calculateSignature(const Url& url, std::string_view method, const OAuthParameters& parameters,
                                      const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user,
                                      std::string_view nonce, std::int64_t timestamp) {
    const std::string base = signatureBaseText(url, method, parameters, consumer, user, nonce, timestamp);
    OAuthParameters header = defaultParameters(consumer, user, nonce, timestamp);
    header.emplace_back("oauth_signature", sign(signingKey(consumer, user), base));

    return "OAuth " + encodedSortedText(std::move(header), "=\"", "\"", ",");
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
    for (const auto& [key, value] : formParameters) {
        if (!text.empty()) text += "&";
        text += rfc3986encode(key) + "=" + rfc3986encode(value);
    }
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

namespace {

void addAuthorization(URLRequest& request, const OAuthParameters& parameters, const OAuthCredentials& consumer,
                      const std::optional<OAuthCredentials>& user) {
    if (request.method.empty()) return;
    const auto url = Url::parse(request.url);
    if (!url) return;
    request.addValue(OAuth::calculateSignature(*url, request.method, parameters, consumer, user), "Authorization");
}

}  // namespace

void oAuthSign(URLRequest& request, std::string method, std::optional<std::vector<std::uint8_t>> body,
               std::optional<std::string> contentType, const OAuthCredentials& consumer,
               const std::optional<OAuthCredentials>& user) {
    request.method = std::move(method);
    if (body) {
        request.addValue(std::to_string(body->size()), "Content-Length");
        request.body = std::move(body);
    }
    if (contentType) request.addValue(std::move(*contentType), "Content-Type");
    addAuthorization(request, {}, consumer, user);
}

void oAuthSign(URLRequest& request, std::string method, const OAuthParameters& urlFormParameters,
               const OAuthCredentials& consumer, const std::optional<OAuthCredentials>& user) {
    request.method = std::move(method);
    request.body = OAuth::httpBody(urlFormParameters);
    request.addValue(std::to_string(request.body->size()), "Content-Length");
    request.addValue("application/x-www-form-urlencoded", "Content-Type");
    addAuthorization(request, urlFormParameters, consumer, user);
}

}  // namespace palomir
