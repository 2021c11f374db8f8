#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <ctime>
#include <fstream>

#include "palomir_test/temp_dir.hpp"
#include "palomir_test/tls.hpp"
#include "platform/crypto.hpp"
#include "sandbox_client.hpp"

namespace palomir::sandbox {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Json = nlohmann::json;
using palomir_test::readText;
using testing::Reply;
using testing::SandboxClient;
using testing::Signing;

const fs::path kScenarios = PALOMIR_SCENARIO_DIR;
const std::string kCheckin = "/api/checkin/sandbox-token";
const Signing kUnsigned{.sign = false};

/// Runs `palomir-sandbox check FILE`; its exit status and what it printed.
std::pair<int, std::string> checkCommand(const fs::path& file) {
    std::string command = std::string(PALOMIR_SANDBOX_PROGRAM) + " check " + file.string() + " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    if (!pipe) return {-1, ""};
    char buffer[512] = {};
    std::string output;
    while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
    return {WEXITSTATUS(::pclose(pipe)), output};
}

class SandboxTest : public ::testing::Test {
protected:
    void start(SandboxOptions options = {}) {
        options.logRequests = false;
        sandbox = std::make_unique<Sandbox>(std::move(options));
        auto started = sandbox->start();
        ASSERT_TRUE(started.hasValue()) << started.error();
        client = std::make_unique<SandboxClient>(*sandbox);
    }
    void SetUp() override { start(); }

    std::unique_ptr<Sandbox> sandbox;
    std::unique_ptr<SandboxClient> client;
};

// The client helper trusts only the CA the sandbox made and wrote beside the
// localhost certificate.
TEST_F(SandboxTest, AcceptsACorrectSignatureWithinTheClockToleranceAndLogsTheRequest) {
    Reply reply = client->send("PUT", kCheckin, R"({"app_info": {}})");
    EXPECT_EQ(reply.status, 200) << reply.body;

    // The library's runs against the sandbox count what it recorded by method,
    // target, status and headers; the verdict and body are shown only here.
    auto requests = sandbox->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].signature, "ok");
    EXPECT_EQ(requests[0].body, R"({"app_info": {}})");

    // The signature is checked over the address the client used; the
    // library signs a path without its trailing slash.
    EXPECT_EQ(SandboxClient(*sandbox, "127.0.0.1").send("GET", "/api/services/?page=2").status, 200);
    EXPECT_EQ(sandbox->requests()[1].signatureForm, "path-without-slash");
    // General OAuth 1.0 tools sign the path as sent (RFC 5849), made here by hand.
    const std::string stamp = std::to_string(std::time(nullptr)), port = std::to_string(sandbox->port());
    const std::string base = "GET&https%3A%2F%2Flocalhost%3A" + port + "%2Fapi%2Fservices%2F&oauth_consumer_key%3D"
                             "sandbox-token%26oauth_nonce%3Drfc%26oauth_signature_method%3DHMAC-SHA1%26oauth_"
                             "timestamp%3D" + stamp + "%26oauth_version%3D1.0";
    const std::string rfc = R"(OAuth oauth_consumer_key="sandbox-token", oauth_nonce="rfc", oauth_signature=")" +
                            OAuth::rfc3986encode(crypto::base64Encode(crypto::hmacSha1("sandbox-secret&", base))) +
                            R"(", oauth_signature_method="HMAC-SHA1", oauth_timestamp=")" + stamp +
                            R"(", oauth_version="1.0")";
    EXPECT_EQ(client->send("GET", "/api/services/", "", Signing{.authorization = rfc}).status, 200);
    EXPECT_EQ(sandbox->requests()[2].signatureForm, "path-as-sent");
    // Clocks may differ by up to five minutes.
    EXPECT_EQ(client->checkin(Signing{.clockOffset = -295}).status, 200);
    EXPECT_EQ(client->checkin(Signing{.clockOffset = 295}).status, 200);
}

struct Refusal {
    std::string name;
    Signing signing;
    std::string error;
    std::string verdict;
    int status = 401;
    std::string target = "/api/services/";
    std::string body = "";
    httplib::Headers headers = {};
    friend void PrintTo(const Refusal& value, std::ostream* out) { *out << value.name; }
};

class RequestRefusal : public SandboxTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RequestRefusal, AnswersWithTheReason) {
    const Refusal& c = GetParam();
    Reply reply = client->send(c.body.empty() ? "GET" : "PUT", c.target, c.body, c.signing, c.headers);
    EXPECT_EQ(reply.status, c.status);
    EXPECT_EQ(Json::parse(reply.body), (Json{{"errors", {c.error}}}));
    ASSERT_EQ(sandbox->requests().size(), 1u);
    EXPECT_EQ(sandbox->requests()[0].signature, c.verdict);
}

