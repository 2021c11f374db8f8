#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <ctime>
#include <fstream>

#include "palomir/model.hpp"
#include "palomir_test/tls.hpp"
#include "platform/crypto.hpp"
#include "sandbox_client.hpp"

namespace palomir::sandbox {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using testing::Reply;
using testing::SandboxClient;
using testing::Signing;

const fs::path kScenarios = PALOMIR_SCENARIO_DIR;
const Signing kUnsigned{.sign = false};

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

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

    /// Announces a text file of `size` bytes under `checksum`; the answer.
    Json announce(std::size_t size, const std::string& checksum) {
        Json blob{{"blob", {{"filename", "main.log"}, {"byte_size", size}, {"checksum", checksum},
                            {"content_type", "text/plain"}}}};
        return Json::parse(client->send("POST", "/api/direct_uploads", blob.dump()).body);
    }

    Reply putBytes(const Json& announcement, const std::string& bytes) {
        auto url = Url::parse(announcement["direct_upload"]["url"].get<std::string>());
        httplib::Headers headers;
        for (const auto& [name, value] : announcement["direct_upload"]["headers"].items())
            headers.emplace(name, value.get<std::string>());
        return client->send("PUT", url->rawPath(), bytes, kUnsigned, headers);
    }

    std::unique_ptr<Sandbox> sandbox;
    std::unique_ptr<SandboxClient> client;
};

// The client helper trusts only the CA the sandbox made and wrote beside the
// localhost certificate.
TEST_F(SandboxTest, AcceptsACorrectSignatureWithinTheClockToleranceAndLogsTheRequest) {
    Reply reply = client->send("PUT", "/api/checkin/sandbox-token", R"({"app_info": {}})", {},
                               {{"X-Authorization-User", "user-42"}});
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_TRUE(decodeJson<Configuration>(reply.body).hasValue());

    auto requests = sandbox->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "PUT");
    EXPECT_EQ(requests[0].target, "/api/checkin/sandbox-token");
    EXPECT_EQ(requests[0].status, 200);
    EXPECT_EQ(requests[0].signature, "ok");
    EXPECT_EQ(requests[0].header("x-authorization-user"), "user-42");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json, application/json");
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

const std::string kCheckin = "/api/checkin/sandbox-token";

