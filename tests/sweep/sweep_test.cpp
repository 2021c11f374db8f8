// Reliability and security sweep: the client against hostile servers, bad
// input from the host, failing files, and a scan for leaked secrets. Every
// case checks the exact outcome and that each completion arrives once.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <thread>

#include "support.hpp"

namespace palomir {
namespace {

// The address sanitizer's allocator keeps freed memory in quarantine and
// adds shadow memory, so resident-memory bounds only mean something without it.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryIsMeasurable = false;
#else
constexpr bool kMemoryIsMeasurable = true;
#endif

using namespace std::chrono_literals;
namespace fs = std::filesystem;
namespace sb = palomir::sandbox;

// The peak resident memory of this process so far, in kB.
long peakKilobytes() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("VmHWM:")) return std::stol(line.substr(6));
    return 0;
}

// What the process printed to its standard output (the file logger's own
// messages; the console logger writes to the error stream) while `run` ran,
// and a moment after, for the file logger's writer thread.
std::string printedDuring(const std::function<void()>& run) {
    ::testing::internal::CaptureStdout();
    run();
    std::this_thread::sleep_for(300ms);
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

const std::string kMissing = "Missing app token and/or secret";
const std::string kBadStatus = "Request failed: Bad status: ";
const std::string kNetwork = "Request failed: Network error: ";
const std::string kEmptyReply = kNetwork + "Empty reply from server";
// The sandbox's malformed body, then the parser's own words.
const std::string kMalformed =
    "Failed to decode response: {\"version\": \"sandbox\", \"theme\": [oops\nerror:"
    "[json.exception.parse_error.101] parse error at line 1, column 34: syntax error while parsing value - invalid "
    "literal; last read: '\"theme\": [o'";

// The error text of a result, or "" for success.
template <class R>
std::string outcomeText(const R& result) {
    return result.hasValue() ? std::string() : result.error().localizedDescription();
}

class Sweep : public SandboxClientTest {};

// ---------------------------------------------------------------------------
// Hostile servers

struct HostileCase {
    std::string name;
    /// The route whose endpoint is called and given the fault.
    sb::Route endpoint;
    std::string fault;
    /// The completion's error text; for a direct upload, the text logged
    /// after "failed to start direct upload: " (the feedback still succeeds);
    /// "" for success. Ending in a blank, only the beginning: the transfer
    /// library's own words follow.
    std::string expected;
    double maxSeconds = 10;
};

void PrintTo(const HostileCase& row, std::ostream* out) { *out << row.name; }

class HostileServer : public Sweep, public ::testing::WithParamInterface<HostileCase> {
protected:
    // The outcome text of one call, with the number of requests it made to
    // its route.
    std::pair<std::string, std::size_t> call(sb::Route endpoint) {
        switch (endpoint) {
            case sb::Route::checkin: return {outcomeText(checkin()), requestsTo("PUT", "/api/checkin/")};
            case sb::Route::services: return {outcomeText(fetchServices()), requestsTo("GET", "/api/services")};
            case sb::Route::service: {
                auto result = await<Palomir::ServiceResult>(
                    [this](auto done) { Palomir::shared().service("photos", _queue, done); });
                return {outcomeText(result), requestsTo("GET", "/api/services/photos")};
            }
            case sb::Route::directUploads: {
                auto result = feedback("t", "m", {Attachment::fromText("a.txt", std::nullopt, "bytes")});
                EXPECT_TRUE(result.hasValue()) << result.error().errorDescription();
                const std::string lead = "failed to start direct upload: ";
                return {_logger->logged(lead, LogType::default_).value_or(lead).substr(lead.size()),
                        requestsTo("POST", "/api/direct_uploads")};
            }
            default: return {outcomeText(feedback("t", "m", {})), requestsTo("POST", "/api/feedback")};
        }
    }
};

TEST_P(HostileServer, FailsOnceWithTheExactErrorAndNoRetry) {
    const auto& row = GetParam();
    startSandbox();
    fault(row.endpoint, row.fault);

    const auto peakBefore = peakKilobytes();
    const auto start = std::chrono::steady_clock::now();
    auto [observed, requests] = call(row.endpoint);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(row.expected.ends_with(' ') ? observed.substr(0, row.expected.size()) : observed, row.expected);
    EXPECT_LT(seconds, row.maxSeconds);
    EXPECT_EQ(requests, 1u);
    // A body far beyond the limit is refused, not held: the peak grows by
    // the limit at most, not by the body.
    if (row.fault.rfind("oversized", 0) == 0 && kMemoryIsMeasurable) {
        EXPECT_LT(peakKilobytes() - peakBefore, 25 * 1024);
    }
}

std::vector<HostileCase> hostileCases() {
    using E = sb::Route;
    // Rows that need an endpoint of their own: the check-in session's short
    // limits, and the key path that only a list answer carries.
    std::vector<HostileCase> cases = {
        // The check-in session gives up after 1 s without data or 5 s in all.
        {"checkin_stall", E::checkin, "stall", kNetwork + "The request timed out: no data for 1000 ms", 3},
        {"checkin_drip", E::checkin, "drip:50", kNetwork + "The request timed out: not complete after 5000 ms", 7},
        // An informational status is no answer: the transfer waits for the
        // final one until the idle limit (60 s on the other sessions).
        {"checkin_199", E::checkin, "status:199", kNetwork + "The request timed out: no data for 1000 ms", 3},
        // The key path of a wrong member reaches the host.
        {"services_wrong_member", E::services, R"(status:200:{"services":[{"name":7}]})",
         "Failed to decode response: {\"services\":[{\"name\":7}]}\nerror:services[0].name: expected a string, "
         "found number"},
    };

    // Every endpoint against every fault that ends the same way on all of
    // them. Feedback wraps the error; a failed upload start is logged and the
    // feedback goes on without the file.
    const std::vector<HostileCase> common = {
        // A stall that ends in a closed connection, well before the 60 s idle
        // limit of the sessions other than check-in's.
        {"stall_then_close", {}, "stall:1500", kEmptyReply, 8},
        {"truncated", {}, "truncated", kNetwork + "transfer closed with "},
        {"drop", {}, "drop", kEmptyReply},
        {"204", {}, "status:204", "Empty response"},
        {"304", {}, "status:304", kBadStatus + "304"},
        {"401", {}, "status:401", kBadStatus + "401"},
        {"500", {}, "status:500", kBadStatus + "500"},
        {"empty", {}, "empty", "Empty response"},
        {"wrong_types", {}, "status:200:[7]", "Failed to decode response: [7]\nerror:expected an object, found array"},
        {"malformed", {}, "malformed", kMalformed},
        {"oversized", {}, "oversized:50", kNetwork + "The response body is larger than 10485760 bytes"},
        // Redirects are answers, never followed: not to plain HTTP (nothing
        // listens on the discard port, so following would fail differently),
        // not to another host.
        {"redirect_to_http", {}, "redirect:http://127.0.0.1:9/api/", kBadStatus + "302"},
        {"redirect_to_other_host", {}, "redirect:https://other.example/api/", kBadStatus + "302"},
    };
    for (auto endpoint : {E::checkin, E::services, E::service, E::directUploads, E::feedback})
        for (auto row : common) {
            // Check-in's own idle limit ends a stall first (its row is above).
            if (endpoint == E::checkin && row.name == "stall_then_close") continue;
            row.name = std::string(sb::toString(endpoint)) + "_" + row.name;
            row.endpoint = endpoint;
            if (endpoint == E::feedback) row.expected = "Request failed: " + row.expected;
            cases.push_back(row);
        }
    return cases;
}
INSTANTIATE_TEST_SUITE_P(Faults, HostileServer, ::testing::ValuesIn(hostileCases()),
                         [](const auto& info) { return info.param.name; });

// ---------------------------------------------------------------------------
// Bad input from the host

TEST_F(Sweep, BadCredentialsAreRefusedLocallyOrSentCleanly) {
    startSandbox();
    const struct {
        std::string token;
        std::string secret;
        std::string expected;
        bool sent;
    } rows[] = {
        // A line break would split the header it travels in.
        {"tok\nen", "sandbox-secret", "Invalid app token", false},
        // Characters that do stand in a URL: the token is sent and the backend refuses it.
        {"a/b?c#d", "sandbox-secret", kBadStatus + "401", true},
        // The transfer library refuses the megabyte header before anything is sent.
        {std::string(1 << 20, 'a'), "sandbox-secret", kNetwork + "Out of memory", false},
        // Any secret signs, however long and whatever its bytes; the backend
        // tells it is the wrong one.
        {"sandbox-token", std::string(1 << 20, 's') + "\xff\xfe", kBadStatus + "401", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.token.substr(0, 16) + " / " + row.secret.substr(0, 16));
        const auto before = _sandbox->requests().size();
        Palomir::shared().setAppCredentials(AppCredentials{row.token, row.secret});
        EXPECT_EQ(outcomeText(checkin()), row.expected);
        EXPECT_EQ(_sandbox->requests().size() - before, row.sent ? 1u : 0u);
    }
}

// Text that is not UTF-8 travels with U+FFFD for each bad byte; an empty and
// a large attachment arrive whole, and the large one is not copied on its way.
TEST_F(Sweep, BadTextAndEmptyAndLargeAttachmentsReachTheBackend) {
    startSandbox();
    std::vector<std::uint8_t> big(std::size_t(50) * 1024 * 1024);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 131 + (i >> 12));
    const auto peakBefore = peakKilobytes();
    auto result = feedback("Crash \xff\xfe title", "bad \xc3\x28 bytes \x80",
                           {Attachment::fromData("empty.bin", "application/octet-stream", {}),
                            Attachment::fromData("big.bin", "application/octet-stream", std::move(big))});
    const auto peakGrowth = peakKilobytes() - peakBefore;
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].title, "Crash \xEF\xBF\xBD\xEF\xBF\xBD title");
    EXPECT_EQ(recorded[0].message, "bad \xEF\xBF\xBD( bytes \xEF\xBF\xBD");
    // The sandbox marks an upload done only when its bytes match the size
    // and checksum announced.
    ASSERT_EQ(recorded[0].attachments.size(), 2u);
    EXPECT_TRUE(recorded[0].attachments[0].uploaded && recorded[0].attachments[1].uploaded);
    // The bytes were in memory before the call, and the sandbox in this
    // process holds the received body as well (its growing receive buffer
    // alone peaks near two copies); beyond that the client adds no copies.
    if (kMemoryIsMeasurable) {
        EXPECT_LT(peakGrowth, 3 * 50 * 1024);
    }
}

