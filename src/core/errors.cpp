#include "palomir/errors.hpp"

namespace palomir {

RequestError RequestError::networkError(std::string errorText) {
    return RequestError(Kind::networkError, std::move(errorText), 0);
}
RequestError RequestError::badStatus(int status) { return RequestError(Kind::badStatus, {}, status); }
RequestError RequestError::noResponse() { return RequestError(Kind::noResponse, {}, 0); }

std::string RequestError::localizedDescription() const {
    switch (_kind) {
        case Kind::networkError: return "Network error: " + _text;
        case Kind::badStatus: return "Bad status: " + std::to_string(_status);
        case Kind::noResponse: return "No response";
    }
    return {};
}

APIError APIError::requestFailed(RequestError error) {
    APIError e(Kind::requestFailed);
    e._requestError = std::move(error);
    return e;
}
APIError APIError::decodingResponseFailure(std::string body, std::string error) {
    APIError e(Kind::decodingResponseFailure);
    e._body = std::move(body);
    e._error = std::move(error);
    return e;
}
APIError APIError::encodingFailed(std::string error) {
    APIError e(Kind::encodingFailed);
    e._error = std::move(error);
    return e;
}
APIError APIError::errorResponse(std::optional<std::vector<std::string>> messages) {
    APIError e(Kind::errorResponse);
    e._messages = std::move(messages);
    return e;
}
APIError APIError::apolloError(std::string error) {
    APIError e(Kind::apolloError);
    e._error = std::move(error);
    return e;
}
APIError APIError::notImplemented() { return APIError(Kind::notImplemented); }
APIError APIError::invalidURL() { return APIError(Kind::invalidURL); }
APIError APIError::invalidAppToken() { return APIError(Kind::invalidAppToken); }
APIError APIError::invalidUserToken() { return APIError(Kind::invalidUserToken); }
APIError APIError::emptyResponse() { return APIError(Kind::emptyResponse); }

std::optional<std::string> APIError::errorDescription() const {
    switch (_kind) {
        case Kind::requestFailed: return "Request failed: " + _requestError->localizedDescription();
        case Kind::decodingResponseFailure: return "Failed to decode response: " + _body + "\nerror:" + _error;
        case Kind::encodingFailed: return "Encoding failed: " + _error;
        case Kind::errorResponse: {
            std::string text = "Error response ";
            if (_messages) {
                for (std::size_t i = 0; i < _messages->size(); ++i) {
                    if (i > 0) text += ", ";
                    text += (*_messages)[i];
                }
            }
            return text;
        }
        // An error from another layer carries only its own rendering, which
        // may be empty: then there is nothing to describe it by.
        case Kind::apolloError: return _error.empty() ? std::nullopt : std::optional<std::string>(_error);
        case Kind::notImplemented: return "Not implemented";
        case Kind::invalidURL: return "Invalid URL";
        case Kind::invalidAppToken: return "Invalid app token";
        case Kind::invalidUserToken: return "Invalid app user token";
        case Kind::emptyResponse: return "Empty response";
    }
    return std::nullopt;
}

std::string APIError::localizedDescription() const { return errorDescription().value_or(std::string()); }

PalomirError PalomirError::requestFailed(APIError error) {
    PalomirError e(Kind::requestFailed);
    e._apiError = std::move(error);
    return e;
}
PalomirError PalomirError::missingCredentials() { return PalomirError(Kind::missingCredentials); }
PalomirError PalomirError::failedToCreateAppInfo() { return PalomirError(Kind::failedToCreateAppInfo); }

std::string PalomirError::errorDescription() const {
    switch (_kind) {
        case Kind::requestFailed:
            return "Request failed: " + _apiError->errorDescription().value_or("<unknown reason>");
        case Kind::missingCredentials: return "Missing app token and/or secret";
        case Kind::failedToCreateAppInfo: return "Failed to create app info";
    }
    return {};
}

}  // namespace palomir
