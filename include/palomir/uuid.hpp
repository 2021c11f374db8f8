#pragma once

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

    explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : _bytes(bytes) {}

    std::string text() const;
    const std::array<std::uint8_t, 16>& bytes() const { return _bytes; }

    friend bool operator==(const Uuid&, const Uuid&) = default;

private:
    std::array<std::uint8_t, 16> _bytes{};
};

}  // namespace palomir