// Before any credentials a page request completes once, on its queue, with
// the error; without a completion nothing is delivered and nothing breaks.
// The calls that need the app description as well share one way in, which
// the C facade's tests take with check-in and feedback.
TEST_F(Sweep, OperationsBeforeAnyCredentialsCompleteOnceWithMissingCredentials) {
    setCachesDirectory(_caches.path());
    auto& palomir = Palomir::shared();
    EXPECT_EQ(outcomeText(await<URLRequest>([&](auto done) { palomir.webRequest("https://example.com/", _queue, done); })),
              kMissing);
    palomir.checkin(_queue);
    palomir.feedback("t", "m", "s", std::vector<Attachment>{}, {}, _queue);
    std::promise<void> drained;
    _queue->async([&] { drained.set_value(); });
    drained.get_future().wait();
}

// The client's own plumbing: a caches directory that cannot be made is
// printed about, never reported, and check-in goes on.
TEST_F(Sweep, ACachesDirectoryThatCannotBeMadeLeavesCheckinWorkingAndPrintsTheLoggerMessages) {
    palomir_test::TempDir root;
    std::ofstream(root / "plain-file") << "not a directory";
    sb::SandboxOptions options;
    options.scenarioFile = kScenarios / "notes-only.json";
    std::optional<Result<Configuration, Error>> result;
    // The client is made, and the directory tried, inside startSandbox.
    const auto printed = printedDuring([&] {
        startSandbox(options, /*hostLogger=*/false, root / "plain-file" / "caches");
        result = checkin();
    });
    ASSERT_TRUE(result && result->hasValue());
    // One failure line for the directory, then one per message written:
    // "Palomir started", the exchange's debug record, the check-in notice.
    const std::string lost = "Palomir FileLogger: Error writing: no file I/O\n";
    EXPECT_EQ(printed, "Failed to create log directory Not a directory\n" + lost + lost + lost);
    EXPECT_TRUE(Palomir::shared().logFiles().empty());
}

