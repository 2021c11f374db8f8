// Parses arbitrary text as a colour: never fails, components stay in 0...1.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "palomir/model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const palomir::Color color = palomir::Color::fromHex(text);
    for (double c : {color.red, color.green, color.blue, color.alpha})
        if (!(c >= 0.0 && c <= 1.0)) __builtin_trap();
    (void)palomir::decodeJson<palomir::Color>(text);
    return 0;
}
