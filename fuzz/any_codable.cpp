// Decodes arbitrary text as a dynamic value; a decoded value always encodes,
// and its encoding decodes to an equal value.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/any_codable.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = palomir::decodeJson<palomir::AnyCodable>(text);
    if (!decoded.hasValue()) return 0;
    const auto encoded = palomir::encode(decoded.value());
    if (!encoded.hasValue()) __builtin_trap();
    const auto again = palomir::decodeJson<palomir::AnyCodable>(encoded.value().dump());
    if (!again.hasValue() || !(again.value() == decoded.value())) __builtin_trap();
    return 0;
}
