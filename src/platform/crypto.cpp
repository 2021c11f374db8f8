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

namespace {

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

// Decoded by hand: EVP_DecodeBlock accepts blanks and cannot say how much
// padding there was, and callers need a strict answer.
std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int values[4];
        int padding = 0;
        for (int j = 0; j < 4; ++j) {
            const char c = text[i + static_cast<std::size_t>(j)];
            if (c == '=' && last && j >= 2) {
                values[j] = 0;
                ++padding;
                continue;
            }
            if (padding > 0) return std::nullopt;  // data after padding
            values[j] = base64Value(c);
            if (values[j] < 0) return std::nullopt;
        }
        const std::uint32_t group = (static_cast<std::uint32_t>(values[0]) << 18) |
                                    (static_cast<std::uint32_t>(values[1]) << 12) |
                                    (static_cast<std::uint32_t>(values[2]) << 6) |
                                    static_cast<std::uint32_t>(values[3]);
        out.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) out.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1) out.push_back(static_cast<std::uint8_t>(group));
    }
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
