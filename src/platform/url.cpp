#include "palomir/url.hpp"

#include <curl/curl.h>

#include <arpa/inet.h>

#include <charconv>
#include <memory>

namespace palomir {

namespace {

struct UrlHandleDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out.push_back(static_cast<char>((high << 4) | low));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

// RFC 3986 syntax, checked by hand: libcurl's URL API refuses every scheme
// without "//" (mailto:, tel:, urn:), and backends send those as links.
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Characters of the given class plus unreserved ones and percent escapes.
bool onlyUriCharacters(std::string_view text, std::string_view extra) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return false;
            i += 2;
            continue;
        }
        if (isAlpha(c) || isDigit(c) || std::string_view("-._~").find(c) != std::string_view::npos) continue;
        if (extra.find(c) == std::string_view::npos) return false;
    }
    return true;
}

constexpr std::string_view kSubDelims = "!$&'()*+,;=";
constexpr std::string_view kPathChars = "!$&'()*+,;=:@/";
constexpr std::string_view kQueryChars = "!$&'()*+,;=:@/?";

bool isScheme(std::string_view text) {
    if (text.empty() || !isAlpha(text[0])) return false;
    for (const char c : text.substr(1))
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
    return true;
}

bool isHost(std::string_view host) {
    if (host.empty() || host.front() != '[') return onlyUriCharacters(host, kSubDelims);
    if (host.size() < 3 || host.back() != ']') return false;
    const std::string_view inside = host.substr(1, host.size() - 2);
    if (inside.front() == 'v' || inside.front() == 'V') {
        const auto dot = inside.find('.');
        if (dot == std::string_view::npos || dot < 2 || dot + 1 == inside.size()) return false;
        for (const char c : inside.substr(1, dot - 1))
            if (hexValue(c) < 0) return false;
        return onlyUriCharacters(inside.substr(dot + 1), "!$&'()*+,;=:");
    }
    // inet_pton reads up to a NUL: only hex digits, colons and dots reach it.
    for (const char c : inside)
        if (hexValue(c) < 0 && c != ':' && c != '.') return false;
    in6_addr address{};
    return inet_pton(AF_INET6, std::string(inside).c_str(), &address) == 1;
}

bool isAuthority(std::string_view authority) {
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
        if (!onlyUriCharacters(authority.substr(0, at), "!$&'()*+,;=:")) return false;
        authority = authority.substr(at + 1);
    }
    const auto bracket = authority.rfind(']');
    const auto colon = authority.rfind(':');
    if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
        for (const char c : authority.substr(colon + 1))
            if (!isDigit(c)) return false;
        authority = authority.substr(0, colon);
    }
    return isHost(authority);
}

struct UriParts {
    std::string_view scheme;
    std::optional<std::string_view> authority;
    std::string_view path;
    std::optional<std::string_view> query;
};

// Splits as RFC 3986's appendix B does and checks every piece against the
// grammar; nothing when the text is not a URI reference.
std::optional<UriParts> splitUriReference(std::string_view text) {
    if (text.empty()) return std::nullopt;
    UriParts parts;
    std::string_view rest = text;
    if (const auto colon = rest.find(':'); colon != std::string_view::npos && colon < rest.find_first_of("/?#")) {
        // A colon in the first segment makes a scheme, or else the text is
        // neither a URI nor a relative reference.
        if (!isScheme(rest.substr(0, colon))) return std::nullopt;
        parts.scheme = rest.substr(0, colon);
        rest = rest.substr(colon + 1);
    }
    if (const auto hash = rest.find('#'); hash != std::string_view::npos) {
        if (!onlyUriCharacters(rest.substr(hash + 1), kQueryChars)) return std::nullopt;
        rest = rest.substr(0, hash);
    }
    if (const auto question = rest.find('?'); question != std::string_view::npos) {
        parts.query = rest.substr(question + 1);
        if (!onlyUriCharacters(*parts.query, kQueryChars)) return std::nullopt;
        rest = rest.substr(0, question);
    }
    if (rest.substr(0, 2) == "//") {
        const auto slash = rest.find('/', 2);
        parts.authority = rest.substr(2, slash == std::string_view::npos ? slash : slash - 2);
        if (!isAuthority(*parts.authority)) return std::nullopt;
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash);
    }
    if (!onlyUriCharacters(rest, kPathChars)) return std::nullopt;
    parts.path = rest;
    return parts;
}

