#pragma once

/// @file
/// The HTTP client of the backend's API, beneath Palomir. Hosts normally use
/// Palomir and never meet it; it is public for hosts that drive the API themselves.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "palomir/app_info.hpp"
#include "palomir/bundle.hpp"
#include "palomir/credentials.hpp"
#include "palomir/errors.hpp"
#include "palomir/export.hpp"
#include "palomir/logging.hpp"
#include "palomir/model.hpp"
#include "palomir/result.hpp"
#include "palomir/url_request.hpp"

namespace palomir {

class HttpSession;
struct APIClientAccess;

/// Where an API client sends its requests and whom it trusts. The defaults
/// are the production backend, pinned with the "<api host>.crt" certificate
/// that the Palomir resource bundle carries.
struct BackendOptions {
    /// The production backend's API.
    static constexpr const char* defaultBaseURL = "https://api.palomir.io/api";

    /// An HTTPS URL; paths are appended to it as text.
    std::string baseURL = defaultBaseURL;
    /// PEM files of certificate authorities to trust beside the system's
    /// (a staging backend or the local sandbox with its own CA).
    std::vector<std::filesystem::path> trustAnchors;
    /// A directory that carries "<api host>.crt" (and other resources); it is
    /// looked in before the compiled-in resources. Empty: the default lookup.
    std::filesystem::path resourceDirectory;
};

/// Seconds of the "Cache-Control" max-age of a response, when it had one.
using MaxAge = std::optional<double>;

/// The one component that talks HTTP to the backend. Every operation
/// completes exactly once, on a network thread, with a record or an APIError.
class PALOMIR_API APIClient : public std::enable_shared_from_this<APIClient> {
public:
    template <class T>
    /// Called exactly once, on a network thread: keep it short or hand off to a queue.
    using Completion = std::function<void(Result<T, APIError>)>;

    /// `urlSession`: when given, both sessions are that one and nothing is
    /// pinned. Palomir itself always passes none.
    static std::shared_ptr<APIClient> make(AppCredentials credentials,
                                           std::shared_ptr<UserCredentials> userCredentials,
                                           std::shared_ptr<HttpSession> urlSession,
                                           std::shared_ptr<Logger> logger,
                                           BackendOptions options = {});
    /// Exchanges under way still complete; their completions keep what they need alive.
    ~APIClient();

    /// The app credentials every request is signed with; fixed for the client's life.
    const AppCredentials& credentials() const { return _credentials; }
    /// The user credentials asked before each request, or null; thread-safe.
    std::shared_ptr<UserCredentials> userCredentials() const;
    /// Replaces them for requests started from now on; thread-safe.
    void setUserCredentials(std::shared_ptr<UserCredentials> userCredentials);
    /// The API's base URL; borrowed from the client.
    const std::string& baseURL() const { return _options.baseURL; }
    /// What the client was made with; borrowed from the client.
    const BackendOptions& options() const { return _options; }

    /// Posts the check-in; the completion receives the decoded configuration.
    void checkin(const AppInfo& info, Completion<Configuration> completion);
    /// Fetches the user's services, or with `systemServices` the system's, and the
    /// answer's max-age.
    void services(const AppInfo& info, bool systemServices,
                  Completion<std::pair<ServicesResponse, MaxAge>> completion);
    /// Fetches one service (or system service) and the answer's max-age.
    void service(const std::string& identifier, const AppInfo& info, bool systemService,
                 Completion<std::pair<Service, MaxAge>> completion);
    /// Announces an upload; the answer says where and with which headers to send the bytes.
    void startDirectUpload(DirectUpload blob, Completion<DirectUploadResponse> completion);
    /// PUTs the bytes to the target as they are, with the target's headers only.
    void directUpload(std::shared_ptr<const std::vector<std::uint8_t>> data,
                      const DirectUploadResponse::DirectUpload& config,
                      std::shared_ptr<HttpSession> session, Completion<bool> completion);
    /// Submits the feedback; the completion receives it as the backend stored it.
    void createFeedback(Feedback feedback, const AppInfo& appInfo, Completion<Feedback> completion);

    /// A signed request for `url` (not sent).
    URLRequest urlRequest(const std::string& url, const std::string& method,
                          const std::optional<AppCredentials>& credentials,
                          std::optional<std::vector<std::uint8_t>> body, const std::string& contentType) const;

    /// Internal: the HTTP sessions a client owns.
    struct Sessions;

private:
    friend struct APIClientAccess;

    APIClient(AppCredentials credentials, std::shared_ptr<UserCredentials> userCredentials,
              std::shared_ptr<Logger> logger, BackendOptions options);

    AppCredentials _credentials;
    mutable std::mutex _userCredentialsMutex;
    std::shared_ptr<UserCredentials> _userCredentials;
    std::shared_ptr<Logger> _logger;
    BackendOptions _options;
    std::shared_ptr<Sessions> _sessions;
};

}  // namespace palomir
