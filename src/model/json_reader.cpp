#include "model/json_reader.hpp"

#include <algorithm>
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

std::vector<JsonMember> JsonValue::sortedMembers() const {
    std::vector<JsonMember> members;
    members.reserve(_node->size);
    const JsonNode* key = _node + 1;
    for (std::size_t i = 0; i < _node->size; ++i) {
        const JsonNode* value = key + 1;
        members.push_back({std::string_view(key->text, key->size), JsonValue(value)});
        key = value + value->span;
    }
    std::stable_sort(members.begin(), members.end(),
                     [](const JsonMember& a, const JsonMember& b) { return a.key < b.key; });
    // Of a run of equal keys the last one written stands.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (i + 1 < members.size() && members[i + 1].key == members[i].key) continue;
        members[kept++] = members[i];
    }
    members.erase(members.begin() + static_cast<std::ptrdiff_t>(kept), members.end());
    return members;
}

const char* jsonKindName(JsonValue value) {
    switch (value.kind()) {
        case JsonKind::null: return "null";
        case JsonKind::boolean: return "boolean";
        case JsonKind::integer:
        case JsonKind::unsigned_:
        case JsonKind::float_: return "number";
        case JsonKind::string: return "string";
        case JsonKind::array: return "array";
        case JsonKind::object: return "object";
        case JsonKind::binary: return "binary data";
        case JsonKind::discarded: return "nothing";
    }
    return "nothing";
}

void failExpected(const JsonPath& path, const char* expected, JsonValue found) {
    path.fail(std::string("expected ") + expected + ", found " + jsonKindName(found));
}

JsonValue expectObject(const JsonPath& path, JsonValue value) {
    if (!value.isObject()) failExpected(path, "an object", value);
    return value;
}

JsonValue expectArray(const JsonPath& path, JsonValue value) {
    if (!value.isArray()) failExpected(path, "an array", value);
    return value;
}

std::string read(JsonPath& path, JsonValue value, Tag<std::string>) {
    if (!value.isString()) failExpected(path, "a string", value);
    return std::string(value.text());
}

bool read(JsonPath& path, JsonValue value, Tag<bool>) {
    if (!value.isBoolean()) failExpected(path, "a boolean", value);
    return value.boolean();
}

std::int64_t read(JsonPath& path, JsonValue value, Tag<std::int64_t>) {
    switch (value.kind()) {
        case JsonKind::integer: return value.integer();
        case JsonKind::unsigned_: {
            const auto v = value.unsignedInteger();
            if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
                path.fail("number does not fit a 64-bit integer");
            return static_cast<std::int64_t>(v);
        }
        case JsonKind::float_: {
            // 7.0 is the integer 7; 7.5 is no integer at all.
            const double d = value.number();
            if (std::trunc(d) != d) path.fail("expected an integer, found a number with a fraction");
            if (d < -9223372036854775808.0 || d >= 9223372036854775808.0)
                path.fail("number does not fit a 64-bit integer");
            return static_cast<std::int64_t>(d);
        }
        default: failExpected(path, "an integer", value);
    }
}

double read(JsonPath& path, JsonValue value, Tag<double>) {
    if (!value.isNumber()) failExpected(path, "a number", value);
    return value.number();
}

}  // namespace palomir::model

namespace palomir {

// A failure of the document as a whole has no key path to name.
std::string DecodingError::message() const { return keyPath.empty() ? reason : keyPath + ": " + reason; }

std::string EncodingError::message() const { return keyPath.empty() ? reason : keyPath + ": " + reason; }

Result<nlohmann::json, DecodingError> parseJson(std::string_view text) {
    try {
        return Ok<nlohmann::json>{nlohmann::json::parse(text.begin(), text.end())};
    } catch (const std::exception& e) {
        return Err<DecodingError>{DecodingError{"", e.what()}};
    }
}

}  // namespace palomir
