#include "api/any_codable.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>

namespace palomir::model {

namespace {

// A number without fraction is an integer however it is written, so 7.0 and
// 7e0 read as the integer 7, like 7 itself.
std::optional<AnyValue> wholeNumber(double d) {
    if (std::trunc(d) != d) return std::nullopt;
    if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) return AnyValue::int64(static_cast<std::int64_t>(d));
    if (d >= 0 && d < 18446744073709551616.0) return AnyValue::uint64(static_cast<std::uint64_t>(d));
    return std::nullopt;
}

}  // namespace

AnyValue read(JsonPath& path, const json& value, Tag<AnyValue>) {
    // The order decides ambiguous numbers: integers that fit a signed word
    // stay signed, larger ones unsigned, everything else is a double.
    switch (value.type()) {
        case json::value_t::null: return AnyValue::null();
        case json::value_t::boolean: return AnyValue::boolean(value.get<bool>());
        case json::value_t::number_integer: return AnyValue::int64(value.get<std::int64_t>());
        case json::value_t::number_unsigned: {
            const auto v = value.get<std::uint64_t>();
            if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
                return AnyValue::int64(static_cast<std::int64_t>(v));
            return AnyValue::uint64(v);
        }
        case json::value_t::number_float:
            return wholeNumber(value.get<double>()).value_or(AnyValue::double_(value.get<double>()));
        case json::value_t::string: return AnyValue::string(value.get<std::string>());
        case json::value_t::array:
        case json::value_t::object:
            // Text is bounded when parsed; this bounds values a host builds itself.
            if (path.depth() >= maxNesting)
                path.fail("containers nested deeper than " + std::to_string(maxNesting) + " levels");
            if (value.is_array()) return AnyValue::list(read(path, value, Tag<AnyList>{}));
            return AnyValue::map(read(path, value, Tag<AnyMap>{}));
        case json::value_t::binary:
        case json::value_t::discarded: break;
    }
    path.fail("AnyDecodable value cannot be decoded");
}

AnyCodable read(JsonPath& path, const json& value, Tag<AnyCodable>) {
    return AnyCodable(read(path, value, Tag<AnyValue>{}));
}

AnyDecodable read(JsonPath& path, const json& value, Tag<AnyDecodable>) {
    return AnyDecodable(read(path, value, Tag<AnyValue>{}));
}

namespace {

struct EncodeFailure {
    std::string keyPath;
};

// A float is written as the shortest decimal that reads back as the same
// float, so 0.1f appears as 0.1 rather than as its double widening.
double floatAsDouble(float v) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    *result.ptr = '\0';
    return std::strtod(buffer, nullptr);
}

json encodeValue(const AnyValue& value, std::string& path) {
    return std::visit(
        [&path](const auto& v) -> json {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                return nullptr;
            } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
                if (!std::isfinite(v)) throw EncodeFailure{path};
                if constexpr (std::is_same_v<T, float>) return floatAsDouble(v);
                else return v;
            } else if constexpr (std::is_same_v<T, std::int8_t> || std::is_same_v<T, std::int16_t> ||
                                 std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t>) {
                return static_cast<std::int64_t>(v);
            } else if constexpr (std::is_same_v<T, std::uint8_t> || std::is_same_v<T, std::uint16_t> ||
                                 std::is_same_v<T, std::uint32_t> || std::is_same_v<T, std::uint64_t>) {
                return static_cast<std::uint64_t>(v);
            } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::string>) {
                return v;
            } else if constexpr (std::is_same_v<T, Date>) {
                return plRFC3339.format(v);
            } else if constexpr (std::is_same_v<T, Url>) {
                return v.absoluteString();
            } else if constexpr (std::is_same_v<T, AnyList>) {
                json array = json::array();
                const std::size_t length = path.size();
                for (std::size_t i = 0; i < v.size(); ++i) {
                    path += '[' + std::to_string(i) + ']';
                    array.push_back(encodeValue(v[i], path));
                    path.resize(length);
                }
                return array;
            } else {
                static_assert(std::is_same_v<T, AnyMap>);
                json object = json::object();
                const std::size_t length = path.size();
                for (const auto& [key, member] : v) {
                    if (!path.empty()) path += '.';
                    path += key;
                    object[key] = encodeValue(member, path);
                    path.resize(length);
                }
                return object;
            }
        },
        value.storage());
}

}  // namespace

Result<json, EncodingError> encodeAny(const AnyValue& value, const std::string& keyPath) {
    std::string path = keyPath;
    try {
        return Ok<json>{encodeValue(value, path)};
    } catch (const EncodeFailure& failure) {
        return Err<EncodingError>{EncodingError{failure.keyPath, "AnyEncodable value cannot be encoded"}};
    } catch (const std::exception& e) {
        return Err<EncodingError>{EncodingError{path, e.what()}};
    }
}

}  // namespace palomir::model

namespace palomir {

template <>
Result<AnyValue, DecodingError> decode<AnyValue>(const nlohmann::json& json) {
    return model::decodeRoot<AnyValue>(json);
}
template <>
Result<AnyValue, DecodingError> decodeJson<AnyValue>(std::string_view text) {
    return model::decodeText<AnyValue>(text);
}
template <>
Result<AnyCodable, DecodingError> decode<AnyCodable>(const nlohmann::json& json) {
    return model::decodeRoot<AnyCodable>(json);
}
template <>
Result<AnyCodable, DecodingError> decodeJson<AnyCodable>(std::string_view text) {
    return model::decodeText<AnyCodable>(text);
}
template <>
Result<AnyDecodable, DecodingError> decode<AnyDecodable>(const nlohmann::json& json) {
    return model::decodeRoot<AnyDecodable>(json);
}
template <>
Result<AnyDecodable, DecodingError> decodeJson<AnyDecodable>(std::string_view text) {
    return model::decodeText<AnyDecodable>(text);
}

Result<nlohmann::json, EncodingError> encode(const AnyValue& value) { return model::encodeAny(value, ""); }
Result<nlohmann::json, EncodingError> encode(const AnyCodable& value) { return model::encodeAny(value.value, ""); }
Result<nlohmann::json, EncodingError> encode(const AnyEncodable& value) { return model::encodeAny(value.value, ""); }

}  // namespace palomir
