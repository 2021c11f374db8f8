// The "Cache-Control" max-age reader against the regular expression it stands
// in for: the first case-insensitive match of max-age\s*=\s*([0-9]+).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <string>
#include <string_view>

#include "api/api_client_internal.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const palomir::MaxAge maxAge = palomir::parseMaxAge(text);
    if (maxAge && !(*maxAge >= 0)) __builtin_trap();

    // libstdc++'s regex recurses per character; keep the reference to short texts.
    if (size > 512) return 0;
    static const std::regex pattern("max-age\\s*=\\s*([0-9]+)", std::regex::ECMAScript | std::regex::icase);
    std::smatch match;
    const palomir::MaxAge expected = std::regex_search(text, match, pattern)
                                         ? palomir::MaxAge(std::strtod(match[1].str().c_str(), nullptr))
                                         : std::nullopt;
    if (maxAge.has_value() != expected.has_value()) __builtin_trap();
    if (maxAge && *maxAge != *expected) __builtin_trap();
    return 0;
}
