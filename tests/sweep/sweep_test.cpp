// Reliability and security sweep: the client against hostile servers, bad
// input from the host, failing files, and a scan for leaked secrets. Every
// case checks the exact outcome and that each completion arrives once.

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <set>
#include <thread>

#include "palomir/palomir.hpp"
#include "palomir_test/tls.hpp"
#include "platform/crypto.hpp"
#include "sandbox.hpp"
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

// "VmRSS" (now) or "VmHWM" (the peak so far) of this process, in kB.
long memoryKilobytes(const std::string& field = "VmRSS") {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
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
        auto text = [](const auto& result) {
            return result.hasValue() ? std::string() : result.error().localizedDescription();
        };
        switch (endpoint) {
            case sb::Route::checkin: return {text(checkin()), requestsTo("PUT", "/api/checkin/")};
            case sb::Route::services: {
                auto result = fetchServices();
                if (result.hasValue()) _maxAge = result.value().second;
                return {text(result), requestsTo("GET", "/api/services")};
            }
            case sb::Route::service: {
                auto result = await<Palomir::ServiceResult>(
                    [this](auto done) { Palomir::shared().service("photos", _queue, done); });
                if (result.hasValue()) _maxAge = result.value().second;
                return {text(result), requestsTo("GET", "/api/services/photos")};
            }
            case sb::Route::directUploads: {
                auto result = feedback("t", "m", {Attachment::fromText("a.txt", std::nullopt, "bytes")});
                EXPECT_TRUE(result.hasValue()) << result.error().errorDescription();
                const std::string lead = "failed to start direct upload: ";
                return {_logger->logged(lead, LogType::default_).value_or(lead).substr(lead.size()),
                        requestsTo("POST", "/api/direct_uploads")};
            }
            default: return {text(feedback("t", "m", {})), requestsTo("POST", "/api/feedback")};
        }
    }

    MaxAge _maxAge = 12345.0;
};

TEST_P(HostileServer, FailsOnceWithTheExactErrorAndNoRetry) {
    const auto& row = GetParam();
    startSandbox();
    fault(row.endpoint, row.fault);

    const auto peakBefore = memoryKilobytes("VmHWM");
    const auto start = std::chrono::steady_clock::now();
    auto [observed, requests] = call(row.endpoint);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(row.expected.ends_with(' ') ? observed.substr(0, row.expected.size()) : observed, row.expected);
    EXPECT_LT(seconds, row.maxSeconds);
    EXPECT_EQ(requests, 1u);
    if (row.fault.rfind("cache-control", 0) == 0) {
        EXPECT_EQ(_maxAge, std::nullopt);
    }
    // A body far beyond the limit is refused, not held: the peak grows by
    // the limit at most, not by the body.
    if (row.fault.rfind("oversized", 0) == 0 && kMemoryIsMeasurable) {
        EXPECT_LT(memoryKilobytes("VmHWM") - peakBefore, 25 * 1024);
    }
}

