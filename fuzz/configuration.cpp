// A Configuration from arbitrary text.
#include "decode_and_encode.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return decodeAndEncode<palomir::Configuration>(data, size);
}
