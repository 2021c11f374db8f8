#pragma once

// palomir-sandbox as a library: a local HTTPS backend that tests, the demo
// and the benchmarks start in their own process.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/result.hpp"

namespace palomir::sandbox {

/// The routes that faults can be set on. `any` ("*") covers them all.
enum class Route { checkin, services, service, directUploads, upload, feedback, any };

/// "checkin", "services", "service", "direct_uploads", "upload", "feedback", "*".
std::string_view toString(Route route);
std::optional<Route> routeFromString(std::string_view text);

/// A way to answer badly, set per route.
struct Fault {
    enum class Kind {
        /// Wait `milliseconds`, then answer normally.
        delay,
        /// Accept the request and send nothing until the client gives up (or
        /// `milliseconds` pass, or the sandbox stops); then close.
        stall,
        /// Answer normally, but one byte every `milliseconds`.
        drip,
        /// Answer `status` with `body` (empty by default).
        status,
        /// 200 with a body that is not JSON.
        malformed,
        /// Announce the whole body's length, send half of it, close.
        truncated,
        /// 200 with no body at all.
        empty,
        /// Close the connection without answering.
        drop,
        /// Answer normally with `body` as the Cache-Control value.
        wrongCacheControl,
        /// Answer normally, padded with an extra member to `megabytes` MB.
        oversized,
        /// Answer 302 with `body` as the Location.
        redirect,
    };

    Kind kind = Kind::delay;
    std::int64_t milliseconds = 0;
    int status = 0;
    std::string body;
    std::size_t megabytes = 0;
    /// How many requests it still applies to; absent: until cleared.
    std::optional<int> remaining;

    /// "delay:MS", "stall[:MS]", "drip[:MS]", "status:CODE[:BODY]", "malformed",
    /// "truncated", "empty", "drop", "cache-control[:VALUE]", "oversized[:MB]", "redirect:URL",
    /// each optionally followed by "*N" to apply to the next N requests only.
    static Result<Fault, std::string> parse(std::string_view text);
    /// The same form as parse() takes.
    std::string description() const;
};

/// "route=kind[:arg][*N]", as given to --fault.
Result<std::pair<Route, Fault>, std::string> parseFaultSetting(std::string_view text);

/// A scenario: what the sandbox serves. Documents are kept as written (the
/// library's encoders do not write colours in their wire form).
struct Scenario {
    std::string name;
    nlohmann::json configuration;
    std::vector<nlohmann::json> services;
    std::vector<nlohmann::json> systemServices;
    /// When set, every check-in answer's next_checkin.automatically_at is
    /// now + this many seconds ("next_checkin_after_seconds").
    std::optional<std::int64_t> nextCheckinAfterSeconds;

    /// Validates with the library's strict decoders; the error names the key
    /// path ("configuration.lockdown.notes[1].identifier: ...").
    static Result<Scenario, std::string> fromJson(const nlohmann::json& document, std::string name = {});
    static Result<Scenario, std::string> fromText(std::string_view text, std::string name = {});
    static Result<Scenario, std::string> fromFile(const std::filesystem::path& path);
};

struct SandboxOptions {
    /// 0 picks a free port.
    int port = 0;
    std::string appToken = "sandbox-token";
    std::string appSecret = "sandbox-secret";
    /// A scenario file, or (when set) a scenario document as JSON text.
    std::filesystem::path scenarioFile = {};
    std::string scenarioJson = {};
    /// Where feedback and uploads are recorded; empty: a fresh temporary
    /// directory, removed when the sandbox goes.
    std::filesystem::path dataDirectory = {};
    /// Where "localhost.crt" (DER) and "ca.pem" are written; empty:
    /// <data directory>/bundle.
    std::filesystem::path bundleDirectory = {};
    /// PEM files of a server certificate chain (leaf first) and its key;
    /// empty: a CA and a localhost certificate are made at start.
    std::filesystem::path certificateFile = {};
    std::filesystem::path keyFile = {};
    /// PEM of the CA that issued it, written as ca.pem; empty: the last
    /// certificate of the given chain.
    std::filesystem::path caCertificateFile = {};
    /// Faults in force from the start.
    std::vector<std::pair<Route, Fault>> faults = {};
    /// Value of the Cache-Control header of service answers.
    std::string cacheControl = "max-age=60";
    /// Largest accepted clock difference of a signature's timestamp.
    std::chrono::seconds timestampTolerance{300};
    /// One line per request on standard error.
    bool logRequests = true;
    /// What the dashboard and the admin routes require, as "?token=" or the
    /// X-Sandbox-Token header; empty: a random one is made at start.
    std::string adminToken = {};
    /// The palomir-preview program the dashboard runs for screen images;
    /// empty: the one beside the running program, when there is one.
    std::filesystem::path previewProgram = {};
};

struct SandboxRequest {
    /// 1, 2, ... in the order received.
    std::int64_t identifier = 0;
    std::chrono::sys_time<std::chrono::milliseconds> receivedAt{};
    std::string method;
    /// With the query, as received.
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    /// 0 when no answer was sent (stall, drop).
    int status = 0;
    /// "ok", "unsigned" (admin and upload routes), or why it was refused:
    /// "missing", "malformed", "unknown-key", "unsupported-method", "stale",
    /// "user-token", "invalid", "replay" (a nonce already answered).
    std::string signature;
    /// With "ok": "path-without-slash" (how the Palomir client signs) or
    /// "path-as-sent" (RFC 5849, as general OAuth 1.0 tools sign).
    std::string signatureForm;
    /// The fault applied, in Fault::description() form; empty when none.
    std::string fault;

