#pragma once

// Strict reading of JSON values into records, shared by the model and the
// dynamic values. A failure is raised as a DecodeFailure carrying the key path
// of the offending member; the public decode functions catch it, so nothing
// escapes the library and no record is ever half decoded.
//
// Records are read from a JsonDocument: a flat, read-only tree whose strings
// are views (into the text, or into the nlohmann value it was loaded from).
// Reading a record from text therefore never builds nlohmann's tree of maps,
// which costs more than the record itself.

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

struct DecodeFailure {
    DecodingError error;
};

/// The kinds of nlohmann's values, numbers kept apart the way it keeps them.
enum class JsonKind : std::uint8_t { null, boolean, integer, unsigned_, float_, string, array, object, binary, discarded };

/// One value of a JsonDocument. A container is followed by its descendants;
/// an object's members are a string node (the key) and then the value.
struct JsonNode {
    JsonKind kind;
    /// Number of nodes from this one to its last descendant, inclusive.
    std::uint32_t span;
    /// Bytes of a string, elements of an array, members of an object.
    std::size_t size;
    union {
        bool boolean;
        std::int64_t integer;
        std::uint64_t unsigned_;
        double float_;
        const char* text;
    };
};

struct JsonMember;

/// A cursor on one node; cheap to copy. A value from a failed find() is
/// missing and must not be read.
class JsonValue {
public:
    explicit JsonValue(const JsonNode* node) : _node(node) {}

    bool missing() const { return _node == nullptr; }
    JsonKind kind() const { return _node->kind; }
    bool isNull() const { return _node->kind == JsonKind::null; }
    bool isBoolean() const { return _node->kind == JsonKind::boolean; }
    bool isString() const { return _node->kind == JsonKind::string; }
    bool isArray() const { return _node->kind == JsonKind::array; }
    bool isObject() const { return _node->kind == JsonKind::object; }
    bool isNumber() const {
        return _node->kind == JsonKind::integer || _node->kind == JsonKind::unsigned_ || _node->kind == JsonKind::float_;
    }

    bool boolean() const { return _node->boolean; }
    std::int64_t integer() const { return _node->integer; }
    std::uint64_t unsignedInteger() const { return _node->unsigned_; }
    /// Any number, widened or narrowed to a double as nlohmann's get<double> does.
    double number() const {
        switch (_node->kind) {
            case JsonKind::integer: return static_cast<double>(_node->integer);
            case JsonKind::unsigned_: return static_cast<double>(_node->unsigned_);
            default: return _node->float_;
        }
    }
    std::string_view text() const { return {_node->text, _node->size}; }
    std::size_t size() const { return _node->size; }

    /// The first element of a non-empty array, and the element after this one.
    JsonValue firstElement() const { return JsonValue(_node + 1); }
    JsonValue next() const { return JsonValue(_node + _node->span); }

    /// The member named `key`; the last one when the key repeats, as nlohmann
    /// keeps the last of repeated keys. Missing when there is none.
    JsonValue find(std::string_view key) const {
        const JsonNode* found = nullptr;
        const JsonNode* member = _node + 1;
        for (std::size_t i = 0; i < _node->size; ++i) {
            const JsonNode* value = member + 1;
            if (member->size == key.size() && std::string_view(member->text, member->size) == key) found = value;
            member = value + value->span;
        }
        return JsonValue(found);
    }

    /// The members ordered by key with repeated keys reduced to their last
    /// value: the members of the nlohmann object the text would give.
    std::vector<JsonMember> sortedMembers() const;

private:
    const JsonNode* _node;
};

struct JsonMember {
    std::string_view key;
    JsonValue value;
};

class JsonDocument {
public:
    JsonDocument() = default;
    JsonDocument(const JsonDocument&) = delete;
    JsonDocument& operator=(const JsonDocument&) = delete;

    /// Reads `text` if it is plain JSON of the kind backends send. False for
    /// anything else, valid or not (a parse error, a byte-order mark, a number
    /// beyond a double): the caller then lets nlohmann decide and explain.
    /// Strings without escapes stay views into `text`, which must outlive
    /// the document.
    bool parse(std::string_view text);

    /// Mirrors `value`, whose strings must outlive the document.
    void load(const json& value);

    JsonValue root() const { return JsonValue(_nodes.data()); }

private:
    std::vector<JsonNode> _nodes;
    // Strings with escapes, unescaped. Reserved once to the size of the text,
    // which no unescaped string can outgrow, so views into it stay valid.
    std::string _unescaped;
};

/// The member being read, kept as a stack while descending.
class JsonPath {
public:
    JsonPath() { _segments.reserve(16); }

    void push(std::string_view key) { _segments.push_back({key, 0, true}); }
    void push(std::size_t index) { _segments.push_back({{}, index, false}); }
    void pop() { _segments.pop_back(); }

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

/// "null", "boolean", "number", "string", "array", "object".
const char* jsonKindName(JsonValue value);
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
    JsonValue element = array.firstElement();
    for (std::size_t index = 0; index < array.size(); ++index, element = element.next()) {
        PathScope scope(path, index);
        out.push_back(read(path, element, Tag<T>{}));
    }
    return out;
}

template <class T>
std::map<std::string, T> read(JsonPath& path, JsonValue value, Tag<std::map<std::string, T>>) {
    const JsonValue object = expectObject(path, value);
    std::map<std::string, T> out;
    for (const JsonMember& member : object.sortedMembers()) {
        PathScope scope(path, member.key);
        out.emplace_hint(out.end(), member.key, read(path, member.value, Tag<T>{}));
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

/// Runs a reader at the root of a document and turns failures into errors.
template <class T>
Result<T, DecodingError> decodeValue(JsonValue value) {
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
Result<T, DecodingError> decodeRoot(const json& value) {
    JsonDocument document;
    try {
        document.load(value);
    } catch (const std::exception& e) {
        return Err<DecodingError>{DecodingError{"", e.what()}};
    }
    return decodeValue<T>(document.root());
}

template <class T>
Result<T, DecodingError> decodeText(std::string_view text) {
    JsonDocument document;
    bool quick = false;
    try {
        quick = document.parse(text);
    } catch (const std::exception& e) {
        return Err<DecodingError>{DecodingError{"", e.what()}};
    }
    if (quick) return decodeValue<T>(document.root());
    // Whatever the quick reader leaves gets nlohmann's verdict, and its message.
    auto parsed = parseJson(text);
    if (parsed.hasError()) return Err<DecodingError>{std::move(parsed).error()};
    return decodeRoot<T>(parsed.value());
}

}  // namespace palomir::model
