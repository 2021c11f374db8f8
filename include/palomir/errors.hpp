#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "palomir/export.hpp"

namespace palomir {

/// A transport-level failure of one exchange.
class PALOMIR_API RequestError {
public:
    enum class Kind { networkError, badStatus, noResponse };

    static RequestError networkError(std::string errorText);
    static RequestError badStatus(int status);
    static RequestError noResponse();

    Kind kind() const { return _kind; }
    /// The transport's own rendering of the failure (networkError only).
    const std::string& networkErrorText() const { return _text; }
    /// The HTTP status (badStatus only).
    int status() const { return _status; }

    /// "Network error: …", "Bad status: 304", "No response".
    std::string localizedDescription() const;

    friend bool operator==(const RequestError&, const RequestError&) = default;

private:
    RequestError(Kind kind, std::string text, int status) : _kind(kind), _text(std::move(text)), _status(status) {}
    Kind _kind;
    std::string _text;
    int _status = 0;
};

/// Everything a backend operation can report.
class PALOMIR_API APIError {
public:
    enum class Kind {
        requestFailed,
        decodingResponseFailure,
        encodingFailed,
        errorResponse,
        apolloError,
        notImplemented,
        invalidURL,
        invalidAppToken,
        invalidUserToken,
        emptyResponse,
    };

    static APIError requestFailed(RequestError error);
    /// `body` is the response body as text (empty when it is not UTF-8);
    /// `error` the decoder's rendering of what went wrong.
    static APIError decodingResponseFailure(std::string body, std::string error);
    static APIError encodingFailed(std::string error);
    static APIError errorResponse(std::optional<std::vector<std::string>> messages);
    static APIError apolloError(std::string error);
    static APIError notImplemented();
    static APIError invalidURL();
    static APIError invalidAppToken();
    static APIError invalidUserToken();
    static APIError emptyResponse();

    Kind kind() const { return _kind; }
    /// The wrapped transport failure (requestFailed only).
    const std::optional<RequestError>& requestError() const { return _requestError; }
    const std::string& body() const { return _body; }
    const std::string& underlyingError() const { return _error; }
    const std::optional<std::vector<std::string>>& messages() const { return _messages; }

    /// The description, when the error has one (an apolloError with an
    /// empty rendering has none).
    std::optional<std::string> errorDescription() const;
    /// The description, or "" when there is none.
    std::string localizedDescription() const;

    friend bool operator==(const APIError&, const APIError&) = default;

private:
    explicit APIError(Kind kind) : _kind(kind) {}
    Kind _kind;
    std::optional<RequestError> _requestError;
    std::string _body;
    std::string _error;
    std::optional<std::vector<std::string>> _messages;
};

/// The client core's error.
class PALOMIR_API PalomirError {
public:
    enum class Kind { requestFailed, missingCredentials, failedToCreateAppInfo };

    static PalomirError requestFailed(APIError error);
    static PalomirError missingCredentials();
    static PalomirError failedToCreateAppInfo();

    Kind kind() const { return _kind; }
    const std::optional<APIError>& apiError() const { return _apiError; }

    /// "Request failed: …", "Missing app token and/or secret", "Failed to create app info".
    std::string errorDescription() const;
    std::string localizedDescription() const { return errorDescription(); }

    friend bool operator==(const PalomirError&, const PalomirError&) = default;

private:
    explicit PalomirError(Kind kind) : _kind(kind) {}
    Kind _kind;
    std::optional<APIError> _apiError;
};

}  // namespace palomir

namespace palomir {

/// The error of operations that report both kinds: check-in and service
/// fetches fail with the backend's APIError as it is, or with a PalomirError
/// for the two local conditions.
class PALOMIR_API Error {
public:
    explicit Error(APIError error) : _api(std::move(error)) {}
    explicit Error(PalomirError error) : _palomir(std::move(error)) {}

    const APIError* apiError() const { return _api ? &*_api : nullptr; }
    const PalomirError* palomirError() const { return _palomir ? &*_palomir : nullptr; }
    std::string localizedDescription() const {
        return _api ? _api->localizedDescription() : _palomir->localizedDescription();
    }

    friend bool operator==(const Error&, const Error&) = default;

private:
    std::optional<APIError> _api;
    std::optional<PalomirError> _palomir;
};

}  // namespace palomir
