#include "palomir/uuid.hpp"

#include "platform/crypto.hpp"

namespace palomir {

Uuid Uuid::random() {
    std::array<std::uint8_t, 16> bytes{};
    crypto::randomBytes(bytes);
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return Uuid(bytes);
}

namespace {

bool isHyphenPosition(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int high = crypto::hexDigitValue(text[i]);
        const int low = crypto::hexDigitValue(text[i + 1]);
        if (high < 0 || low < 0 || isHyphenPosition(i + 1)) return std::nullopt;
        bytes[byte++] = static_cast<std::uint8_t>((high << 4) | low);
        i += 2;
    }
    return Uuid(bytes);
}

std::string Uuid::text() const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < _bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kDigits[_bytes[i] >> 4]);
        out.push_back(kDigits[_bytes[i] & 0x0F]);
    }
    return out;
}

}  // namespace palomir
