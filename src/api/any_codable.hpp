#pragma once

// Reading and writing dynamic values inside larger documents, so that a
// record with a free-form member reports failures with the full key path.

#include "model/reading.hpp"
#include "palomir/any_codable.hpp"

namespace palomir::model {

AnyValue read(JsonPath& path, const json& value, Tag<AnyValue>);
AnyCodable read(JsonPath& path, const json& value, Tag<AnyCodable>);
AnyDecodable read(JsonPath& path, const json& value, Tag<AnyDecodable>);

/// Encodes `value`; `keyPath` names where it sits (for the error's key path).
Result<json, EncodingError> encodeAny(const AnyValue& value, const std::string& keyPath);

}  // namespace palomir::model
