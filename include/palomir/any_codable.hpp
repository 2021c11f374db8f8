#pragma once

/// @file
/// Dynamic JSON values: free-form metadata and members of no fixed shape.

// JSON values of no fixed shape (free-form metadata, schema-less members).
// AnyCodable can be decoded and encoded, AnyDecodable only decoded and
// AnyEncodable only encoded; all three carry the same AnyValue. Values are
// built by named constructors only: AnyCodable::int64(3), AnyCodable::map({...}).

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/decoding.hpp"
#include "palomir/export.hpp"
#include "palomir/model.hpp"
#include "palomir/result.hpp"
#include "palomir/url.hpp"

namespace palomir {

class AnyValue;
/// The elements of a list value, in order.
using AnyList = std::vector<AnyValue>;
/// The members of a map value, by key.
using AnyMap = std::map<std::string, AnyValue>;

/// The kinds a dynamic value can be, in the order of AnyValue::Storage.
enum class AnyKind {
    null, boolean,
    int8, int16, int32, int64,
    uint8, uint16, uint32, uint64,
    float_, double_,
    string, date, url, list, map
};

/// The tagged union behind the three wrappers. Equality holds only between
/// values of the same kind (int32 1 differs from int64 1), lists element by
/// element, maps key by key.
class PALOMIR_API AnyValue {
public:
    /// One alternative per AnyKind, in the same order.
    using Storage = std::variant<std::monostate, bool,
                                 std::int8_t, std::int16_t, std::int32_t, std::int64_t,
                                 std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t,
                                 float, double,
                                 std::string, Date, Url, AnyList, AnyMap>;

    /// @{
    /// A value of the kind the constructor names, holding `v`. Numbers keep
    /// their width, so int32(1) and int64(1) are different values.
    static AnyValue null() { return AnyValue(Storage(std::monostate{})); }
    static AnyValue boolean(bool v) { return AnyValue(Storage(v)); }
    static AnyValue int8(std::int8_t v) { return AnyValue(Storage(v)); }
    static AnyValue int16(std::int16_t v) { return AnyValue(Storage(v)); }
    static AnyValue int32(std::int32_t v) { return AnyValue(Storage(v)); }
    static AnyValue int64(std::int64_t v) { return AnyValue(Storage(v)); }
    static AnyValue uint8(std::uint8_t v) { return AnyValue(Storage(v)); }
    static AnyValue uint16(std::uint16_t v) { return AnyValue(Storage(v)); }
    static AnyValue uint32(std::uint32_t v) { return AnyValue(Storage(v)); }
    static AnyValue uint64(std::uint64_t v) { return AnyValue(Storage(v)); }
    static AnyValue float_(float v) { return AnyValue(Storage(v)); }
    static AnyValue double_(double v) { return AnyValue(Storage(v)); }
    static AnyValue string(std::string v) { return AnyValue(Storage(std::move(v))); }
    static AnyValue date(Date v) { return AnyValue(Storage(v)); }
    static AnyValue url(Url v) { return AnyValue(Storage(std::move(v))); }
    static AnyValue list(AnyList v) { return AnyValue(Storage(std::move(v))); }
    static AnyValue map(AnyMap v) { return AnyValue(Storage(std::move(v))); }
    /// @}

    /// Which alternative the value holds.
    AnyKind kind() const { return static_cast<AnyKind>(_storage.index()); }
    /// Whether it is the JSON null.
    bool isNull() const { return kind() == AnyKind::null; }
    /// The variant itself, for std::visit; borrowed from the value.
    const Storage& storage() const { return _storage; }
    /// The stored value when it is of type T (e.g. get<std::int64_t>()).
    template <class T>
    const T* get() const { return std::get_if<T>(&_storage); }

    /// Same kind and equal contents.
    friend bool operator==(const AnyValue& a, const AnyValue& b) { return a._storage == b._storage; }

private:
    explicit AnyValue(Storage storage) : _storage(std::move(storage)) {}
    Storage _storage;
};

namespace detail {

/// The named constructors shared by the three wrappers.
template <class Self>
class AnyWrapper {
public:
    /// The dynamic value.
    AnyValue value;

