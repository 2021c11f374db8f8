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

/// The member being read, kept as a stack while descending.
class JsonPath {
public:

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

[[noreturn]] void failExpected(const JsonPath& path, const char* expected, const json& found);

const json& expectObject(const JsonPath& path, const json& value);
/// The text of a string value; anything else fails at `path`.
std::string_view expectString(const JsonPath& path, const json& value);

template <class T>
struct Tag {};

std::string read(JsonPath& path, const json& value, Tag<std::string>);
bool read(JsonPath& path, const json& value, Tag<bool>);
std::int64_t read(JsonPath& path, const json& value, Tag<std::int64_t>);
double read(JsonPath& path, const json& value, Tag<double>);

template <class T>
std::vector<T> read(JsonPath& path, const json& value, Tag<std::vector<T>>) {
    if (!value.is_array()) failExpected(path, "an array", value);
    std::vector<T> out;
    out.reserve(value.size());
    for (std::size_t index = 0; index < value.size(); ++index) {
        PathScope scope(path, index);
        out.push_back(read(path, value[index], Tag<T>{}));
    }
    return out;
}

template <class T>
std::map<std::string, T> read(JsonPath& path, const json& value, Tag<std::map<std::string, T>>) {
    const json& object = expectObject(path, value);
    std::map<std::string, T> out;
    for (const auto& [key, member] : object.get_ref<const json::object_t&>()) {
        PathScope scope(path, key);
        out.emplace_hint(out.end(), key, read(path, member, Tag<T>{}));
    }
    return out;
}

/// A member that must be present and not null.
template <class T>
T required(JsonPath& path, const json& object, std::string_view key) {
    PathScope scope(path, key);
    const auto member = object.find(key);
    if (member == object.end()) path.fail("missing required key");
    return read(path, *member, Tag<T>{});
}

/// A member that is absent when missing or null, and read strictly otherwise.
template <class T>
std::optional<T> optional(JsonPath& path, const json& object, std::string_view key) {
    const auto member = object.find(key);
    if (member == object.end() || member->is_null()) return std::nullopt;
    PathScope scope(path, key);
    return read(path, *member, Tag<T>{});
}

/// Reads a T at the root of a document and turns failures into errors.
template <class T>
Result<T, DecodingError> decodeRoot(const json& value) {
    try {
        JsonPath path;
        return Ok<T>{read(path, value, Tag<T>{})};
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