std::optional<std::string> part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return std::nullopt;
    std::string result(value);
    curl_free(value);
    return result;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    // curl is lenient about blanks, brackets and bad escapes, and would
    // quietly accept or escape them.
    if (!splitUriReference(text)) return std::nullopt;

    // An absolute URL starts with a scheme; curl would otherwise guess one.
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || !isScheme(text.substr(0, colon))) return std::nullopt;

    // curl also takes "http:/host" and "http:host", whose host a reader could
    // not see; only the hierarchical form "scheme://" is accepted.
    if (text.substr(colon + 1, 2) != "//") return std::nullopt;

    UrlHandle handle(curl_url());
    if (!handle) return std::nullopt;
    const std::string owned(text);
    const unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;
    if (curl_url_set(handle.get(), CURLUPART_URL, owned.c_str(), flags) != CURLUE_OK) return std::nullopt;

    Url url;
    url._text = owned;
    url._scheme = part(handle.get(), CURLUPART_SCHEME).value_or("");
    if (auto user = part(handle.get(), CURLUPART_USER)) url._user = percentDecode(*user);
    if (auto password = part(handle.get(), CURLUPART_PASSWORD)) url._password = percentDecode(*password);
    url._host = part(handle.get(), CURLUPART_HOST).value_or("");
    if (auto port = part(handle.get(), CURLUPART_PORT)) {
        int value = 0;
        const auto [end, error] = std::from_chars(port->data(), port->data() + port->size(), value);
        if (error == std::errc() && end == port->data() + port->size()) url._port = value;
    }

    // Path and query are cut from the text itself: curl reports "/" for a URL
    // without a path, which would hide the difference.
    std::string_view rest = text.substr(colon + 1);
    if (const auto hash = rest.find('#'); hash != std::string_view::npos) rest = rest.substr(0, hash);
    const auto authorityEnd = rest.find_first_of("/?", 2);
    rest = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);
    const auto question = rest.find('?');
    url._rawPath = std::string(rest.substr(0, question));
    if (question != std::string_view::npos) url._query = std::string(rest.substr(question + 1));
    url._path = percentDecode(url._rawPath);
    return url;
}

std::optional<Url> Url::parseReference(std::string_view text) {
    const auto parts = splitUriReference(text);
    if (!parts) return std::nullopt;
    // What curl can take apart is taken apart exactly as for fetched URLs.
    if (parts->authority && !parts->scheme.empty())
        if (auto url = parse(text)) return url;

    Url url;
    url._text = std::string(text);
    url._scheme = std::string(parts->scheme);
    if (parts->authority) {
        std::string_view authority = *parts->authority;
        if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
            const std::string_view userinfo = authority.substr(0, at);
            const auto colon = userinfo.find(':');
            url._user = percentDecode(userinfo.substr(0, colon));
            if (colon != std::string_view::npos) url._password = percentDecode(userinfo.substr(colon + 1));
            authority = authority.substr(at + 1);
        }
        const auto bracket = authority.rfind(']');
        const auto colon = authority.rfind(':');
        if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
            int value = 0;
            const std::string_view digits = authority.substr(colon + 1);
            const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
            if (error == std::errc() && end == digits.data() + digits.size()) url._port = value;
            authority = authority.substr(0, colon);
        }
        url._host = std::string(authority);
    }
    url._rawPath = std::string(parts->path);
    url._path = percentDecode(url._rawPath);
    if (parts->query) url._query = std::string(*parts->query);
    return url;
}

std::optional<Url> Url::parseAbsolute(std::string_view text) {
    auto url = parseReference(text);
    if (!url || !url->isAbsolute()) return std::nullopt;
    return url;
}

std::vector<Url::QueryItem> Url::queryItems() const {
    std::vector<QueryItem> items;
    if (!_query) return items;
    std::string_view rest = *_query;
    while (!rest.empty()) {
        const auto amp = rest.find('&');
        const std::string_view piece = rest.substr(0, amp);
        rest = amp == std::string_view::npos ? std::string_view{} : rest.substr(amp + 1);
        if (piece.empty()) continue;
        const auto equals = piece.find('=');
        QueryItem item{percentDecode(piece.substr(0, equals)), std::nullopt};
        if (equals != std::string_view::npos) item.value = percentDecode(piece.substr(equals + 1));
        items.push_back(std::move(item));
    }
    return items;
}

std::string Url::lastPathComponent() const {
    std::string_view path = _path;
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path.empty() || path == "/") return {};
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string Url::pathExtension() const {
    const std::string last = lastPathComponent();
    const auto dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
    return last.substr(dot + 1);
}

}  // namespace palomir