INSTANTIATE_TEST_SUITE_P(
    Sandbox, RequestRefusal,
    ::testing::Values(
        Refusal{"Missing", kUnsigned, "Missing OAuth Authorization header", "missing"},
        Refusal{"WrongSecret", Signing{.secret = "guessed"}, "Invalid signature", "invalid"},
        Refusal{"UnknownKey", Signing{.token = "someone-else"}, "Unknown consumer key", "unknown-key"},
        Refusal{"StaleTimestamp", Signing{.clockOffset = -305}, "Stale timestamp", "stale"},
        Refusal{"FutureTimestamp", Signing{.clockOffset = 305}, "Stale timestamp", "stale"},
        Refusal{"NotOAuth", Signing{.authorization = "Bearer abc"}, "Malformed OAuth Authorization header",
                "malformed"},
        Refusal{"PlainText",
                Signing{.authorization = R"(OAuth oauth_consumer_key="sandbox-token",oauth_nonce="n",)"
                                         R"(oauth_signature="x",oauth_signature_method="PLAINTEXT",)"
                                         R"(oauth_timestamp="1")"},
                "Unsupported signature method", "unsupported-method"},
        Refusal{"OtherAppToken", {}, "Unknown app token", "ok", 404, "/api/checkin/another-app", R"({"app_info": {}})"},
        Refusal{"NoAppInfo", {}, "app_info: missing required key", "ok", 422, kCheckin, R"({"info": {}})"},
        Refusal{"NotJson", {}, "Content-Type must be application/json", "ok", 415, kCheckin, R"({"app_info": {}})",
                {{"Content-Type", "text/plain"}}}),
    [](const auto& info) { return info.param.name; });

// libcurl sends a request again, headers and all, when the reused connection
// it went out on turned out dead; only an answered nonce is spent.
TEST_F(SandboxTest, RefusesANonceAlreadyAnsweredButNotOneLeftWithoutAnswer) {
    sandbox->setFault(Route::checkin, Fault::parse("drop*1").value());
    const Signing same{.nonce = "once"};
    EXPECT_EQ(client->checkin(same).status, 0);
    EXPECT_EQ(client->checkin(same).status, 200);
    Reply replayed = client->checkin(same);
    EXPECT_EQ(replayed.status, 401);
    EXPECT_EQ(replayed.body, R"({"errors":["Nonce already used"]})");
    EXPECT_EQ(sandbox->requests().back().signature, "replay");
}

// A developer's own certificate is served as given; without one, a data
// directory the developer named keeps the CA made at the first start, so a
// browser told once to trust it keeps trusting the sandbox.
TEST(SandboxCertificateTest, ServesGivenPemFilesOrKeepsItsOwnCaAcrossStarts) {
    palomir_test::TempDir directory;
    auto pki = palomir_test::Pki::make("Given");
    palomir_test::writePem(directory / "chain.pem", pki.chain());
    pki.leaf.writeKeyPem(directory / "key.pem");
    pki.root.writePem(directory / "root.pem");

    SandboxOptions options{.bundleDirectory = directory / "bundle",
                           .certificateFile = directory / "chain.pem",
                           .keyFile = directory / "key.pem",
                           .caCertificateFile = directory / "root.pem",
                           .logRequests = false};
    Sandbox given(options);
    auto started = given.start();
    ASSERT_TRUE(started.hasValue()) << started.error();
    EXPECT_EQ(readText(given.caFile()), pki.root.pem());
    EXPECT_EQ(SandboxClient(given).checkin().status, 200);

    std::string authority;
    for (const bool first : {true, false}) {
        Sandbox own(SandboxOptions{.dataDirectory = directory / "data", .logRequests = false});
        ASSERT_TRUE(own.start().hasValue());
        EXPECT_EQ(own.madeLastingAuthority(), first);
        if (first) authority = readText(own.caFile());
        EXPECT_EQ(readText(own.caFile()), authority);
        EXPECT_EQ(SandboxClient(own).checkin().status, 200);
    }
}

class ExampleScenario : public SandboxTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override { start(SandboxOptions{.scenarioFile = kScenarios / (GetParam() + ".json")}); }
};

TEST_P(ExampleScenario, ServesItsConfigurationAndPassesTheCheckCommand) {
    const fs::path path = kScenarios / (GetParam() + ".json");
    EXPECT_EQ(checkCommand(path), std::make_pair(0, std::string("ok\n")));
    Json file = Json::parse(readText(path));

    Reply checkin = client->checkin();
    ASSERT_EQ(checkin.status, 200) << checkin.body;
    Json served = Json::parse(checkin.body);
    // The instant moves with the clock; the library's runs against the sandbox
    // show it is when the scenario says.
    if (file.contains("next_checkin_after_seconds")) served["next_checkin"].erase("automatically_at");
    // The library's runs against the sandbox decode the service lists.
    EXPECT_EQ(served, file["configuration"]);
}

