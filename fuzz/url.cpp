// Arbitrary text as a URL (by each reader), and as an app token appended to
// the placeholder address the token check uses. An accepted URL must hold
// only the bytes a strict parser allows as they stand, and must parse again
// to the same parts.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "palomir/url.hpp"

namespace {

bool allowedAsWritten(unsigned char c) {
    return c > 0x20 && c < 0x7f && std::strchr("<>\"{}|\\^`", c) == nullptr;
}

using Reader = std::optional<palomir::Url> (*)(std::string_view);

void check(std::string_view text, Reader read = &palomir::Url::parse) {
    const auto url = read(text);
    if (!url) return;
    for (unsigned char c : url->absoluteString())
        if (!allowedAsWritten(c)) __builtin_trap();
    const auto again = read(url->absoluteString());
    if (!again || again->scheme() != url->scheme() || again->host() != url->host() ||
        again->port() != url->port() || again->path() != url->path() || again->rawPath() != url->rawPath() ||
        again->query() != url->query() || again->user() != url->user() || again->password() != url->password())
        __builtin_trap();
    (void)url->queryItems();
    (void)url->lastPathComponent();
    (void)url->pathExtension();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    check(text);
    check(text, &palomir::Url::parseAbsolute);
    check(text, &palomir::Url::parseReference);
    check("http://token-check.palomir.invalid/" + std::string(text));
    check("https://backend.example:8443/api/checkin/" + std::string(text));
    return 0;
}
