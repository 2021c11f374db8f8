// Decodes arbitrary text as a DirectUploadResponse; whatever decodes must decode
// again from its own encoding to the same encoding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = palomir::decodeJson<palomir::DirectUploadResponse>(text);
    if (!decoded.hasValue()) return 0;
    const auto encoded = palomir::encode(decoded.value());
    const auto again = palomir::decode<palomir::DirectUploadResponse>(encoded);
    if (!again.hasValue() || palomir::encode(again.value()) != encoded) __builtin_trap();
    return 0;
}
