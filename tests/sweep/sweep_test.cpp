// Reliability and security sweep: the client against hostile servers, bad
// input from the host, failing files, and a scan for leaked secrets. Every
// case checks the exact outcome and that each completion arrives once.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "palomir/environment.hpp"
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
using Clock = std::chrono::steady_clock;

// "VmRSS" (now) or "VmHWM" (the peak so far) of this process, in kB.
long memoryKilobytes(const std::string& field = "VmRSS") {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    return 0;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class Sweep : public SandboxClientTest {};

// ---------------------------------------------------------------------------
// Hostile servers

struct HostileCase {
    std::string name;
    /// The route whose endpoint is called and given the fault.
    sb::Route endpoint;
    sb::Fault fault;
    /// The completion's error text; for a direct upload, the text logged
    /// after "failed to start direct upload: " (the feedback still succeeds);
    /// "" for success.
    std::string expected;
    /// Whether `expected` is only the beginning (platform text follows).
    bool prefixOnly = false;
    double maxSeconds = 10;
};

sb::Fault fault(const std::string& text) {
    auto parsed = sb::Fault::parse(text);
    EXPECT_TRUE(parsed.hasValue()) << text;
    return parsed.hasValue() ? parsed.value() : sb::Fault{};
}

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
                std::string logged;
                for (const auto& line : _logger->lines())
                    if (line.rfind(lead, 0) == 0) logged = line.substr(lead.size());
                return {logged, requestsTo("POST", "/api/direct_uploads")};
            }
            case sb::Route::feedback: return {text(feedback("t", "m", {})), requestsTo("POST", "/api/feedback")};
            default: return {};
        }
    }

    MaxAge _maxAge = 12345.0;
};

TEST_P(HostileServer, FailsOnceWithTheExactErrorAndNoRetry) {
    const auto& row = GetParam();
    startSandbox();
    _sandbox->setFault(row.endpoint, row.fault);

    const auto start = Clock::now();
    auto [observed, requests] = call(row.endpoint);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    if (row.prefixOnly)
        EXPECT_EQ(observed.substr(0, row.expected.size()), row.expected) << observed;
    else
        EXPECT_EQ(observed, row.expected);
    EXPECT_LT(seconds, row.maxSeconds);
    EXPECT_EQ(requests, 1u);
    if (row.fault.kind == sb::Fault::Kind::wrongCacheControl) {
        EXPECT_EQ(_maxAge, std::nullopt);
    }
    std::cout << "[observed] " << row.name << " | " << observed << " | " << seconds << " s\n";
}

const std::string kBadStatus = "Request failed: Bad status: ";
const std::string kNetwork = "Request failed: Network error: ";
const std::string kTooLarge = kNetwork + "The response body is larger than 10485760 bytes";
const std::string kEmptyReply = kNetwork + "Empty reply from server";
// The sandbox's malformed body, then the parser's own words.
const std::string kMalformed =
    "Failed to decode response: {\"version\": \"sandbox\", \"theme\": [oops\nerror:"
    "[json.exception.parse_error.101] parse error at line 1, column 34: syntax error while parsing value - invalid "
    "literal; last read: '\"theme\": [o'";

