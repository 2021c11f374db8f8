#pragma once

/// @file
/// Palomir, the client a host talks to.

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "palomir/api_client.hpp"
#include "palomir/app_info.hpp"
#include "palomir/credentials.hpp"
#include "palomir/dispatch.hpp"
#include "palomir/errors.hpp"
#include "palomir/export.hpp"
#include "palomir/logging.hpp"
#include "palomir/model.hpp"
#include "palomir/notification_center.hpp"
#include "palomir/presentation.hpp"
#include "palomir/result.hpp"
#include "palomir/url_request.hpp"

namespace palomir {

/// The one object through which a host uses Palomir: `Palomir::shared()`.
///
/// Calls may come from any thread. Every completion is delivered on the
/// queue the caller passes, always asynchronously (never inside the call),
/// also for answers from memory and for local failures. Screen work
/// (`lockdownIfNeeded`) runs on the main queue.
class PALOMIR_API Palomir final : public AttachmentProvider {
public:
    /// Called exactly once, asynchronously, on the queue the caller passed.
    template <class T, class E = Error>
    using Completion = std::function<void(Result<T, E>)>;
    /// The services and the answer's "Cache-Control" max-age.
    using ServicesResult = std::pair<std::vector<Service>, MaxAge>;
    /// One service and the answer's max-age.
    using ServiceResult = std::pair<Service, MaxAge>;

    /// Notification names, posted on `notificationCenter()` with a `Service`
    /// or a `std::vector<Service>` as the object. `systemServicesUpdated` has
    /// the same text as `systemServiceUpdated`, so an observer of either
    /// receives both kinds of post.
    /// @{
    static constexpr std::string_view serviceUpdated = "serviceUpdated";
    static constexpr std::string_view servicesUpdated = "servicesUpdated";
    static constexpr std::string_view systemServiceUpdated = "systemServiceUpdated";
    static constexpr std::string_view systemServicesUpdated = "systemServiceUpdated";
    /// @}

    /// Where a service message banner is anchored in the host's screen (see
    /// palomir::qt::updateMessageView); `top` is 0 and `bottom` 1.
    enum class MessageViewLocation { top = 0, bottom = 1 };

    /// Created on first use, never destroyed.
    static Palomir& shared();

    Palomir(const Palomir&) = delete;
    Palomir& operator=(const Palomir&) = delete;

    /// Where service fetches are announced; lives as long as the client (for ever).
    NotificationCenter& notificationCenter() { return *_notificationCenter; }

    /// The app credentials set last, if any.
    std::optional<AppCredentials> appCredentials() const;
    /// Rebuilds the API client; the user credentials of the previous client
    /// are kept. Nothing clears them but setting no app credentials.
    void setAppCredentials(std::optional<AppCredentials> credentials);
    /// The user credentials of the current API client, or null.
    std::shared_ptr<UserCredentials> userCredentials() const;
    /// Rebuilds the API client. Without app credentials the value is
    /// discarded: user credentials live only inside an API client.
    void setUserCredentials(std::shared_ptr<UserCredentials> credentials);
    /// @{
    /// The app description sent with check-ins and feedback. Unset, it is made
    /// from the main bundle on first need; set, it replaces that.
    std::optional<AppInfo> appInfo() const;
    void setAppInfo(std::optional<AppInfo> info);
    /// @}
    /// @{
    /// The API client operations go through; null without app credentials.
    /// Setting one replaces what the credentials and backend built.
    std::shared_ptr<APIClient> client() const;
    void setClient(std::shared_ptr<APIClient> client);
    /// @}

    /// @{
    /// The configuration of the last successful check-in (a copy), which
    /// checkin() answers from while it is fresh.
    std::optional<Configuration> configuration() const;
    void setConfiguration(std::optional<Configuration> configuration);
    /// @}
    /// The services of the last successful services() fetch (a copy).
    std::optional<std::vector<Service>> services() const;
    /// The system services of the last successful fetch (a copy).
    std::optional<std::vector<Service>> systemServices() const;
    /// The client's serial queue, on which feedback submissions run one at a time.
    std::shared_ptr<DispatchQueue> queue() const { return _queue; }
    /// Screens presented by `lockdownIfNeeded`, in order; never shrinks.
    std::vector<std::shared_ptr<ConfigurableViewController>> viewControllers() const;

