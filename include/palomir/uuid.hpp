#pragma once

/// @file
/// Identifiers for notes, feedback and uploads.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "palomir/export.hpp"

namespace palomir {

/// A 128-bit UUID. Text form: canonical 8-4-4-4-12, upper-case hexadecimal.
class PALOMIR_API Uuid {
public:
    /// A random version-4 UUID from OpenSSL's generator.
    static Uuid random();
    /// Strict: exactly 36 characters, hyphens at 8, 13, 18, 23, hex digits of
    /// either case elsewhere. Anything else gives nothing.
    static std::optional<Uuid> parse(std::string_view text);

    /// Takes the 16 bytes as they are, without checking version or variant bits.
    explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : _bytes(bytes) {}

    /// The canonical upper-case form, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
    std::string text() const;
    /// The 16 bytes in network order; borrowed from this object.
    const std::array<std::uint8_t, 16>& bytes() const { return _bytes; }

    /// Byte for byte.
    friend bool operator==(const Uuid&, const Uuid&) = default;

private:
    std::array<std::uint8_t, 16> _bytes{};
};

}  // namespace palomir
