#include "palomir/url.hpp"

#include <curl/curl.h>

#include <charconv>
#include <memory>

namespace palomir {

namespace {

struct UrlHandleDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

// Texts a strict parser would refuse: curl is lenient about several of these
// and would otherwise quietly accept or escape them.
bool hasForbiddenCharacter(std::string_view text) {
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c >= 0x7F) return true;
        switch (c) {
            case '<': case '>': case '"': case '{': case '}':
            case '|': case '\\': case '^': case '`':
                return true;
            default:
                break;
        }
    }
    return false;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool hasMalformedEscape(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') continue;
        if (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return true;
        i += 2;
    }
    return false;
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

std::optional<std::string> part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return std::nullopt;
    std::string result(value);
    curl_free(value);
    return result;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty() || hasForbiddenCharacter(text) || hasMalformedEscape(text)) return std::nullopt;

    // An absolute URL starts with a scheme; curl would otherwise guess one.
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    const auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!isAlpha(text[0])) return std::nullopt;
    for (std::size_t i = 1; i < colon; ++i) {
        const char c = text[i];
        if (!isAlpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') return std::nullopt;
    }

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
