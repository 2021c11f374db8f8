#pragma once

/// @file
/// The HTTP request value that signed backend requests and web requests share.

#include <cctype>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace palomir {

/// An HTTP request as Palomir builds it: signed requests for the backend,
/// and what `Palomir::webRequest` hands to a host that loads a page itself.
/// Headers keep the order they were added in; a name added twice is sent
/// once, its values joined with ", ".
struct URLRequest {
    /// The absolute URL, with its query.
    std::string url;
    /// The HTTP method, in upper case.
    std::string method = "GET";
    /// Name and value pairs, in the order they were added.
    std::vector<std::pair<std::string, std::string>> headers;
    /// The bytes sent as the body; nothing for a request without one.
    std::optional<std::vector<std::uint8_t>> body;
    /// Seconds without progress after which the exchange is given up.
    double timeoutInterval = 60.0;

    /// Appends a header; an existing field of the same name is kept, and both go
    /// out joined with ", ".
    void addValue(std::string value, std::string field) { headers.emplace_back(std::move(field), std::move(value)); }

    /// The value as it goes on the wire: every value of the field (matched
    /// without regard to case), joined with ", "; nothing when absent.
    std::optional<std::string> value(std::string_view field) const {
        std::optional<std::string> joined;
        for (const auto& [name, value] : headers) {
            if (name.size() != field.size()) continue;
            bool same = true;
            for (std::size_t i = 0; i < name.size() && same; ++i)
                same = std::tolower(static_cast<unsigned char>(name[i])) ==
                       std::tolower(static_cast<unsigned char>(field[i]));
            if (!same) continue;
            joined = joined ? *joined + ", " + value : value;
        }
        return joined;
    }
};

}  // namespace palomir
