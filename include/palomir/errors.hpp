#pragma once

/// @file
/// The errors completions carry. Every error is a value: copyable, comparable,
/// safe to keep and to pass between threads.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "palomir/export.hpp"

namespace palomir {

/// A transport-level failure of one exchange.
class PALOMIR_API RequestError {
public:
    /// What went wrong: `networkError`, the transport failed (DNS, TLS,
    /// pinning, timeout, reset); `badStatus`, the server answered with a
    /// status outside 200-299; `noResponse`, the exchange ended without an
    /// HTTP response.
    enum class Kind { networkError, badStatus, noResponse };

    /// @{
    /// One constructor per kind, taking what that kind carries.
    static RequestError networkError(std::string errorText);
    static RequestError badStatus(int status);
    static RequestError noResponse();
    /// @}

    /// Which failure this is; the accessors below say which kind fills them.
    Kind kind() const { return _kind; }
    /// The transport's own rendering of the failure (networkError only).
    const std::string& networkErrorText() const { return _text; }
    /// The HTTP status (badStatus only).
    int status() const { return _status; }

    /// "Network error: …", "Bad status: 304", "No response".
    std::string localizedDescription() const;

    /// Same kind and same details.
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
    /// What went wrong, and the description each kind gives:
    /// - `requestFailed`: the exchange failed; "Request failed: " + the RequestError's.
    /// - `decodingResponseFailure`: the answer was not the expected document;
    ///   "Failed to decode response: " + body + "\nerror:" + reason.
    /// - `encodingFailed`: the request body had no JSON form; "Encoding failed: " + reason.
    /// - `errorResponse`: the backend answered with error messages; "Error response "
    ///   + the messages joined with ", ".
    /// - `apolloError`: a failure from another layer, described by its own text (possibly none).
    /// - `notImplemented`: "Not implemented".
    /// - `invalidURL`: the request URL could not be made from the base URL; "Invalid URL".
    /// - `invalidAppToken`: the app token cannot go into a URL path; "Invalid app token".
    /// - `invalidUserToken`: "Invalid app user token".
    /// - `emptyResponse`: a success status with no body; "Empty response".
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

    /// @{
    /// One constructor per kind, taking what that kind carries.
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
    /// @}

    /// Which failure this is; the accessors below say which kind fills them.
    Kind kind() const { return _kind; }
    /// The wrapped transport failure (requestFailed only).
    const std::optional<RequestError>& requestError() const { return _requestError; }
    /// The response body as text (decodingResponseFailure only).
    const std::string& body() const { return _body; }
    /// The reason (decodingResponseFailure, encodingFailed, apolloError).
    const std::string& underlyingError() const { return _error; }
    /// The backend's messages (errorResponse only; nothing when it sent none).
    const std::optional<std::vector<std::string>>& messages() const { return _messages; }

    /// The description, when the error has one (an apolloError with an
    /// empty rendering has none).
    std::optional<std::string> errorDescription() const;
    /// The description, or "" when there is none.
    std::string localizedDescription() const;

    /// Same kind and same details.
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
    /// What went wrong: `requestFailed`, the backend operation failed
    /// (apiError() says how); `missingCredentials`, no app credentials were
    /// set before the operation; `failedToCreateAppInfo`, the host's bundle
    /// lacks its identifier or version.
    enum class Kind { requestFailed, missingCredentials, failedToCreateAppInfo };

    /// @{
    /// One constructor per kind.
    static PalomirError requestFailed(APIError error);
    static PalomirError missingCredentials();
    static PalomirError failedToCreateAppInfo();
    /// @}

    /// Which failure this is.
    Kind kind() const { return _kind; }
    /// The backend's error (requestFailed only).
    const std::optional<APIError>& apiError() const { return _apiError; }

    /// "Request failed: …", "Missing app token and/or secret", "Failed to create app info".
    std::string errorDescription() const;
    /// The same text as errorDescription().
    std::string localizedDescription() const { return errorDescription(); }

    /// Same kind and same details.
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
    /// Wraps a backend error.
    explicit Error(APIError error) : _api(std::move(error)) {}
    /// Wraps a local error.
    explicit Error(PalomirError error) : _palomir(std::move(error)) {}

    /// The backend error, or null; borrowed from this Error.
    const APIError* apiError() const { return _api ? &*_api : nullptr; }
    /// The local error, or null; borrowed from this Error. Exactly one of the two is set.
    const PalomirError* palomirError() const { return _palomir ? &*_palomir : nullptr; }
    /// The wrapped error's description: the text to show or log.
    std::string localizedDescription() const {
        return _api ? _api->localizedDescription() : _palomir->localizedDescription();
    }

    /// The same wrapped error.
    friend bool operator==(const Error&, const Error&) = default;

private:
    std::optional<APIError> _api;
    std::optional<PalomirError> _palomir;
};

}  // namespace palomir
