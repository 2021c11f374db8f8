#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "palomir/model.hpp"

namespace palomir {
namespace {

// The text is handled as Unicode code points so that a colour written with a
// non-ASCII character counts characters the way a person reads them.
std::vector<char32_t> decodeUtf8(std::string_view text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
        if (i + length > text.size()) length = 1;
        char32_t cp = length == 1 ? c : c & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        out.push_back(cp);
        i += length;
    }
    return out;
}

bool isWhitespaceOrNewline(char32_t c) {
    switch (c) {
        case 0x09: case 0x0A: case 0x0B: case 0x0C: case 0x0D: case 0x20: case 0x85: case 0xA0:
        case 0x1680: case 0x2028: case 0x2029: case 0x202F: case 0x205F: case 0x3000:
            return true;
        default:
            return c >= 0x2000 && c <= 0x200A;
    }
}

int hexValue(char32_t c) {
    if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
    return -1;
}

// A hexadecimal scanner: leading white space skipped, an optional 0x/0X, then
// the longest run of hex digits. A lone "0" before a non-hex "x" still counts
// as the digit 0.
std::optional<std::uint64_t> scanHex(const char32_t* chars, std::size_t size) {
    std::size_t i = 0;
    while (i < size && isWhitespaceOrNewline(chars[i])) ++i;
    if (i + 2 < size && chars[i] == '0' && (chars[i + 1] == 'x' || chars[i + 1] == 'X') && hexValue(chars[i + 2]) >= 0)
        i += 2;
    std::uint64_t value = 0;
    std::size_t read = 0;
    for (; i < size && hexValue(chars[i]) >= 0; ++i, ++read)
        value = (value << 4) | static_cast<std::uint64_t>(hexValue(chars[i]));
    if (read == 0) return std::nullopt;
    return value;
}

// `chars` is the text after trimming and removing the "#".
Color fromTrimmed(const char32_t* chars, std::size_t size) {
    const Color transparentBlack{0.0, 0.0, 0.0, 0.0};
    char32_t doubled[6];
    if (size == 3) {
        for (std::size_t i = 0; i < 3; ++i) doubled[2 * i] = doubled[2 * i + 1] = chars[i];
        chars = doubled;
        size = 6;
    }
    if (size != 6 && size != 8) return transparentBlack;
    const auto scanned = scanHex(chars, size);
    if (!scanned) return transparentBlack;
    const std::uint64_t v = *scanned;
    auto component = [v](int shift) { return static_cast<double>((v >> shift) & 0xFF) / 255.0; };
    if (size == 6) return Color{component(16), component(8), component(0), 1.0};
    return Color{component(24), component(16), component(8), component(0)};
}

template <class Chars>
Color fromCodePoints(const Chars& chars) {
    std::size_t begin = 0, end = chars.size();
    while (begin < end && isWhitespaceOrNewline(chars[begin])) ++begin;
    while (end > begin && isWhitespaceOrNewline(chars[end - 1])) --end;
    if (begin < end && chars[begin] == '#') ++begin;
    return fromTrimmed(chars.data() + begin, end - begin);
}

}  // namespace

Color Color::fromHex(std::string_view text) {
    // Colours are short ASCII texts; only others pay for a decoded copy.
    bool ascii = text.size() <= 32;
    for (std::size_t i = 0; ascii && i < text.size(); ++i) ascii = static_cast<unsigned char>(text[i]) < 0x80;
    if (ascii) {
        std::array<char32_t, 32> buffer{};
        for (std::size_t i = 0; i < text.size(); ++i) buffer[i] = static_cast<unsigned char>(text[i]);
        return fromCodePoints(std::basic_string_view<char32_t>(buffer.data(), text.size()));
    }
    return fromCodePoints(decodeUtf8(text));
}

}  // namespace palomir