    /// The first value of a header (any letter case), or "".
    std::string header(std::string_view name) const;
};

struct RecordedUpload {
    std::int64_t identifier = 0;
    std::string key;
    std::string filename;
    std::string signedID;
    std::int64_t byteSize = 0;
    std::string checksum;
    std::string contentType;
    /// Whether bytes matching size and checksum arrived.
    bool uploaded = false;
    /// Where the bytes were stored (once uploaded).
    std::filesystem::path file;
    /// Why the last bytes sent for it were refused ("Checksum mismatch", ...).
    std::string problem;
};

struct RecordedFeedback {
    std::int64_t identifier = 0;
    std::string title;
    std::string message;
    std::string submittedBy;
    std::vector<std::string> files;  // signed ids, as sent
    nlohmann::json appInfo;
    /// The uploads the signed ids name, in the same order.
    std::vector<RecordedUpload> attachments;
    /// The directory holding feedback.json and copies of the attached files.
    std::filesystem::path directory;
};

class Sandbox {
public:
    explicit Sandbox(SandboxOptions options = {});
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    /// Loads the scenario, prepares certificates and directories and starts
    /// listening on 127.0.0.1. Returns once requests are accepted.
    Result<bool, std::string> start();
    /// Stops listening, ends stalled and dripping answers, waits for the
    /// server's threads.
    void stop();
    /// Stops listening, ends stalled, delayed and dripping answers and
    /// returns once every request in flight is recorded, without waiting for
    /// idle keep-alive connections, which hold stop() for up to 2 s. For a
    /// process about to exit.
    void interrupt();
    bool running() const;

    int port() const;
    /// "https://localhost:<port>/api".
    std::string baseURL() const;
    const std::filesystem::path& dataDirectory() const;
    const std::filesystem::path& bundleDirectory() const;
    /// <bundle directory>/localhost.crt (DER of the server certificate).
    std::filesystem::path certificateFile() const;
    /// <bundle directory>/ca.pem.
    std::filesystem::path caFile() const;
    /// The token the dashboard and the admin routes require.
    const std::string& adminToken() const;
    /// "https://localhost:<port>/?token=<admin token>".
    std::string dashboardURL() const;
    /// Whether this start made a CA that the data directory keeps for the
    /// next start (so a browser trusting it once keeps trusting it).
    bool madeLastingAuthority() const;

    /// Switches what is served; on failure the current scenario stays and the
    /// error names the offending key path.
    Result<bool, std::string> setScenario(const std::filesystem::path& file);
    Result<bool, std::string> setScenarioJson(std::string_view json);
    void setScenario(Scenario scenario);
    Scenario scenario() const;

    void setFault(Route route, Fault fault);
    void clearFault(Route route);
    void clearFaults();
    std::map<Route, Fault> faults() const;

    std::vector<RecordedFeedback> recordedFeedback() const;
    std::vector<RecordedUpload> recordedUploads() const;
    std::vector<SandboxRequest> requests() const;
    /// Forgets faults, requests, uploads and feedback (files on disk stay) and
    /// restores the scenario given at start.
    void reset();

    struct State;

private:
    std::shared_ptr<State> _state;
};

/// JSON forms used by the admin routes.
nlohmann::json toJson(const SandboxRequest& request);
nlohmann::json toJson(const RecordedUpload& upload);
nlohmann::json toJson(const RecordedFeedback& feedback);

}  // namespace palomir::sandbox
