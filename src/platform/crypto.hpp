#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace palomir::crypto {

using Bytes = std::vector<std::uint8_t>;

std::array<std::uint8_t, 20> hmacSha1(std::string_view key, std::string_view message);
std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> data);
/// Standard alphabet, with padding, no line breaks.
std::string base64Encode(std::span<const std::uint8_t> data);
std::optional<Bytes> base64Decode(std::string_view text);
/// Cryptographically strong random bytes.
void randomBytes(std::span<std::uint8_t> out);

inline std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace palomir::crypto
