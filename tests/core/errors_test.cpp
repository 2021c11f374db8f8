#include <gtest/gtest.h>

#include "palomir/errors.hpp"

namespace palomir {
namespace {

struct DescriptionCase {
    const char* name;
    APIError error;
    std::string expected;
};

class APIErrorDescription : public ::testing::TestWithParam<DescriptionCase> {};

TEST_P(APIErrorDescription, ReadsExactly) { EXPECT_EQ(GetParam().error.localizedDescription(), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    AllCases, APIErrorDescription,
    ::testing::Values(
        DescriptionCase{"badStatus", APIError::requestFailed(RequestError::badStatus(304)),
                        "Request failed: Bad status: 304"},
        DescriptionCase{"network", APIError::requestFailed(RequestError::networkError("timed out")),
                        "Request failed: Network error: timed out"},
        DescriptionCase{"noResponse", APIError::requestFailed(RequestError::noResponse()),
                        "Request failed: No response"},
        DescriptionCase{"decoding", APIError::decodingResponseFailure("<html>", "not JSON"),
                        "Failed to decode response: <html>\nerror:not JSON"},
        DescriptionCase{"encoding", APIError::encodingFailed("NaN"), "Encoding failed: NaN"},
        DescriptionCase{"errorResponseTexts", APIError::errorResponse(std::vector<std::string>{"a", "b"}),
                        "Error response a, b"},
        DescriptionCase{"errorResponseAbsent", APIError::errorResponse(std::nullopt), "Error response "},
        DescriptionCase{"apollo", APIError::apolloError("graph broke"), "graph broke"},
        DescriptionCase{"notImplemented", APIError::notImplemented(), "Not implemented"},
        DescriptionCase{"invalidURL", APIError::invalidURL(), "Invalid URL"},
        DescriptionCase{"invalidAppToken", APIError::invalidAppToken(), "Invalid app token"},
        DescriptionCase{"invalidUserToken", APIError::invalidUserToken(), "Invalid app user token"},
        DescriptionCase{"empty", APIError::emptyResponse(), "Empty response"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PalomirErrorDescription, LocalCasesAndWrappedBackendDescriptions) {
    EXPECT_EQ(PalomirError::missingCredentials().errorDescription(), "Missing app token and/or secret");
    EXPECT_EQ(PalomirError::failedToCreateAppInfo().errorDescription(), "Failed to create app info");
    EXPECT_EQ(PalomirError::requestFailed(APIError::requestFailed(RequestError::badStatus(500))).errorDescription(),
              "Request failed: Request failed: Bad status: 500");
    EXPECT_EQ(PalomirError::requestFailed(APIError::apolloError("")).errorDescription(),
              "Request failed: <unknown reason>");
}

}  // namespace
}  // namespace palomir