std::vector<HostileCase> hostileCases() {
    using E = sb::Route;
    // Rows that need an endpoint of their own: the check-in session's short
    // limits, and what only a list or service answer carries.
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
        {"services_no_max_age", E::services, "cache-control:no-store", ""},
        {"service_negative_max_age", E::service, "cache-control:max-age=-5", ""},
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
        {"503", {}, "status:503", kBadStatus + "503"},
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

// Certificates the client refuses before it sends a byte, through the API
// client with the pin it was given. How each refusal is worded is the HTTP
// session's business; here it reaches the host as one network error. The
// last row is trusted and pinned but streams a body far beyond the limit
// without announcing its length: given up while it streams, never held.
TEST(DirectServer, RefusalsAreOneNetworkError) {
    using palomir_test::CertificateFactory;
    auto pki = palomir_test::TestPki::make("Sweep");
    auto otherName = CertificateFactory::makeLeaf(pki.intermediate, {"other.example", {"other.example"}, {}});
    auto expired = CertificateFactory::makeLeaf(pki.intermediate, {.expired = true});
    auto selfSigned = CertificateFactory::makeSelfSignedLeaf();
    palomir_test::TestResponse big;
    big.chunkedBytes = std::size_t(50) * 1024 * 1024;
    const struct {
        palomir_test::CertificateChain chain;
        palomir_test::Certificate pinned;
        std::string expected;
        palomir_test::TlsTestServer::Handler answer;
    } rows[] = {
        {{otherName, pki.intermediate}, otherName, "SSL certificate problem: hostname mismatch", {}},
        {{expired, pki.intermediate}, expired, "SSL certificate problem: certificate has expired", {}},
        {{selfSigned}, selfSigned, "SSL certificate problem: self-signed certificate", {}},
        {pki.chain(), CertificateFactory::makeLeaf(pki.intermediate),
         "Certificate pinning refused localhost: no certificate of the verified chain carries the pinned key", {}},
        {pki.chain(), pki.leaf, "The response body is larger than 10485760 bytes", [big](const auto&) { return big; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        palomir_test::TlsTestServer server({row.chain, row.answer, true});
        palomir_test::TempDir resources;
        row.pinned.writeDer(resources / "localhost.crt");
        pki.root.writePem(resources / "ca.pem");
        auto client = APIClient::make(AppCredentials{"token", "secret"}, nullptr, nullptr, nullptr,
                                      BackendOptions{server.url("/api"), {resources / "ca.pem"}, resources.path()});
        struct Delivery {
            std::promise<std::string> text;
            std::atomic<int> calls{0};
        };
        auto delivery = std::make_shared<Delivery>();
        const auto peakBefore = memoryKilobytes("VmHWM");
        client->checkin(AppInfo{}, [delivery](Result<Configuration, APIError> result) {
            if (++delivery->calls == 1)
                delivery->text.set_value(result.hasValue() ? "" : result.error().localizedDescription());
        });
        auto future = delivery->text.get_future();
        ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
        EXPECT_EQ(future.get(), kNetwork + row.expected);
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(delivery->calls.load(), 1);
        EXPECT_EQ(server.requests().size(), row.answer ? 1u : 0u);
        if (kMemoryIsMeasurable) {
            EXPECT_LT(memoryKilobytes("VmHWM") - peakBefore, 25 * 1024);
        }
    }
}

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
        {"sandbox token", "sandbox-secret", "Invalid app token", false},
        {"tok\xff\xfe", "sandbox-secret", "Invalid app token", false},
        {"tok\nen", "sandbox-secret", "Invalid app token", false},
        // Characters that do stand in a URL: the token is sent and the backend refuses it.
        {"a/b?c#d", "sandbox-secret", kBadStatus + "401", true},
        {"", "sandbox-secret", kBadStatus + "401", true},
        // The transfer library refuses the megabyte header before anything is sent.
        {std::string(1 << 20, 'a'), "sandbox-secret", kNetwork + "Out of memory", false},
        {"sandbox-token", "", kBadStatus + "401", true},
        {"sandbox-token", "s\xff\xfe", kBadStatus + "401", true},
        {"sandbox-token", std::string(1 << 20, 's'), kBadStatus + "401", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.token.substr(0, 16) + " / " + row.secret.substr(0, 16));
        const auto before = _sandbox->requests().size();
        Palomir::shared().setAppCredentials(AppCredentials{row.token, row.secret});
        auto result = checkin();
        ASSERT_TRUE(result.hasError());
        EXPECT_EQ(result.error().localizedDescription(), row.expected);
        EXPECT_EQ(_sandbox->requests().size() - before, row.sent ? 1u : 0u);
    }
}

// Text that is not UTF-8 travels with U+FFFD for each bad byte; nested and
// widest metadata values travel the whole way (every kind's encoding is the
// model's business).
TEST_F(Sweep, HostTextAndMetadataReachTheBackend) {
    startSandbox();
    auto appInfo = AppInfo::make(Bundle::main());
    ASSERT_TRUE(appInfo.hasValue());
    using A = AnyEncodable;
    appInfo.value().metadata = std::map<std::string, A>{
        {"u64", A::uint64(18446744073709551615ULL)},
        {"date", A::date(Date(std::chrono::milliseconds(1700000000123LL)))},
        {"list", A::list({A::null(), A::string("two")})},
        {"map", A::map({{"inner", A::boolean(false)}})},
    };
    Palomir::shared().setAppInfo(appInfo.value());
    ASSERT_TRUE(feedback("Crash \xff\xfe title", "bad \xc3\x28 bytes \x80", {}).hasValue());
    ASSERT_TRUE(checkin().hasValue());

    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].title, "Crash \xEF\xBF\xBD\xEF\xBF\xBD title");
    EXPECT_EQ(recorded[0].message, "bad \xEF\xBF\xBD( bytes \xEF\xBF\xBD");
    const auto expected = nlohmann::json::parse(R"({"u64":18446744073709551615,"date":"2023-11-14T22:13:20.123Z",
        "list":[null,"two"],"map":{"inner":false}})");
    EXPECT_EQ(recorded[0].appInfo["metadata"], expected);
    EXPECT_EQ(nlohmann::json::parse(_sandbox->requests().back().body)["app_info"]["metadata"], expected);
}

