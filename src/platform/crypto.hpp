#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace palomir::crypto {


std::array<std::uint8_t, 20> hmacSha1(std::string_view key, std::string_view message);
std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> data);
/// Standard alphabet, with padding, no line breaks.
std::string base64Encode(std::span<const std::uint8_t> data);
/// Cryptographically strong random bytes.
void randomBytes(std::span<std::uint8_t> out);

/// The value of one hexadecimal digit of either case, or -1.
inline int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

inline std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace palomir::crypto