std::vector<HostileCase> hostileCases() {
    using E = sb::Route;
    // Rows that need an endpoint of their own: the check-in session's short
    // limits, and bodies of the wrong shape for each record.
    std::vector<HostileCase> cases = {
        // The check-in session gives up after 1 s without data or 5 s in all.
        {"checkin_stall", E::checkin, fault("stall"), kNetwork + "The request timed out: no data for 1000 ms", false, 3},
        {"checkin_drip", E::checkin, fault("drip:50"), kNetwork + "The request timed out: not complete after 5000 ms",
         false, 7},
        // An informational status is no answer: the transfer waits for the
        // final one until the idle limit (60 s on the other sessions).
        {"checkin_199", E::checkin, fault("status:199"), kNetwork + "The request timed out: no data for 1000 ms", false,
         3},
        {"checkin_wrong_types", E::checkin, fault(R"(status:200:{"version":5})"),
         "Failed to decode response: {\"version\":5}\nerror:version: expected a string, found number"},
        {"services_wrong_types", E::services, fault(R"(status:200:{"services":[{"name":7}]})"),
         "Failed to decode response: {\"services\":[{\"name\":7}]}\nerror:services[0].name: expected a string, "
         "found number"},
        {"services_no_max_age", E::services, fault("cache-control:no-store"), ""},
        {"service_wrong_types", E::service, fault(R"(status:200:{"identifier":[]})"),
         "Failed to decode response: {\"identifier\":[]}\nerror:service: missing required key"},
        {"service_wrong_nested_type", E::service, fault(R"(status:200:{"service":{"name":7}})"),
         "Failed to decode response: {\"service\":{\"name\":7}}\nerror:service.name: expected a string, found number"},
        {"service_negative_max_age", E::service, fault("cache-control:max-age=-5"), ""},
        {"direct_uploads_wrong_types", E::directUploads, fault(R"(status:200:{"id":"one"})"),
         "Failed to decode response: {\"id\":\"one\"}\nerror:id: expected an integer, found string"},
    };

    // Every endpoint against every fault that ends the same way on all of
    // them. Feedback wraps the error; a failed upload start is logged and the
    // feedback goes on without the file.
    struct Common {
        const char* name;
        sb::Fault fault;
        std::string expected;
        bool prefixOnly = false;
        double maxSeconds = 10;
    };
    const std::vector<Common> common = {
        // A stall that ends in a closed connection, well before the 60 s idle
        // limit of the sessions other than check-in's.
        {"stall_then_close", fault("stall:1500"), kEmptyReply, false, 8},
        {"truncated", fault("truncated"), kNetwork + "transfer closed with ", true},
        {"drop", fault("drop"), kEmptyReply},
        {"204", fault("status:204"), "Empty response"},
        {"304", fault("status:304"), kBadStatus + "304"},
        {"401", fault("status:401"), kBadStatus + "401"},
        {"500", fault("status:500"), kBadStatus + "500"},
        {"503", fault("status:503"), kBadStatus + "503"},
        {"empty", fault("empty"), "Empty response"},
        {"malformed", fault("malformed"), kMalformed},
        {"oversized", fault("oversized:50"), kTooLarge},
        // Redirects are answers, never followed: not to plain HTTP (nothing
        // listens on the discard port, so following would fail differently),
        // not to another host.
        {"redirect_to_http", fault("redirect:http://127.0.0.1:9/api/"), kBadStatus + "302"},
        {"redirect_to_other_host", fault("redirect:https://other.example/api/"), kBadStatus + "302"},
    };
    for (auto endpoint : {E::checkin, E::services, E::service, E::directUploads, E::feedback})
        for (const auto& row : common) {
            // Check-in's own idle limit ends a stall first (its row is above).
            if (endpoint == E::checkin && row.name == std::string_view("stall_then_close")) continue;
            cases.push_back({std::string(sb::toString(endpoint)) + "_" + row.name, endpoint, row.fault,
                             (endpoint == E::feedback ? "Request failed: " : "") + row.expected, row.prefixOnly,
                             row.maxSeconds});
        }
    return cases;
}
INSTANTIATE_TEST_SUITE_P(Faults, HostileServer, ::testing::ValuesIn(hostileCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// TLS refusals, straight through the API client

struct TlsCase {
    const char* name;
    /// The certificate the server presents, issued by the trusted
    /// intermediate unless self-signed; the client pins its key unless
    /// told to pin another.
    palomir_test::LeafOptions leaf = {};
    bool selfSigned = false;
    bool pinAnotherKey = false;
    bool accepted = false;
};

void PrintTo(const TlsCase& row, std::ostream* out) { *out << row.name; }

class TlsRefusal : public ::testing::TestWithParam<TlsCase> {};

// An API client of `server` that trusts the test root and pins `pinned`,
// keeping both in `resources`.
std::shared_ptr<APIClient> directClient(const palomir_test::TlsTestServer& server, const palomir_test::TestPki& pki,
                                        const palomir_test::Certificate& pinned,
                                        const palomir_test::TempDir& resources) {
    pinned.writeDer(resources / "localhost.crt");
    pki.root.writePem(resources / "ca.pem");
    return APIClient::make(AppCredentials{"token", "secret"}, nullptr, nullptr, nullptr,
                           BackendOptions{server.url("/api"), {resources / "ca.pem"}, resources.path()});
}

template <class R>
struct Delivery {
    std::promise<R> promise;
    std::atomic<int> calls{0};
};

// Starts `call` with a completion and returns the result it delivers, having
// checked that nothing is delivered twice; nullopt when nothing came.
template <class R>
std::optional<R> onlyResult(const std::function<void(std::function<void(R)>)>& call) {
    auto delivery = std::make_shared<Delivery<R>>();
    call([delivery](R result) {
        if (++delivery->calls == 1) delivery->promise.set_value(std::move(result));
    });
    auto future = delivery->promise.get_future();
    if (future.wait_for(30s) != std::future_status::ready) return std::nullopt;
    auto result = future.get();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(delivery->calls.load(), 1);
    return result;
}

TEST_P(TlsRefusal, IsANetworkErrorBeforeAnyRequestBytes) {
    using palomir_test::CertificateFactory;
    const auto& row = GetParam();
    auto pki = palomir_test::TestPki::make("Sweep");
    auto leaf = row.selfSigned ? CertificateFactory::makeSelfSignedLeaf()
                               : CertificateFactory::makeLeaf(pki.intermediate, row.leaf);
    auto chain = row.selfSigned ? palomir_test::CertificateChain{leaf}
                                : palomir_test::CertificateChain{leaf, pki.intermediate};
    auto pinned = row.pinAnotherKey ? CertificateFactory::makeLeaf(pki.intermediate) : leaf;
    palomir_test::TlsTestServer server({chain, nullptr, true});
    palomir_test::TempDir resources;
    auto client = directClient(server, pki, pinned, resources);
    auto result = onlyResult<Result<Configuration, APIError>>([&](auto done) { client->checkin(AppInfo{}, done); });
    ASSERT_TRUE(result.has_value());
    ASSERT_TRUE(result->hasError());
    const auto text = result->error().localizedDescription();
    if (row.accepted) {
        // The server answers "ok", which is no configuration: the exchange
        // itself went through.
        EXPECT_EQ(text.rfind("Failed to decode response: ok", 0), 0u) << text;
        EXPECT_EQ(server.requests().size(), 1u);
    } else {
        EXPECT_EQ(text.rfind("Request failed: Network error: ", 0), 0u) << text;
        EXPECT_TRUE(server.requests().empty());
        std::cout << "[observed] " << row.name << " | " << text << "\n";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Chains, TlsRefusal,
    ::testing::Values(TlsCase{.name = "trusted_and_pinned", .accepted = true},
                      TlsCase{.name = "other_name",
                              .leaf = {.commonName = "other.example",
                                       .dnsNames = {"other.example"},
                                       .ipAddresses = {}}},
                      TlsCase{.name = "expired", .leaf = {.expired = true}},
                      TlsCase{.name = "self_signed_and_pinned", .selfSigned = true},
                      TlsCase{.name = "trusted_without_the_pinned_key", .pinAnotherKey = true}),
    [](const auto& info) { return std::string(info.param.name); });

// A body far beyond the limit is given up while it streams: memory grows by
// about the limit, not by the body.
TEST(OversizedBody, IsRefusedWithoutHoldingIt) {
    auto pki = palomir_test::TestPki::make("Sweep");
    palomir_test::TestResponse big;
    big.chunkedBytes = std::size_t(50) * 1024 * 1024;
    palomir_test::TlsTestServer server({pki.chain(), [big](const auto&) { return big; }, true});
    palomir_test::TempDir resources;
    auto client = directClient(server, pki, pki.leaf, resources);

    const auto before = memoryKilobytes();
    auto result = onlyResult<Result<std::pair<ServicesResponse, MaxAge>, APIError>>(
        [&](auto done) { client->services(AppInfo{}, false, done); });
    const auto growth = memoryKilobytes() - before;
    ASSERT_TRUE(result.has_value());
    ASSERT_TRUE(result->hasError());
    EXPECT_EQ(result->error().localizedDescription(), kTooLarge);
    if (kMemoryIsMeasurable) {
        EXPECT_LT(growth, 25 * 1024) << "VmRSS grew by " << growth << " kB";
    }
    EXPECT_EQ(server.requests().size(), 1u);
    std::cout << "[observed] oversized 50 MB: VmRSS growth " << growth << " kB\n";
}

// ---------------------------------------------------------------------------
// Bad input from the host

struct TokenCase {
    const char* name;
    std::string token;
    std::string secret;
    /// The check-in's error text.
    std::string expected;
    /// Whether any request may reach the sandbox.
    bool sent;
};

void PrintTo(const TokenCase& row, std::ostream* out) { *out << row.name; }

class HostTokens : public Sweep, public ::testing::WithParamInterface<TokenCase> {};

TEST_P(HostTokens, AreRefusedOrSentCleanly) {
    startSandbox();
    Palomir::shared().setAppCredentials(AppCredentials{GetParam().token, GetParam().secret});
    auto result = checkin();
    ASSERT_TRUE(result.hasError());
    EXPECT_EQ(result.error().localizedDescription(), GetParam().expected);
    if (!GetParam().sent) {
        EXPECT_TRUE(_sandbox->requests().empty());
    }
    std::cout << "[observed] " << GetParam().name << " | " << result.error().localizedDescription() << " | "
              << _sandbox->requests().size() << " requests\n";
}

INSTANTIATE_TEST_SUITE_P(
    Tokens, HostTokens,
    ::testing::Values(TokenCase{"token_with_blank", "sandbox token", "sandbox-secret", "Invalid app token", false},
                      TokenCase{"token_not_utf8", "tok\xff\xfe", "sandbox-secret", "Invalid app token", false},
                      TokenCase{"token_with_control_byte", "tok\nen", "sandbox-secret", "Invalid app token", false},
                      // Characters that do stand in a URL: the token is sent
                      // and the backend refuses it.
                      TokenCase{"token_with_slash_and_query", "a/b?c#d", "sandbox-secret", kBadStatus + "401", true},
                      TokenCase{"token_empty", "", "sandbox-secret", kBadStatus + "401", true},
                      // The transfer library refuses the megabyte header
                      // before anything is sent.
                      TokenCase{"token_huge", std::string(1 << 20, 'a'), "sandbox-secret",
                                kNetwork + "Out of memory", false},
                      TokenCase{"secret_empty", "sandbox-token", "", kBadStatus + "401", true},
                      TokenCase{"secret_not_utf8", "sandbox-token", "s\xff\xfe", kBadStatus + "401", true},
                      TokenCase{"secret_huge", "sandbox-token", std::string(1 << 20, 's'), kBadStatus + "401", true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Sweep, NonUtf8TitleAndMessageReachTheBackend) {
    startSandbox();
    const std::string title = "Crash \xff\xfe title";
    const std::string message = "bad \xc3\x28 bytes \x80";
    auto result = feedback(title, message, {});
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    // Bytes that are not UTF-8 travel as U+FFFD each.
    EXPECT_EQ(recorded[0].title, "Crash \xEF\xBF\xBD\xEF\xBF\xBD title");
    EXPECT_EQ(recorded[0].message, "bad \xEF\xBF\xBD( bytes \xEF\xBF\xBD");
}

TEST_F(Sweep, EmptyAndLargeAttachmentsAreUploadedWithSizeAndChecksum) {
    startSandbox();
    // 50 MB by default; PALOMIR_SWEEP_ATTACHMENT_MB sets another size for a one-off run.
    const char* setting = std::getenv("PALOMIR_SWEEP_ATTACHMENT_MB");
    const std::size_t megabytes = setting ? std::strtoul(setting, nullptr, 10) : 50;
    const std::size_t size = megabytes * 1024 * 1024;
    std::vector<std::uint8_t> big(size);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 131 + (i >> 12));
    const auto bigChecksum = crypto::base64Encode(crypto::md5(big));
    const auto peakBefore = memoryKilobytes("VmHWM");
    auto result = feedback("t", "m",
                           {Attachment::fromData("empty.bin", "application/octet-stream", {}),
                            Attachment::fromData("big.bin", "application/octet-stream", std::move(big))});
    const auto peakGrowth = memoryKilobytes("VmHWM") - peakBefore;
    ASSERT_TRUE(result.hasValue()) << result.error().errorDescription();
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    ASSERT_EQ(recorded[0].attachments.size(), 2u);
    std::map<std::string, sb::RecordedUpload> byName;
    for (const auto& upload : recorded[0].attachments) byName[upload.filename] = upload;
    EXPECT_EQ(byName["empty.bin"].byteSize, 0);
    EXPECT_TRUE(byName["empty.bin"].uploaded);
    EXPECT_EQ(byName["empty.bin"].checksum, "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(byName["big.bin"].byteSize, static_cast<std::int64_t>(size));
    EXPECT_EQ(byName["big.bin"].checksum, bigChecksum);
    EXPECT_TRUE(byName["big.bin"].uploaded);
    EXPECT_EQ(fs::file_size(byName["big.bin"].file), size);
    // The bytes were in memory before the call. The sandbox in this process
    // holds the received body as well; beyond that the client must not add
    // copies of its own.
    // (its growing receive buffer alone peaks near two copies).
    if (kMemoryIsMeasurable) {
        EXPECT_LT(peakGrowth, static_cast<long>(3 * megabytes * 1024)) << "peak VmHWM grew by " << peakGrowth << " kB";
    }
    std::cout << "[observed] " << megabytes << " MB attachment: peak memory growth " << peakGrowth << " kB\n";
}

TEST_F(Sweep, UnreadableFilesAreLeftOutOfTheFeedback) {
    palomir_test::TempDir files;
    std::ofstream(files / "kept.txt") << "kept";
    std::ofstream(files / "vanishing.txt") << "gone";
    fs::remove(files / "vanishing.txt");
    fs::create_directory(files / "a-directory");
    std::ofstream(files / "secret.txt") << "no";
    fs::permissions(files / "secret.txt", fs::perms::none);
    // With privileges that read a mode 000 file (root) that file is sent too.
    const bool secretReadable = std::ifstream(files / "secret.txt").is_open();
    startSandbox();
    const std::vector<fs::path> paths{files / "kept.txt", files / "vanishing.txt", files / "a-directory",
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
    const std::set<std::string> expected = secretReadable ? std::set<std::string>{"kept.txt", "secret.txt"}
                                                          : std::set<std::string>{"kept.txt"};
    EXPECT_EQ(names, expected);
    EXPECT_EQ(requestsTo("POST", "/api/direct_uploads"), secretReadable ? 2u : 1u);
}

TEST_F(Sweep, NestedMetadataReachesTheBackend) {
    startSandbox();
    auto info = AppInfo::make(Bundle::main());
    ASSERT_TRUE(info.hasValue());
    auto appInfo = info.value();
    using A = AnyEncodable;
    // Every kind's encoding is the model's business; here nested and
    // widest values travel the whole way.
    appInfo.metadata = std::map<std::string, A>{
        {"u64", A::uint64(18446744073709551615ULL)},
        {"date", A::date(Date(std::chrono::milliseconds(1700000000123LL)))},
        {"list", A::list({A::null(), A::string("two")})},
        {"map", A::map({{"inner", A::boolean(false)}})},
    };
    Palomir::shared().setAppInfo(appInfo);
    ASSERT_TRUE(feedback("t", "m", {}).hasValue());
    auto recorded = _sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    const auto& metadata = recorded[0].appInfo["metadata"];
    std::cout << "[observed] metadata " << metadata.dump() << "\n";
    EXPECT_EQ(metadata, nlohmann::json::parse(R"({"u64":18446744073709551615,"date":"2023-11-14T22:13:20.123Z",
        "list":[null,"two"],"map":{"inner":false}})"));

    ASSERT_TRUE(checkin().hasValue());
    auto body = nlohmann::json::parse(_sandbox->requests().back().body);
    EXPECT_EQ(body["app_info"]["metadata"], metadata);
}

// ---------------------------------------------------------------------------
// The whole public API before any configuration

TEST(Unconfigured, EveryOperationCompletesOnceWithMissingCredentials) {
    palomir_test::TempDir caches;
    setCachesDirectory(caches.path());
    auto queue = DispatchQueue::makeSerial("test.delivery");
    auto& palomir = Palomir::shared();
    EXPECT_FALSE(palomir.appCredentials().has_value());
    EXPECT_EQ(palomir.client(), nullptr);
    EXPECT_FALSE(palomir.configuration().has_value());
    EXPECT_FALSE(palomir.services().has_value());
    EXPECT_FALSE(palomir.systemServices().has_value());
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>("ignored"));
    EXPECT_EQ(palomir.userCredentials(), nullptr);
    const std::string missing = "Missing app token and/or secret";
    auto text = [](const auto& result) {
        return result.hasValue() ? std::string("success") : result.error().localizedDescription();
    };

    Awaited<Configuration> checkin(queue);
    palomir.checkin(queue, checkin.completion());
    EXPECT_EQ(text(checkin.get()), missing);
    Awaited<URLRequest> web(queue);
    palomir.webRequest("https://example.com/page", queue, web.completion());
    EXPECT_EQ(text(web.get()), missing);
    Awaited<Palomir::ServicesResult> services(queue), systemServices(queue);
    palomir.services(queue, services.completion());
    palomir.systemServices(queue, systemServices.completion());
    EXPECT_EQ(text(services.get()), missing);
    EXPECT_EQ(text(systemServices.get()), missing);
    Awaited<Palomir::ServiceResult> service(queue), systemService(queue);
    palomir.service("photos", queue, service.completion());
    palomir.systemService("auth", queue, systemService.completion());
    EXPECT_EQ(text(service.get()), missing);
    EXPECT_EQ(text(systemService.get()), missing);
    Awaited<std::string, PalomirError> attachments(queue), files(queue);
    palomir.feedback("t", "m", "s", {Attachment::fromText("a.txt", std::nullopt, "x")}, {}, queue,
                     attachments.completion());
    palomir.feedback("t", "m", "s", std::vector<fs::path>{caches / "none.txt"}, {}, queue, files.completion());
    EXPECT_EQ(text(attachments.get()), missing);
    EXPECT_EQ(text(files.get()), missing);
    // Without completions nothing is delivered and nothing breaks.
    palomir.checkin(queue);
    palomir.services(queue);
    palomir.feedback("t", "m", "s", std::vector<Attachment>{}, {}, queue);
    std::promise<void> drained;
    queue->async([&] { drained.set_value(); });
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
    // The client is made, and the directory tried, inside startSandbox.
    ::testing::internal::CaptureStdout();
    startSandbox(options, /*hostLogger=*/false, root / "plain-file" / "caches");
    auto result = checkin();
    std::this_thread::sleep_for(200ms);
    std::fflush(stdout);
    const std::string printed = ::testing::internal::GetCapturedStdout();

    ASSERT_TRUE(result.hasValue()) << result.error().localizedDescription();
    // One failure line for the directory, then one per message written:
    // "Palomir started", the exchange's debug record, the check-in notice.
    const std::string lost = "Palomir FileLogger: Error writing: no file I/O\n";
    EXPECT_EQ(printed, "Failed to create log directory Not a directory\n" + lost + lost + lost);
    EXPECT_TRUE(Palomir::shared().logFiles().empty());
}

TEST_F(Sweep, ALogFileDeletedWhileOpenKeepsTakingLines) {
    startSandbox({}, /*hostLogger=*/false);
    auto& palomir = Palomir::shared();
    auto files = palomir.logFiles();
    ASSERT_EQ(files.size(), 1u);
    const auto file = files.front();
    ASSERT_TRUE(checkin().hasValue());
    std::this_thread::sleep_for(200ms);

    // Find the descriptor the logger writes through.
    int descriptor = -1;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        auto target = fs::read_symlink(entry.path(), error);
        if (!error && target == file) descriptor = std::stoi(entry.path().filename().string());
    }
    ASSERT_GE(descriptor, 0) << "no open descriptor for " << file;
    ASSERT_TRUE(fs::remove(file));
    struct stat before {};
    ASSERT_EQ(::fstat(descriptor, &before), 0);

    ::testing::internal::CaptureStdout();
    Palomir::shared().setConfiguration(std::nullopt);
    ASSERT_TRUE(checkin().hasValue());
    ASSERT_TRUE(fetchServices().hasValue());
    std::this_thread::sleep_for(300ms);
    std::fflush(stdout);
    const std::string printed = ::testing::internal::GetCapturedStdout();

    EXPECT_EQ(printed.find("FileLogger"), std::string::npos) << printed;
    struct stat after {};
    ASSERT_EQ(::fstat(descriptor, &after), 0);
    EXPECT_EQ(after.st_nlink, 0u);
    EXPECT_GT(after.st_size, before.st_size);
    EXPECT_FALSE(fs::exists(file));
}

// ---------------------------------------------------------------------------
// Secrets

TEST_F(Sweep, NeitherTheAppSecretNorTheUserTokenIsWrittenPrintedOrTheSecretSent) {
    const std::string secret = "S3cr3t-app-9f2e71c4";
    const std::string token = "Us3r-t0ken-5b8d03aa";
    sb::SandboxOptions options;
    options.appSecret = secret;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    startSandbox(options, /*hostLogger=*/false);
    auto& palomir = Palomir::shared();
    palomir.setUserCredentials(std::make_shared<StaticUserCredentials>(token));

    auto configuration = checkin();
    auto list = fetchServices();
    std::shared_ptr<AttachmentProvider> logs(&palomir, [](AttachmentProvider*) {});
    auto sent = feedback("Secrets", "message", {Attachment::fromText("a.txt", std::nullopt, "x")}, {logs});
    // A refused request too: its error text is logged.
    fault(sb::Route::services, R"(status:401:{"error":"bad"})");
    fetchServices();
    std::this_thread::sleep_for(300ms);
    std::fflush(stdout);
    const std::string printed = ::testing::internal::GetCapturedStdout() + ::testing::internal::GetCapturedStderr();

    ASSERT_TRUE(configuration.hasValue()) << configuration.error().localizedDescription();
    ASSERT_TRUE(list.hasValue());
    ASSERT_TRUE(sent.hasValue()) << sent.error().errorDescription();
    ASSERT_EQ(_sandbox->recordedFeedback().size(), 1u);
    EXPECT_EQ(_sandbox->requests().front().header("X-Authorization-User"), "Bearer " + token);

    std::size_t scanned = 0;
    for (const auto& directory : {_caches.path(), _data.path()}) {
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            if (!entry.is_regular_file()) continue;
            const auto text = readFile(entry.path());
            ++scanned;
            EXPECT_EQ(text.find(secret), std::string::npos) << entry.path();
            EXPECT_EQ(text.find(token), std::string::npos) << entry.path();
        }
    }
    EXPECT_GE(scanned, 3u);  // at least the log file, feedback.json and an upload
    EXPECT_FALSE(palomir.logFiles().empty());
    EXPECT_NE(readFile(palomir.logFiles().back()).find("request: "), std::string::npos);
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
