#pragma once

// Strict reading of nlohmann's JSON values into records, shared by the model
// and the dynamic values. A failure is raised as a DecodeFailure carrying the
// key path of the offending member; the public decode functions catch it, so
// nothing escapes the library and no record is ever half decoded.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/decoding.hpp"

namespace palomir::model {

using nlohmann::json;

/// Containers may nest this deep and no deeper, in text and in values. The
/// dynamic values are read, compared, copied, encoded and destroyed by
/// recursion, so without a bound a hostile document exhausts the stack.
inline constexpr std::size_t maxNesting = 512;

struct DecodeFailure {
    DecodingError error;
};

/// A cursor on one value of a document; cheap to copy. A value from a failed
/// find() is missing and must not be read.
class JsonValue {
public:
    explicit JsonValue(const json* value) : _value(value) {}

    bool missing() const { return _value == nullptr; }
    json::value_t kind() const { return _value->type(); }
    bool isNull() const { return _value->is_null(); }
    bool isBoolean() const { return _value->is_boolean(); }
    bool isString() const { return _value->is_string(); }
    bool isArray() const { return _value->is_array(); }
    bool isObject() const { return _value->is_object(); }
    bool isNumber() const { return _value->is_number(); }

    bool boolean() const { return _value->get<bool>(); }
    std::int64_t integer() const { return _value->get<std::int64_t>(); }
    std::uint64_t unsignedInteger() const { return _value->get<std::uint64_t>(); }
    /// Any number, widened or narrowed to a double.
    double number() const { return _value->get<double>(); }
    std::string_view text() const { return _value->get_ref<const std::string&>(); }
    std::size_t size() const { return _value->size(); }

    JsonValue element(std::size_t index) const { return JsonValue(&(*_value)[index]); }
    /// The member named `key`, or a missing value. Of repeated keys in the
    /// text nlohmann keeps the last.
    JsonValue find(std::string_view key) const {
        const auto found = _value->find(key);
        return JsonValue(found == _value->end() ? nullptr : &*found);
    }
    /// The members, ordered by key.
    const json::object_t& members() const { return _value->get_ref<const json::object_t&>(); }

private:
    const json* _value;
};

/// The member being read, kept as a stack while descending.
class JsonPath {
public:
    JsonPath() { _segments.reserve(16); }

    void push(std::string_view key) { _segments.push_back({key, 0, true}); }
    void push(std::size_t index) { _segments.push_back({{}, index, false}); }
    void pop() { _segments.pop_back(); }
    /// How many containers enclose the member being read.
    std::size_t depth() const { return _segments.size(); }

    std::string text() const;
    [[noreturn]] void fail(std::string reason) const;

private:
    struct Segment {
        std::string_view key;
        std::size_t index;
        bool isKey;
    };
    std::vector<Segment> _segments;
};

class PathScope {
public:
    template <class Segment>
    PathScope(JsonPath& path, Segment segment) : _path(path) {
        _path.push(segment);
    }
    ~PathScope() { _path.pop(); }
    PathScope(const PathScope&) = delete;
    PathScope& operator=(const PathScope&) = delete;

private:
    JsonPath& _path;
};

[[noreturn]] void failExpected(const JsonPath& path, const char* expected, JsonValue found);

JsonValue expectObject(const JsonPath& path, JsonValue value);
JsonValue expectArray(const JsonPath& path, JsonValue value);

template <class T>
struct Tag {};

std::string read(JsonPath& path, JsonValue value, Tag<std::string>);
bool read(JsonPath& path, JsonValue value, Tag<bool>);
std::int64_t read(JsonPath& path, JsonValue value, Tag<std::int64_t>);
double read(JsonPath& path, JsonValue value, Tag<double>);

template <class T>
std::vector<T> read(JsonPath& path, JsonValue value, Tag<std::vector<T>>) {
    const JsonValue array = expectArray(path, value);
    std::vector<T> out;
    out.reserve(array.size());
    for (std::size_t index = 0; index < array.size(); ++index) {
        PathScope scope(path, index);
        out.push_back(read(path, array.element(index), Tag<T>{}));
    }
    return out;
}

template <class T>
std::map<std::string, T> read(JsonPath& path, JsonValue value, Tag<std::map<std::string, T>>) {
    const JsonValue object = expectObject(path, value);
    std::map<std::string, T> out;
    for (const auto& [key, member] : object.members()) {
        PathScope scope(path, key);
        out.emplace_hint(out.end(), key, read(path, JsonValue(&member), Tag<T>{}));
    }
    return out;
}

/// A member that must be present and not null.
template <class T>
T required(JsonPath& path, JsonValue object, std::string_view key) {
    PathScope scope(path, key);
    const JsonValue member = object.find(key);
    if (member.missing()) path.fail("missing required key");
    return read(path, member, Tag<T>{});
}

/// A member that is absent when missing or null, and read strictly otherwise.
template <class T>
std::optional<T> optional(JsonPath& path, JsonValue object, std::string_view key) {
    const JsonValue member = object.find(key);
    if (member.missing() || member.isNull()) return std::nullopt;
    PathScope scope(path, key);
    return read(path, member, Tag<T>{});
}

/// Reads a T at the root of a document and turns failures into errors.
template <class T>
Result<T, DecodingError> decodeRoot(const json& value) {
    try {
        JsonPath path;
        return Ok<T>{read(path, JsonValue(&value), Tag<T>{})};
    } catch (DecodeFailure& failure) {
        return Err<DecodingError>{std::move(failure.error)};
    } catch (const std::exception& e) {
        return Err<DecodingError>{DecodingError{"", e.what()}};
    }
}

template <class T>
Result<T, DecodingError> decodeText(std::string_view text) {
    auto parsed = parseJson(text);
    if (parsed.hasError()) return Err<DecodingError>{std::move(parsed).error()};
    return decodeRoot<T>(parsed.value());
}

}  // namespace palomir::model
