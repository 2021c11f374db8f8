#include "model/reading.hpp"

#include <cmath>
#include <limits>

namespace palomir::model {

std::string JsonPath::text() const {
    std::string out;
    for (const Segment& segment : _segments) {
        if (segment.isKey) {
            if (!out.empty()) out += '.';
            out += segment.key;
        } else {
            out += '[';
            out += std::to_string(segment.index);
            out += ']';
        }
    }
    return out;
}

void JsonPath::fail(std::string reason) const { throw DecodeFailure{DecodingError{text(), std::move(reason)}}; }

namespace {

const char* kindName(const json& value) {
    switch (value.type()) {
        case json::value_t::null: return "null";
        case json::value_t::boolean: return "boolean";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
        case json::value_t::number_float: return "number";
        case json::value_t::string: return "string";
        case json::value_t::array: return "array";
        case json::value_t::object: return "object";
        case json::value_t::binary: return "binary data";
        case json::value_t::discarded: break;
    }
    return "nothing";
}

}  // namespace

void failExpected(const JsonPath& path, const char* expected, const json& found) {
    path.fail(std::string("expected ") + expected + ", found " + kindName(found));
}

const json& expectObject(const JsonPath& path, const json& value) {
    if (!value.is_object()) failExpected(path, "an object", value);
    return value;
}

std::string_view expectString(const JsonPath& path, const json& value) {
    if (!value.is_string()) failExpected(path, "a string", value);
    return value.get_ref<const std::string&>();
}

std::string read(JsonPath& path, const json& value, Tag<std::string>) {
    return std::string(expectString(path, value));
}

bool read(JsonPath& path, const json& value, Tag<bool>) {
    if (!value.is_boolean()) failExpected(path, "a boolean", value);
    return value.get<bool>();
}

std::int64_t read(JsonPath& path, const json& value, Tag<std::int64_t>) {
    switch (value.type()) {
        case json::value_t::number_integer: return value.get<std::int64_t>();
        case json::value_t::number_unsigned: {
            const auto v = value.get<std::uint64_t>();
            if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
                path.fail("number does not fit a 64-bit integer");
            return static_cast<std::int64_t>(v);
        }
        case json::value_t::number_float: {
            // 7.0 is the integer 7; 7.5 is no integer at all.
            const double d = value.get<double>();
            if (std::trunc(d) != d) path.fail("expected an integer, found a number with a fraction");
            if (d < -9223372036854775808.0 || d >= 9223372036854775808.0)
                path.fail("number does not fit a 64-bit integer");
            return static_cast<std::int64_t>(d);
        }
        default: failExpected(path, "an integer", value);
    }
}

double read(JsonPath& path, const json& value, Tag<double>) {
    if (!value.is_number()) failExpected(path, "a number", value);
    return value.get<double>();
}

}  // namespace palomir::model

namespace palomir {

// A failure of the document as a whole has no key path to name.
std::string DecodingError::message() const { return keyPath.empty() ? reason : keyPath + ": " + reason; }

std::string EncodingError::message() const { return keyPath.empty() ? reason : keyPath + ": " + reason; }

Result<nlohmann::json, DecodingError> parseJson(std::string_view text) {
    // nlohmann parses and destroys without recursion, but what reads a value
    // afterwards may recurse (our dynamic values, its own dump and copies), so
    // the nesting is bounded here, while parsing, where a too-deep document
    // costs nothing more than the text up to the offending bracket.
    struct TooDeep {};
    const auto boundNesting = [](int depth, nlohmann::json::parse_event_t event, nlohmann::json&) {
        const bool opens = event == nlohmann::json::parse_event_t::object_start ||
                           event == nlohmann::json::parse_event_t::array_start;
        if (opens && static_cast<std::size_t>(depth) >= model::maxNesting) throw TooDeep{};
        return true;
    };
    try {
        return Ok<nlohmann::json>{nlohmann::json::parse(text.begin(), text.end(), boundNesting)};
    } catch (const TooDeep&) {
        return Err<DecodingError>{
            DecodingError{"", "containers nested deeper than " + std::to_string(model::maxNesting) + " levels"}};
    } catch (const std::exception& e) {
        return Err<DecodingError>{DecodingError{"", e.what()}};
    }
}

}  // namespace palomir
