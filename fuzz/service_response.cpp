// Decodes arbitrary text as a ServiceResponse; whatever decodes must encode without
// throwing (colours encode as objects, so there is no way back).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = palomir::decodeJson<palomir::ServiceResponse>(text);
    if (decoded.hasValue()) (void)palomir::encode(decoded.value()).dump();
    return 0;
}