TEST_F(Sweep, EmptyAndLargeAttachmentsAreUploadedWithSizeAndChecksum) {
    startSandbox();
    // 50 MB by default; PALOMIR_SWEEP_ATTACHMENT_MB sets another size for a one-off run.
    const char* setting = std::getenv("PALOMIR_SWEEP_ATTACHMENT_MB");
    const std::size_t megabytes = setting ? std::strtoul(setting, nullptr, 10) : 50;
    std::vector<std::uint8_t> big(megabytes * 1024 * 1024);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 131 + (i >> 12));
    const auto bigChecksum = crypto::base64Encode(crypto::md5(big));
    const auto size = static_cast<std::int64_t>(big.size());
    const auto peakBefore = memoryKilobytes("VmHWM");
    auto result = feedback("t", "m",
                           {Attachment::fromData("empty.bin", "application/octet-stream", {}),
                            Attachment::fromData("big.bin", "application/octet-stream", std::move(big))});
    const auto peakGrowth = memoryKilobytes("VmHWM") - peakBefore;
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    std::map<std::string, sb::RecordedUpload> byName;
    for (const auto& upload : recorded[0].attachments) byName[upload.filename] = upload;
    ASSERT_EQ(byName.size(), 2u);
    EXPECT_TRUE(byName["empty.bin"].uploaded && byName["big.bin"].uploaded);
    EXPECT_EQ(byName["empty.bin"].checksum, "1B2M2Y8AsgTpgAmY7PhCfg==");  // the MD5 of nothing
    EXPECT_EQ(byName["big.bin"].byteSize, size);
    EXPECT_EQ(byName["big.bin"].checksum, bigChecksum);
    EXPECT_EQ(fs::file_size(byName["big.bin"].file), static_cast<std::uintmax_t>(size));
    // The bytes were in memory before the call, and the sandbox in this
    // process holds the received body as well (its growing receive buffer
    // alone peaks near two copies); beyond that the client adds no copies.
    if (kMemoryIsMeasurable) {
        EXPECT_LT(peakGrowth, static_cast<long>(3 * megabytes * 1024));
    }
}

TEST_F(Sweep, UnreadableFilesAreLeftOutOfTheFeedback) {
    palomir_test::TempDir files;
    std::ofstream(files / "kept.txt") << "kept";
    fs::create_directory(files / "a-directory");
    std::ofstream(files / "secret.txt") << "no";
    fs::permissions(files / "secret.txt", fs::perms::none);
    // With privileges that read a mode 000 file (root) that file is sent too.
    std::set<std::string> expected{"kept.txt"};
    if (std::ifstream(files / "secret.txt").is_open()) expected.insert("secret.txt");
    startSandbox();
    const std::vector<fs::path> paths{files / "kept.txt", files / "vanished.txt", files / "a-directory",
                                      files / "secret.txt"};
    auto result = await<std::string, PalomirError>([&](auto done) {
        Palomir::shared().feedback("Files", "with files", "tester@example.com", paths, {}, _queue, done);
    });
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    // Uploads finish in any order, so the names are compared as a set.
    std::set<std::string> names;
    for (const auto& upload : recorded[0].attachments) names.insert(upload.filename);
    EXPECT_EQ(names, expected);
    EXPECT_EQ(requestsTo("POST", "/api/direct_uploads"), names.size());
}

// ---------------------------------------------------------------------------
// The whole public API before any configuration

// The error text an operation's one completion delivers on `queue`.
template <class T, class E = Error, class Call>
std::string outcome(const std::shared_ptr<DispatchQueue>& queue, Call&& call) {
    Awaited<T, E> awaited(queue);
    call(awaited.completion());
    auto result = awaited.get();
    return result.hasValue() ? "success" : result.error().localizedDescription();
}

TEST(Unconfigured, EveryOperationCompletesOnceWithMissingCredentials) {
    palomir_test::TempDir caches;
    setCachesDirectory(caches.path());
    auto q = DispatchQueue::makeSerial("test.delivery");
    auto& palomir = Palomir::shared();
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("ignored"));
    using Services = Palomir::ServicesResult;
    using Service = Palomir::ServiceResult;
    EXPECT_EQ(outcome<Configuration>(q, [&](auto done) { palomir.checkin(q, done); }), kMissing);
    EXPECT_EQ(outcome<URLRequest>(q, [&](auto done) { palomir.webRequest("https://example.com/", q, done); }), kMissing);
    EXPECT_EQ(outcome<Services>(q, [&](auto done) { palomir.services(q, done); }), kMissing);
    EXPECT_EQ(outcome<Services>(q, [&](auto done) { palomir.systemServices(q, done); }), kMissing);
    EXPECT_EQ(outcome<Service>(q, [&](auto done) { palomir.service("photos", q, done); }), kMissing);
    EXPECT_EQ(outcome<Service>(q, [&](auto done) { palomir.systemService("auth", q, done); }), kMissing);
    EXPECT_EQ((outcome<std::string, PalomirError>(q, [&](auto done) {
                  palomir.feedback("t", "m", "s", {Attachment::fromText("a.txt", std::nullopt, "x")}, {}, q, done);
              })),
              kMissing);
    EXPECT_EQ((outcome<std::string, PalomirError>(q, [&](auto done) {
                  palomir.feedback("t", "m", "s", std::vector<fs::path>{caches / "none.txt"}, {}, q, done);
              })),
              kMissing);
    // Without completions nothing is delivered and nothing breaks.
    palomir.checkin(q);
    palomir.feedback("t", "m", "s", std::vector<Attachment>{}, {}, q);
    std::promise<void> drained;
    q->async([&] { drained.set_value(); });
    drained.get_future().wait();
    EXPECT_FALSE(palomir.configuration().has_value());
}

