#pragma once

// Helpers shared by the tests that drive Palomir against the in-process
// sandbox. The including target defines PALOMIR_SOURCE_DIR and links
// palomir_sandbox and palomir_test_support.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "palomir/environment.hpp"
#include "palomir/palomir.hpp"
#include "palomir_test/client.hpp"
#include "palomir_test/temp_dir.hpp"
#include "sandbox.hpp"

namespace palomir {

using palomir_test::readText;

inline const std::filesystem::path kScenarios =
    std::filesystem::path(PALOMIR_SOURCE_DIR) / "examples" / "scenarios";

// The in-process sandbox with Palomir::shared() pointed at it. Each test
// runs in a process of its own, so the shared client starts fresh.
class SandboxClientTest : public ::testing::Test {
protected:
    /// Serves `options`' scenario (the outage example when none is named)
    /// with the caches in a temporary directory, and gives the client the
    /// sandbox's app credentials. `hostLogger` false keeps the client's own
    /// console and file logger in place of the capturing one; `caches`
    /// replaces the temporary caches directory.
    void startSandbox(sandbox::SandboxOptions options = {}, bool hostLogger = true,
                      const std::optional<std::filesystem::path>& caches = std::nullopt) {
        setCachesDirectory(caches.value_or(_caches.path()));
        // The main bundle of a made-up host, so that the app info can be built.
        Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "com.example.host"},
                                              {"CFBundleDisplayName", "Example"},
                                              {"CFBundleVersion", "42"},
                                              {"CFBundleShortVersionString", "4.2"}},
                               std::nullopt));
        if (options.scenarioFile.empty() && options.scenarioJson.empty())
            options.scenarioFile = kScenarios / "outage.json";
        options.dataDirectory = _data.path();
        options.bundleDirectory = _bundle.path();
        options.logRequests = false;
        _sandbox = std::make_unique<sandbox::Sandbox>(options);
        auto started = _sandbox->start();
        ASSERT_TRUE(started.hasValue()) << started.error();

        auto& palomir = Palomir::shared();
        if (hostLogger) palomir.setLogger(_logger);
        palomir.setBackend(sandboxBackend());
        palomir.setAppCredentials(AppCredentials{options.appToken, options.appSecret});
    }

    BackendOptions sandboxBackend() const {
        return BackendOptions{_sandbox->baseURL(), {_sandbox->caFile()}, _sandbox->bundleDirectory()};
    }

    // A scenario from an example file, with the next timed check-in moved.
    void scenarioFile(const std::string& name, std::optional<int> nextCheckinAfterSeconds = std::nullopt) {
        std::ifstream in(kScenarios / name);
        auto document = nlohmann::json::parse(in);
        if (nextCheckinAfterSeconds) document["next_checkin_after_seconds"] = *nextCheckinAfterSeconds;
        auto set = _sandbox->setScenarioJson(document.dump());
        ASSERT_TRUE(set.hasValue()) << set.error();
    }

    // The one result of an asynchronous call handed a completion for `_queue`.
    template <class T, class E = Error, class Call>
    Result<T, E> await(Call&& call, std::chrono::seconds limit = std::chrono::seconds(60)) {
        Awaited<T, E> awaited(_queue);
        call(awaited.completion());
        return awaited.get(limit);
    }

    Result<Configuration, Error> checkin() {
        return await<Configuration>([this](auto done) { Palomir::shared().checkin(_queue, done); });
    }

    Result<Palomir::ServicesResult, Error> fetchServices() {
        return await<Palomir::ServicesResult>([this](auto done) { Palomir::shared().services(_queue, done); });
    }

    Result<std::string, PalomirError> feedback(const std::string& title, const std::string& message,
                                               std::vector<Attachment> attachments,
                                               std::vector<std::shared_ptr<AttachmentProvider>> providers = {}) {
        return await<std::string, PalomirError>([&](auto done) {
            Palomir::shared().feedback(title, message, "tester@example.com", std::move(attachments),
                                       std::move(providers), _queue, done);
        });
    }

    // A sandbox fault in its textual form, such as "status:500*1".
    void fault(sandbox::Route route, const std::string& text) {
        auto parsed = sandbox::Fault::parse(text);
        ASSERT_TRUE(parsed.hasValue()) << parsed.error();
        _sandbox->setFault(route, parsed.value());
    }

    std::size_t requestsTo(const std::string& method, const std::string& prefix) const {
        const auto requests = _sandbox->requests();
        return std::count_if(requests.begin(), requests.end(),
                             [&](const auto& r) { return r.method == method && r.target.starts_with(prefix); });
    }

    palomir_test::TempDir _caches, _data, _bundle;
    std::unique_ptr<sandbox::Sandbox> _sandbox;
    std::shared_ptr<CapturingLogger> _logger = std::make_shared<CapturingLogger>();
    std::shared_ptr<DispatchQueue> _queue = DispatchQueue::makeSerial("test.delivery");
};

}  // namespace palomir
