#include <gtest/gtest.h>

#include "palomir/errors.hpp"

namespace palomir {
namespace {

TEST(ErrorDescriptions, ReadExactly) {
    const std::vector<std::pair<APIError, std::string>> apiErrors{
        {APIError::requestFailed(RequestError::badStatus(304)), "Request failed: Bad status: 304"},
        {APIError::requestFailed(RequestError::networkError("timed out")), "Request failed: Network error: timed out"},
        {APIError::requestFailed(RequestError::noResponse()), "Request failed: No response"},
        {APIError::decodingResponseFailure("<html>", "not JSON"), "Failed to decode response: <html>\nerror:not JSON"},
        {APIError::encodingFailed("NaN"), "Encoding failed: NaN"},
        {APIError::errorResponse(std::vector<std::string>{"a", "b"}), "Error response a, b"},
        {APIError::errorResponse(std::nullopt), "Error response "},
        {APIError::apolloError("graph broke"), "graph broke"},
        {APIError::notImplemented(), "Not implemented"},
        {APIError::invalidURL(), "Invalid URL"},
        {APIError::invalidAppToken(), "Invalid app token"},
        {APIError::invalidUserToken(), "Invalid app user token"},
        {APIError::emptyResponse(), "Empty response"}};
    for (const auto& [error, expected] : apiErrors) EXPECT_EQ(error.localizedDescription(), expected);

    EXPECT_EQ(PalomirError::missingCredentials().errorDescription(), "Missing app token and/or secret");
    EXPECT_EQ(PalomirError::failedToCreateAppInfo().errorDescription(), "Failed to create app info");
    EXPECT_EQ(PalomirError::requestFailed(APIError::requestFailed(RequestError::badStatus(500))).errorDescription(),
              "Request failed: Request failed: Bad status: 500");
    EXPECT_EQ(PalomirError::requestFailed(APIError::apolloError("")).errorDescription(),
              "Request failed: <unknown reason>");
}

}  // namespace
}  // namespace palomir