// ---------------------------------------------------------------------------
// Secrets

TEST_F(Sweep, NeitherTheAppSecretNorTheUserTokenIsWrittenPrintedOrTheSecretSent) {
    const std::string secret = "S3cr3t-app-9f2e71c4";
    const std::string token = "Us3r-t0ken-5b8d03aa";
    sb::SandboxOptions options;
    options.appSecret = secret;
    ::testing::internal::CaptureStderr();
    auto printed = printedDuring([&] {
        startSandbox(options, /*hostLogger=*/false);
        auto& palomir = Palomir::shared();
        palomir.setUserCredentials(std::make_shared<StaticUserCredentials>(token));
        EXPECT_TRUE(checkin().hasValue());
        std::shared_ptr<AttachmentProvider> logs(&palomir, [](AttachmentProvider*) {});
        EXPECT_TRUE(feedback("Secrets", "message", {Attachment::fromText("a.txt", std::nullopt, "x")}, {logs}).hasValue());
        // A refused request too: its error text is logged.
        fault(sb::Route::services, R"(status:401:{"error":"bad"})");
        EXPECT_TRUE(fetchServices().hasError());
    });
    printed += ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(_sandbox->requests().front().header("X-Authorization-User"), "Bearer " + token);
    // What was printed, then every file the client or the backend wrote.
    std::string written = printed;
    for (const auto& directory : {_caches.path(), _data.path()})
        for (const auto& entry : fs::recursive_directory_iterator(directory))
            if (entry.is_regular_file()) written += readText(entry.path());
    EXPECT_NE(written.find("request: "), std::string::npos);  // the client's log was among them
    EXPECT_EQ(written.find(secret), std::string::npos);
    EXPECT_EQ(written.find(token), std::string::npos);
    for (const auto& request : _sandbox->requests()) {
        std::string sent = request.target + request.body;
        for (const auto& header : request.headers) sent += header.second;
        EXPECT_EQ(sent.find(secret), std::string::npos) << request.target;
    }
}

}  // namespace
}  // namespace palomir