    /// The logger every component writes to.
    std::shared_ptr<Logger> logger() const;
    /// API clients built later use the new logger; earlier ones keep theirs.
    void setLogger(std::shared_ptr<Logger> logger);

    /// Points the client at another backend (staging, the local sandbox) and
    /// rebuilds the API client. Not in effect for exchanges under way.
    void setBackend(BackendOptions options);
    /// The backend set last, or the default one.
    BackendOptions backend() const;

    /// The held configuration while its next timed check-in lies in the
    /// future (or it names none); otherwise a fresh one from the backend.
    void checkin(std::shared_ptr<DispatchQueue> queue, Completion<Configuration> completion = {});
    /// A signed GET request for a backend web page that the host loads itself.
    void webRequest(const std::string& url, std::shared_ptr<DispatchQueue> queue,
                    Completion<URLRequest> completion = {});

    /// Checks in, then presents or dismisses the lockdown screen on `window`
    /// (on the main queue). `animated` is accepted and ignored: the flow
    /// decides. `completion` runs on the main thread, at most once, and this
    /// is the one path where a completion may never run: when a lockdown is in
    /// force but there is nowhere to present it (no window, a window that
    /// makes no screen, or one without a root view controller), the old
    /// screens are dismissed, nothing is presented and `completion` is not
    /// called. A screen that was made stays in `viewControllers`.
    void lockdownIfNeeded(std::shared_ptr<Window> window, bool animated,
                          std::function<void(DismissAction)> dismissCallback,
                          std::function<void(LockdownResult)> completion);

    /// Fetches the user's services, stores them, posts servicesUpdated
    /// with the list and serviceUpdated with each, then completes. Fails with
    /// missing credentials before
    /// any request when no app credentials are set.
    void services(std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion = {});
    /// Fetches one service by identifier and posts serviceUpdated with it.
    void service(const std::string& identifier, std::shared_ptr<DispatchQueue> queue,
                 Completion<ServiceResult> completion = {});
    /// As services(), for the system's services; posts systemServicesUpdated.
    void systemServices(std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion = {});
    /// As service(), for one system service; posts systemServiceUpdated.
    void systemService(const std::string& identifier, std::shared_ptr<DispatchQueue> queue,
                       Completion<ServiceResult> completion = {});

    /// Uploads every attachment, then submits the feedback naming them.
    /// Success carries the empty text.
    void feedback(const std::string& title, const std::string& message, const std::string& submittedBy,
                  std::vector<Attachment> attachments,
                  std::vector<std::shared_ptr<AttachmentProvider>> attachmentProviders,
                  std::shared_ptr<DispatchQueue> queue, Completion<std::string, PalomirError> completion = {});
    /// As above, reading each file; a file that cannot be read is left out.
    void feedback(const std::string& title, const std::string& message, const std::string& submittedBy,
                  const std::vector<std::filesystem::path>& fileAttachments,
                  std::vector<std::shared_ptr<AttachmentProvider>> attachmentProviders,
                  std::shared_ptr<DispatchQueue> queue, Completion<std::string, PalomirError> completion = {});

    /// One attachment per log file of the client's file logger.
    std::vector<Attachment> feedbackAttachments() override;
    /// The log files on disk, oldest first; they may still grow.
    std::vector<std::filesystem::path> logFiles() const;

    /// Internal state.
    struct Impl;

private:
    Palomir();
    ~Palomir() override;

    /// What every backend operation needs first, or the local failure.
    Result<std::pair<std::shared_ptr<APIClient>, AppInfo>, PalomirError> clientAndAppInfo() const;
    void fetchServices(bool system, std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion);
    void fetchService(const std::string& identifier, bool system, std::shared_ptr<DispatchQueue> queue,
                      Completion<ServiceResult> completion);

    std::unique_ptr<NotificationCenter> _notificationCenter;
    std::shared_ptr<DispatchQueue> _queue;
    std::shared_ptr<Impl> _impl;
};

}  // namespace palomir
