#pragma once

// Decodes arbitrary text as T; whatever decodes must encode without throwing
// (colours encode as objects, so there is no way back).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/model.hpp"

template <class T>
int decodeAndEncode(const std::uint8_t* data, std::size_t size) {
    const auto decoded = palomir::decodeJson<T>(std::string_view(reinterpret_cast<const char*>(data), size));
    if (decoded.hasValue()) (void)palomir::encode(decoded.value()).dump();
    return 0;
}
