#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "palomir/api_client.hpp"

namespace palomir {

/// The "Cache-Control" max-age: the first case-insensitive match of
/// max-age\s*=\s*([0-9]+), as seconds. Only digits count, so negative or
/// fractional values give nothing.
MaxAge parseMaxAge(std::string_view header);

/// "<host>.crt" from the backend's resource directory, else from Palomir's
/// own resource bundle.
std::optional<std::vector<std::uint8_t>> lookUpPinnedCertificate(const BackendOptions& options, const std::string& host);

/// A successful exchange before its body is decoded.
struct RawBody {
    std::vector<std::uint8_t> body;
    MaxAge maxAge;
};

/// The shared lower layers of the endpoints.
struct APIClientAccess {
    /// Builds, signs and sends one request; classifies the answer.
    static void send(APIClient& client, const std::string& url, const std::string& method,
                     std::shared_ptr<const std::vector<std::uint8_t>> body, bool checkin,
                     std::function<void(Result<RawBody, RequestError>)> completion);

    /// Token and URL checks, encoding, sending and decoding.
    template <class T>
    static void jsonRequest(APIClient& client, const std::string& path, const std::string& method,
                            std::optional<Result<nlohmann::ordered_json, EncodingError>> body, bool checkin,
                            std::function<void(Result<std::pair<T, MaxAge>, APIError>)> completion);
};

}  // namespace palomir