// ---------------------------------------------------------------------------
// Faults around files

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

TEST_F(Sweep, ALogFileDeletedWhileOpenKeepsTakingLines) {
    startSandbox({}, /*hostLogger=*/false);
    const auto files = Palomir::shared().logFiles();
    ASSERT_EQ(files.size(), 1u);
    ASSERT_TRUE(checkin().hasValue());
    std::this_thread::sleep_for(200ms);
    // The descriptor the logger writes through.
    int descriptor = -1;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) == files.front()) descriptor = std::stoi(entry.path().filename());
    }
    ASSERT_GE(descriptor, 0);
    ASSERT_TRUE(fs::remove(files.front()));
    struct stat before {}, after {};
    ASSERT_EQ(::fstat(descriptor, &before), 0);
    const auto printed = printedDuring([&] {
        Palomir::shared().setConfiguration(std::nullopt);
        EXPECT_TRUE(checkin().hasValue());
        EXPECT_TRUE(fetchServices().hasValue());
    });
    EXPECT_EQ(printed.find("FileLogger"), std::string::npos) << printed;
    ASSERT_EQ(::fstat(descriptor, &after), 0);
    EXPECT_EQ(after.st_nlink, 0u);
    EXPECT_GT(after.st_size, before.st_size);
}

// The caches directory on a 256 KB tmpfs: only possible with the privilege
// to mount, which containers and CI runners often lack.
TEST_F(Sweep, ALogDirectoryOnAFullDiskPrintsOneWriteErrorAndCheckinStillWorks) {
    if (::mount("palomir-full", _caches.path().c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
    std::shared_ptr<void> unmount(nullptr, [this](void*) { ::umount2(_caches.path().c_str(), MNT_DETACH); });
    startSandbox({}, /*hostLogger=*/false);
    std::vector<Result<Configuration, Error>> results;
    const auto printed = printedDuring([&] {
        const std::string filler(4000, 'x');
        for (int i = 0; i < 200; ++i) Palomir::shared().logger()->log("filler " + filler, LogType::info);
        results.push_back(checkin());
        for (int i = 0; i < 50; ++i) Palomir::shared().logger()->log("after the disk filled", LogType::info);
        results.push_back(checkin());
    });
    for (const auto& result : results) EXPECT_TRUE(result.hasValue());
    std::istringstream lines(printed);
    std::vector<std::string> fileLoggerLines;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("Palomir FileLogger", 0) == 0) fileLoggerLines.push_back(line);
    EXPECT_EQ(fileLoggerLines, std::vector<std::string>{"Palomir FileLogger: Error writing: %d " + std::to_string(ENOSPC)});
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
    std::size_t scanned = 0;
    for (const auto& directory : {_caches.path(), _data.path()}) {
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            if (!entry.is_regular_file()) continue;
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            ++scanned;
            EXPECT_EQ(text.find(secret), std::string::npos) << entry.path();
            EXPECT_EQ(text.find(token), std::string::npos) << entry.path();
            if (entry.path().extension() == ".log") {
                EXPECT_NE(text.find("request: "), std::string::npos);
            }
        }
    }
    EXPECT_GE(scanned, 3u);  // at least the log file, feedback.json and an upload
    EXPECT_EQ(printed.find(secret), std::string::npos);
    EXPECT_EQ(printed.find(token), std::string::npos);
    for (const auto& request : _sandbox->requests()) {
        EXPECT_EQ(request.target.find(secret), std::string::npos);
        EXPECT_EQ(request.body.find(secret), std::string::npos);
        for (const auto& [name, value] : request.headers) EXPECT_EQ(value.find(secret), std::string::npos) << name;
    }
}

}  // namespace
}  // namespace palomir
