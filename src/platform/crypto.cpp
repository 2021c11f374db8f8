#include "platform/crypto.hpp"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <cstdio>

namespace palomir::crypto {

std::array<std::uint8_t, 20> hmacSha1(std::string_view key, std::string_view message) {
    std::array<std::uint8_t, 20> out{};
    unsigned int length = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), out.data(), &length);
    return out;
}

std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> data) {
    std::array<std::uint8_t, 16> out{};
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &length, EVP_md5(), nullptr);
    return out;
}

std::string base64Encode(std::span<const std::uint8_t> data) {
    if (data.empty()) return {};
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                                        static_cast<int>(data.size()));
    out.resize(static_cast<std::size_t>(written));
    return out;
}


void randomBytes(std::span<std::uint8_t> out) {
    if (out.empty()) return;
    if (RAND_bytes(out.data(), static_cast<int>(out.size())) != 1) {
        // Without entropy, nonces and UUIDs would repeat; nothing sensible can go on.
        std::fputs("palomir: the random generator failed\n", stderr);
        std::abort();
    }
}

}  // namespace palomir::crypto
