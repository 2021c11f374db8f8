#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "palomir/client.hpp"

namespace palomir {

struct Palomir::Impl {
    // Guards only `client` and `appInfo`. Recursive: the app-credentials
    // update reads the user credentials while holding it.
    mutable std::recursive_mutex lock;
    std::shared_ptr<APIClient> client;
    std::optional<AppInfo> appInfo;

    // Everything else is shared with network threads too; it gets a plain
    // mutex of its own, never held across a call out.
    mutable std::mutex stateMutex;
    std::optional<AppCredentials> appCredentials;
    std::shared_ptr<const Configuration> configuration;
    std::optional<std::vector<Service>> services;
    std::optional<std::vector<Service>> systemServices;
    std::vector<std::shared_ptr<ConfigurableViewController>> viewControllers;
    std::shared_ptr<Logger> logger;
    std::shared_ptr<FileLogger> fileLogger;
    BackendOptions backend;
};

/// One feedback submission on its way through the client's queue.
struct FeedbackJob {
    Feedback feedback;
    std::vector<Attachment> attachments;
    AppInfo appInfo;
};

/// Announces and uploads every attachment in parallel, waits for all of
/// them, then submits the feedback. Runs on the client's queue.
void runFeedback(APIClient& client, FeedbackJob& job,
                 const std::function<void(Result<std::string, PalomirError>)>& deliver);

/// The message to submit (its first 1000 characters) and whether it was cut.
std::pair<std::string, bool> shortenedMessage(const std::string& message);

/// ["<note description>", ...] with each element quoted as logs show texts.
std::string describeNotes(const std::vector<Note>& notes);
/// [Service(name: "…", …), ...]
std::string describeServices(const std::vector<Service>& services);

}  // namespace palomir