    /// @{
    /// A wrapper holding the AnyValue of the same name.
    static Self null() { return Self(AnyValue::null()); }
    static Self boolean(bool v) { return Self(AnyValue::boolean(v)); }
    static Self int8(std::int8_t v) { return Self(AnyValue::int8(v)); }
    static Self int16(std::int16_t v) { return Self(AnyValue::int16(v)); }
    static Self int32(std::int32_t v) { return Self(AnyValue::int32(v)); }
    static Self int64(std::int64_t v) { return Self(AnyValue::int64(v)); }
    static Self uint8(std::uint8_t v) { return Self(AnyValue::uint8(v)); }
    static Self uint16(std::uint16_t v) { return Self(AnyValue::uint16(v)); }
    static Self uint32(std::uint32_t v) { return Self(AnyValue::uint32(v)); }
    static Self uint64(std::uint64_t v) { return Self(AnyValue::uint64(v)); }
    static Self float_(float v) { return Self(AnyValue::float_(v)); }
    static Self double_(double v) { return Self(AnyValue::double_(v)); }
    static Self string(std::string v) { return Self(AnyValue::string(std::move(v))); }
    static Self date(Date v) { return Self(AnyValue::date(v)); }
    static Self url(Url v) { return Self(AnyValue::url(std::move(v))); }
    /// A list of the items' values, in order.
    static Self list(std::vector<Self> items) {
        AnyList list;
        list.reserve(items.size());
        for (auto& item : items) list.push_back(std::move(item.value));
        return Self(AnyValue::list(std::move(list)));
    }
    /// A map of the members' values.
    static Self map(std::map<std::string, Self> members) {
        AnyMap map;
        for (auto& [key, member] : members) map.emplace(key, std::move(member.value));
        return Self(AnyValue::map(std::move(map)));
    }

    /// @}

    /// The kind of the wrapped value.
    AnyKind kind() const { return value.kind(); }

    /// The wrapped values are equal.
    friend bool operator==(const Self& a, const Self& b) { return a.value == b.value; }

protected:
    /// Wraps `v`; only the named constructors and the wrappers call it.
    explicit AnyWrapper(AnyValue v) : value(std::move(v)) {}
};

}  // namespace detail

/// A dynamic value that is decoded and encoded (round-trips through JSON).
class AnyCodable : public detail::AnyWrapper<AnyCodable> {
public:
    /// Wraps `v`.
    explicit AnyCodable(AnyValue v) : AnyWrapper(std::move(v)) {}
};

/// A dynamic value that is only encoded, such as the host's metadata.
class AnyEncodable : public detail::AnyWrapper<AnyEncodable> {
public:
    /// Wraps `v`.
    explicit AnyEncodable(AnyValue v) : AnyWrapper(std::move(v)) {}
};

/// A dynamic value that is only decoded from a backend document.
class AnyDecodable : public detail::AnyWrapper<AnyDecodable> {
public:
    /// Wraps `v`.
    explicit AnyDecodable(AnyValue v) : AnyWrapper(std::move(v)) {}
};

/// Decoding tries, in order: null, boolean, signed 64-bit integer, unsigned
/// 64-bit integer, double, string, array, object. Strings stay strings (no
/// date or URL guessing). A number without fraction is an integer however it
/// is written: 7, 7.0 and 7e0 all decode as int64 7; 7.5 and numbers beyond
/// 64 bits decode as doubles.
///
/// Round trips therefore start from JSON text: text -> value -> text -> value
/// gives two equal values. A value built in code does not always come back
/// as itself: the double 7.0 encodes as 7.0 and decodes as the integer 7,
/// which is a different value (see AnyValue's equality), as is an int32
/// coming back as an int64.
///
/// Arrays and objects may nest at most 512 deep; deeper input fails with
/// "containers nested deeper than 512 levels" (key path "" for text, the
/// crossing member for an nlohmann value).
PALOMIR_DECLARE_DECODING(AnyValue);
PALOMIR_DECLARE_DECODING(AnyCodable);
PALOMIR_DECLARE_DECODING(AnyDecodable);

/// Every width writes as a JSON number, dates in the plRFC3339 form, URLs as
/// their absolute text. A non-finite float or double has no JSON form and
/// fails with "AnyEncodable value cannot be encoded".
/// @{
PALOMIR_API Result<nlohmann::json, EncodingError> encode(const AnyValue& value);
PALOMIR_API Result<nlohmann::json, EncodingError> encode(const AnyCodable& value);
PALOMIR_API Result<nlohmann::json, EncodingError> encode(const AnyEncodable& value);
/// @}

}  // namespace palomir
