#pragma once

// The backend the demo talks to, and what it can tell about the traffic it
// saw: either a sandbox started in this process, or a palomir-sandbox
// program started elsewhere and reached through its admin routes.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "palomir/result.hpp"

namespace demo {

struct SeenRequest {
    std::string method;
    std::string target;
    int status = 0;
    std::string userAuthorization;  // the X-Authorization-User header, "" when absent
};

struct SeenFile {
    std::string filename;
    std::string contentType;
    std::int64_t byteSize = 0;
    bool uploaded = false;
};

struct SeenFeedback {
    std::string title;
    std::string message;
    std::string submittedBy;
    std::vector<SeenFile> files;
};

struct Connection {
    std::string baseURL;
    std::filesystem::path caFile;
    std::filesystem::path bundleDirectory;
    std::string token;
    std::string secret;
    /// What the sandbox's admin routes require.
    std::string adminToken;
};

class Backend {
public:
    virtual ~Backend() = default;
    /// How a client reaches it.
    virtual Connection connection() const = 0;
    /// A description for the heading ("in-process sandbox on port 41234").
    virtual std::string description() const = 0;
    /// Serves another scenario file from now on.
    virtual palomir::Result<bool, std::string> setScenario(const std::filesystem::path& file) = 0;
    /// The client's requests so far, oldest first.
    virtual palomir::Result<std::vector<SeenRequest>, std::string> requests() = 0;
    /// The feedback recorded so far, oldest first.
    virtual palomir::Result<std::vector<SeenFeedback>, std::string> feedback() = 0;
};

struct InProcessOptions {
    std::filesystem::path scenarioFile;
    std::filesystem::path dataDirectory;
    bool logRequests = false;
};

/// Starts a sandbox in this process with a fresh CA and certificate.
palomir::Result<std::unique_ptr<Backend>, std::string> startInProcess(const InProcessOptions& options);

/// A palomir-sandbox that is already running; its admin routes live beside
/// the API ("https://host:port/_sandbox/...").
palomir::Result<std::unique_ptr<Backend>, std::string> connectRemote(Connection connection);

}  // namespace demo