INSTANTIATE_TEST_SUITE_P(Sandbox, ExampleScenario,
                         ::testing::Values("notes-only", "soft-lockdown", "hard-lockdown", "outage"),
                         [](const auto& info) {
                             std::string name = info.param;
                             std::erase(name, '-');
                             return name;
                         });

// The dashboard's browser test shows its editor naming a bad key and keeping
// the served scenario; the check command names it the same way.
TEST(SandboxCheckTest, RefusesABadScenarioNamingTheKeyPath) {
    palomir_test::TempDir directory;
    std::ofstream(directory / "bad.json") << R"({"configuration": {"version": 1}})";
    EXPECT_EQ(checkCommand(directory / "bad.json"),
              std::make_pair(1, (directory / "bad.json").string() +
                                    ": configuration.version: expected a string, found number\n"));
}

// Uploads that arrive whole are proven by the library's own runs against the
// sandbox; these are the refusals that keep it an honest peer.
TEST_F(SandboxTest, TakesOnlyUploadsMatchingTheirAnnouncementAndFeedbackNamingThem) {
    Json forged{{"feedback", {{"title", "t"}, {"message", "m"}, {"submitted_by", "s"}, {"files", {"forged"}}}},
                {"app_info", Json::object()}};
    Reply unknown = client->send("POST", "/api/feedback", forged.dump());
    EXPECT_EQ(unknown.status, 422);
    EXPECT_EQ(unknown.body, R"({"errors":["Unknown file: forged"]})");

    const std::string md5 = "kAFQmDzST7DWlj99KOF/cg==";  // of "abc"
    Json blob{{"blob", {{"filename", "main.log"}, {"byte_size", 3}, {"checksum", md5}, {"content_type", "text/plain"}}}};
    const Json upload = Json::parse(client->send("POST", "/api/direct_uploads", blob.dump()).body)["direct_upload"];
    EXPECT_EQ(upload["headers"], (Json{{"Content-Type", "text/plain"}, {"Content-MD5", md5}}));
    auto putBytes = [&](const std::string& bytes) {
        httplib::Headers headers;
        for (const auto& [name, value] : upload["headers"].items()) headers.emplace(name, value.get<std::string>());
        return client->send("PUT", Url::parse(upload["url"].get<std::string>())->rawPath(), bytes, kUnsigned, headers);
    };
    EXPECT_EQ(putBytes("abd").body, R"({"errors":["Checksum mismatch"]})");
    EXPECT_EQ(putBytes("abcd").body, R"({"errors":["Size mismatch: announced 3 bytes, received 4"]})");
    EXPECT_EQ(sandbox->recordedUploads()[0].problem, "Size mismatch: announced 3 bytes, received 4");
    EXPECT_EQ(putBytes("abc").status, 204);
    EXPECT_TRUE(sandbox->recordedUploads()[0].uploaded);
    // Only the announcement is signed.
    EXPECT_EQ(sandbox->requests()[4].signature, "unsigned");
}

// What each fault does to the library (malformed, empty, truncated, oversized
// answers, stalls, drips, statuses with a body, a fault on one route leaving
// the others alone) is the hostile-server sweep's matrix; these are the faults
// it does not use, set at start and while running, and what the sandbox
// records of one.
TEST_F(SandboxTest, FaultsTheSweepDoesNotUseDoWhatTheySayAndAreRecorded) {
    std::vector<std::pair<Route, Fault>> faults;
    for (const char* setting : {"checkin=delay:300", "services=cache-control:max-age=-5"})
        faults.push_back(parseFaultSetting(setting).value());
    ASSERT_NO_FATAL_FAILURE(start(SandboxOptions{.faults = faults}));
    const Reply delayed = client->checkin();
    EXPECT_EQ(delayed.status, 200);
    EXPECT_GE(delayed.elapsed, 300ms);
    EXPECT_EQ(client->send("GET", "/api/system_services/").header("Cache-Control"), "max-age=-5");
    sandbox->setFault(Route::any, Fault::parse("drop").value());
    EXPECT_EQ(client->send("GET", "/api/services/sync").status, 0);

    const auto requests = sandbox->requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].fault, "delay:300");
    EXPECT_EQ(requests[2].fault, "drop");
    EXPECT_EQ(requests[2].status, 0);
}

TEST(SandboxFaultTest, RefusedSettingsSayWhatIsWrong) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"checkin", "fault checkin: expected route=kind[:argument], as in checkin=delay:500"},
        {"login=drop", "unknown fault route: login"},
        {"checkin=status:42", "fault status:42: the status code must be from 100 to 599"},
        {"checkin=drop*0", "fault drop*0: the count after '*' must be a positive number"}};
    for (const auto& [text, error] : cases) {
        auto parsed = parseFaultSetting(text);
        ASSERT_TRUE(parsed.hasError()) << text;
        EXPECT_EQ(parsed.error(), error);
    }
}

}  // namespace
}  // namespace palomir::sandbox