INSTANTIATE_TEST_SUITE_P(
    Sandbox, RequestRefusal,
    ::testing::Values(
        Refusal{"Missing", kUnsigned, "Missing OAuth Authorization header", "missing"},
        Refusal{"WrongSecret", Signing{.secret = "guessed"}, "Invalid signature", "invalid"},
        Refusal{"UnknownKey", Signing{.token = "someone-else"}, "Unknown consumer key", "unknown-key"},
        Refusal{"StaleTimestamp", Signing{.clockOffset = -305}, "Stale timestamp", "stale"},
        Refusal{"FutureTimestamp", Signing{.clockOffset = 305}, "Stale timestamp", "stale"},
        Refusal{"OtherPath", Signing{.signedURL = "https://localhost:1/api/feedback"}, "Invalid signature", "invalid"},
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

TEST(SandboxCertificateTest, ServesGivenPemFilesAndWritesTheirLeafForPinning) {
    palomir_test::TempDir directory;
    auto pki = palomir_test::TestPki::make("Given");
    palomir_test::writePem(directory / "chain.pem", pki.chain());
    pki.leaf.writeKeyPem(directory / "key.pem");
    pki.root.writePem(directory / "root.pem");

    SandboxOptions options{.bundleDirectory = directory / "bundle",
                           .certificateFile = directory / "chain.pem",
                           .keyFile = directory / "key.pem",
                           .caCertificateFile = directory / "root.pem",
                           .logRequests = false};
    Sandbox sandbox(options);
    auto started = sandbox.start();
    ASSERT_TRUE(started.hasValue()) << started.error();
    const auto der = pki.leaf.der();
    EXPECT_TRUE(readText(sandbox.certificateFile()) == std::string(der.begin(), der.end()));
    EXPECT_EQ(readText(sandbox.caFile()), pki.root.pem());
    EXPECT_EQ(SandboxClient(sandbox).checkin().status, 200);

    options.keyFile = directory / "root.pem";
    auto refused = Sandbox(options).start();
    ASSERT_TRUE(refused.hasError());
    EXPECT_EQ(refused.error(), (directory / "root.pem").string() + ": no PEM private key found");
}

class ExampleScenario : public SandboxTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override { start(SandboxOptions{.scenarioFile = kScenarios / (GetParam() + ".json")}); }
};

TEST_P(ExampleScenario, ServesItsDocumentsAsTheClientDecodesThemAndPassesTheCheckCommand) {
    const fs::path path = kScenarios / (GetParam() + ".json");
    EXPECT_EQ(checkCommand(path), std::make_pair(0, std::string("ok\n")));
    Json file = Json::parse(readText(path));

    Reply checkin = client->checkin();
    ASSERT_EQ(checkin.status, 200) << checkin.body;
    Json served = Json::parse(checkin.body);
    if (file.contains("next_checkin_after_seconds")) {
        auto due = plRFC3339Parse(served["next_checkin"]["automatically_at"].get<std::string>());
        ASSERT_TRUE(due.has_value());
        auto ahead = *due - std::chrono::system_clock::now();
        EXPECT_GT(ahead, std::chrono::seconds(file["next_checkin_after_seconds"].get<int>() - 5));
        served["next_checkin"].erase("automatically_at");
    }
    EXPECT_EQ(served, file["configuration"]);

    for (const auto& [path, key] : {std::pair{"/api/services/", "services"}, {"/api/system_services/", "system_services"}}) {
        Reply list = client->send("GET", path);
        ASSERT_EQ(list.status, 200) << list.body;
        EXPECT_EQ(list.header("Cache-Control"), "max-age=60");
        auto decoded = decodeJson<ServicesResponse>(list.body);
        ASSERT_TRUE(decoded.hasValue()) << decoded.error().message();
        EXPECT_EQ(decoded.value().services.size(), file[key].size());

        Reply unknown = client->send("GET", std::string(path) + "no-such-service");
        EXPECT_EQ(unknown.status, 404);
        EXPECT_EQ(unknown.body, R"({"errors":["Unknown service: no-such-service"]})");
    }
}

INSTANTIATE_TEST_SUITE_P(Sandbox, ExampleScenario,
                         ::testing::Values("notes-only", "soft-lockdown", "hard-lockdown", "outage"),
                         [](const auto& info) {
                             std::string name = info.param;
                             std::erase(name, '-');
                             return name;
                         });

// The page's editor shows the same errors through the admin route.
TEST_F(SandboxTest, RefusesABadScenarioNamingTheKeyPathAndKeepsTheCurrentOne) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"configuration": {"version": "1", "theme": {"text_color": "#fff", "background_color": "#000"},
             "notes": [], "lockdown": {"active": false, "latest_version": "1"}},
             "system_services": [{"name": "B", "identifier": "b", "is_available": true, "state": null,
                                  "triggers_message": false}]})",
         "system_services[0].state: expected a string, found null"},
        {R"({"services": []})", "configuration: missing required key"}};
    const auto before = sandbox->scenario().configuration;
    palomir_test::TempDir directory;
    for (const auto& [json, error] : cases) {
        auto result = sandbox->setScenarioJson(json);
        ASSERT_TRUE(result.hasError());
        EXPECT_EQ(result.error(), error);
        std::ofstream(directory / "bad.json") << json;
        EXPECT_EQ(checkCommand(directory / "bad.json"),
                  std::make_pair(1, (directory / "bad.json").string() + ": " + error + "\n"));
    }
    EXPECT_EQ(sandbox->scenario().configuration, before);
}

TEST_F(SandboxTest, TakesOnlyUploadsMatchingTheirAnnouncementAndFeedbackNamingThem) {
    Json forged{{"feedback", {{"title", "t"}, {"message", "m"}, {"submitted_by", "s"}, {"files", {"forged"}}}},
                {"app_info", Json::object()}};
    Reply unknown = client->send("POST", "/api/feedback", forged.dump());
    EXPECT_EQ(unknown.status, 422);
    EXPECT_EQ(unknown.body, R"({"errors":["Unknown file: forged"]})");

    const std::string md5 = "kAFQmDzST7DWlj99KOF/cg==";  // of "abc"
    Json log = announce(3, md5);
    EXPECT_EQ(log["direct_upload"]["headers"], (Json{{"Content-Type", "text/plain"}, {"Content-MD5", md5}}));
    EXPECT_EQ(putBytes(log, "abd").body, R"({"errors":["Checksum mismatch"]})");
    EXPECT_EQ(putBytes(log, "abcd").body, R"({"errors":["Size mismatch: announced 3 bytes, received 4"]})");
    EXPECT_EQ(sandbox->recordedUploads()[0].problem, "Size mismatch: announced 3 bytes, received 4");
    EXPECT_EQ(putBytes(log, "abc").status, 204);
    EXPECT_TRUE(sandbox->recordedUploads()[0].uploaded);
    // Only the announcement is signed.
    EXPECT_EQ(sandbox->requests()[4].signature, "unsigned");
    Reply badBlob = client->send("POST", "/api/direct_uploads", R"({"blob": {"filename": "a.txt"}})");
    EXPECT_EQ(badBlob.status, 422);
    EXPECT_EQ(badBlob.body, R"({"errors":["blob.byte_size: missing required key"]})");
}

}  // namespace
}  // namespace palomir::sandbox
