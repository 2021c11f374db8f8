#pragma once

/// @file
/// Strict JSON decoding of the data model, and the errors of decoding and encoding.

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "palomir/export.hpp"
#include "palomir/result.hpp"

namespace palomir {

/// Why a JSON document could not be turned into a record. The key path names
/// the offending member ("lockdown.notes[1].identifier"; "" for the document
/// itself), the reason says what was wrong with it.
struct PALOMIR_API DecodingError {
    /// Dotted path to the member, with [index] for array elements.
    std::string keyPath;
    /// What was wrong, for people rather than programs.
    std::string reason;

    /// keyPath + ": " + reason; the reason alone for the document itself.
    std::string message() const;

    /// Same path and reason.
    friend bool operator==(const DecodingError&, const DecodingError&) = default;
};

/// Why a value has no JSON form (only dynamic values can fail to encode).
struct PALOMIR_API EncodingError {
    /// Dotted path to the member, with [index] for array elements.
    std::string keyPath;
    /// What was wrong, for people rather than programs.
    std::string reason;

    /// keyPath + ": " + reason; the reason alone for the document itself.
    std::string message() const;

    /// Same path and reason.
    friend bool operator==(const EncodingError&, const EncodingError&) = default;
};

/// Strict decoding of one record from a JSON value. Defined (as explicit
/// specialisations) for every record of the data model and for the dynamic
/// values; see palomir/model.hpp and palomir/any_codable.hpp. Never throws and
/// never yields a partly decoded record.
template <class T>
Result<T, DecodingError> decode(const nlohmann::json& json);

/// Parses `text` as JSON (as parseJson does) and decodes a T from it. A text
/// that is not JSON fails with key path "" and the parser's message as reason.
template <class T>
Result<T, DecodingError> decodeJson(std::string_view text);

// Declares the decode and decodeJson specialisations that a record provides.
/// Used by the library's own headers to declare what each record provides.
#define PALOMIR_DECLARE_DECODING(T)                                                        \
    template <>                                                                            \
    PALOMIR_API Result<T, DecodingError> decode<T>(const nlohmann::json& json);            \
    template <>                                                                            \
    PALOMIR_API Result<T, DecodingError> decodeJson<T>(std::string_view text)

/// Parses `text` as one JSON document (no comments, nothing after it) whose
/// arrays and objects nest at most 512 deep; deeper text fails with key path
/// "" and "containers nested deeper than 512 levels".
PALOMIR_API Result<nlohmann::json, DecodingError> parseJson(std::string_view text);

}  // namespace palomir
