// Parses arbitrary text as a backend date; every accepted date must format to
// a text that parses back to the same instant.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto date = palomir::plRFC3339Parse(text);
    if (!date) return 0;
    const auto again = palomir::plRFC3339Parse(palomir::plRFC3339Format(*date));
    if (!again || *again != *date) __builtin_trap();
    return 0;
}
