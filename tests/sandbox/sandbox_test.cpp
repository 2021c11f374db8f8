#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <ctime>
#include <thread>

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

    /// Announces `bytes` under the given checksum; returns the answer.
    Json announce(const std::string& filename, std::size_t size, const std::string& checksum) {
        Json blob{{"blob",
                   {{"filename", filename},
                    {"byte_size", size},
                    {"checksum", checksum},
                    {"content_type", "text/plain"}}}};
        Reply announced = client->send("POST", "/api/direct_uploads", blob.dump());
        EXPECT_EQ(announced.status, 200) << announced.body;
        return Json::parse(announced.body);
    }

    Json upload(const std::string& filename, const std::string& bytes) {
        std::string checksum = crypto::base64Encode(crypto::md5(crypto::asBytes(bytes)));
        Json answer = announce(filename, bytes.size(), checksum);
        EXPECT_EQ(putBytes(answer, bytes).status, 204);
        return answer;
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
                             "sandbox-token%26oauth_nonce%3Dn1%26oauth_signature_method%3DHMAC-SHA1%26oauth_"
                             "timestamp%3D" + stamp + "%26oauth_version%3D1.0";
    const std::string rfc = R"(OAuth oauth_consumer_key="sandbox-token", oauth_nonce="n1", oauth_signature=")" +
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
    EXPECT_EQ(reply.header("Content-Type"), "application/json");
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

TEST(SandboxCertificateTest, ANamedDataDirectoryKeepsItsCaForTheNextStart) {
    palomir_test::TempDir directory;
    std::string first;
    for (bool made : {true, false}) {
        Sandbox sandbox(SandboxOptions{.dataDirectory = directory.path(), .logRequests = false});
        ASSERT_TRUE(sandbox.start().hasValue());
        EXPECT_EQ(sandbox.madeLastingAuthority(), made);
        EXPECT_EQ(SandboxClient(sandbox).checkin().status, 200);
        if (made) first = readText(sandbox.caFile());
    }
    EXPECT_EQ(readText(directory / "bundle" / "ca.pem"), first);
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

TEST(SandboxProgramTest, ServesUntilInterruptedWithFaultsFromTheCommandLineAndStopsAtOnce) {
    palomir_test::TempDir directory;
    const std::string program = PALOMIR_SANDBOX_PROGRAM;
    const std::string data = directory.path().string(), scenario = (kScenarios / "outage.json").string();
    int out = ::open((directory / "out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(out, 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out, 1);
        ::execl(program.c_str(), program.c_str(), "--quiet", "--data-dir", data.c_str(), "--scenario",
                scenario.c_str(), "--fault", "services=status:502*1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out);
    ASSERT_GT(pid, 0);

    // It prints the port it picked once it listens.
    std::string printed;
    for (int i = 0; i < 1000 && printed.find("data:") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        printed = readText(directory / "out.txt");
    }
    auto portLine = printed.find("port:");
    ASSERT_NE(portLine, std::string::npos) << printed;
    for (const char* line : {"fault:       services=status:502*1", "app secret:  sandbox-secret", "/?token="})
        EXPECT_NE(printed.find(line), std::string::npos) << printed;

    const int port = std::stoi(printed.substr(portLine + 5));
    SandboxClient client(port, directory / "bundle" / "ca.pem", "");
    EXPECT_EQ(client.send("GET", "/api/services/").status, 502);
    Reply served = client.send("GET", "/api/services/");
    EXPECT_EQ(served.status, 200);
    EXPECT_EQ(Json::parse(served.body)["services"].size(), 4u);

    // A connection left open holds a server thread for seconds; SIGTERM
    // must not wait for it.
    int idle = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(static_cast<std::uint16_t>(port)),
                        .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    ASSERT_EQ(::connect(idle, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    auto signalled = std::chrono::steady_clock::now();
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::milliseconds(1000));
    ::close(idle);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
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
    ASSERT_TRUE(decodeJson<Configuration>(checkin.body).hasValue());
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

        if (file[key].empty()) continue;
        std::string identifier = file[key][0]["identifier"];
        Reply single = client->send("GET", std::string(path) + identifier);
        ASSERT_EQ(single.status, 200) << single.body;
        EXPECT_EQ(decodeJson<ServiceResponse>(single.body).value().service.identifier, identifier);
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

struct BadScenario {
    std::string name;
    std::string json;
    std::string error;
    friend void PrintTo(const BadScenario& value, std::ostream* out) { *out << value.name; }
};

class ScenarioRefusal : public SandboxTest, public ::testing::WithParamInterface<BadScenario> {};

TEST_P(ScenarioRefusal, NamesTheKeyPathAndKeepsTheCurrentScenario) {
    auto before = sandbox->scenario().configuration;
    auto result = sandbox->setScenarioJson(GetParam().json);
    ASSERT_TRUE(result.hasError());
    EXPECT_EQ(result.error(), GetParam().error);
    EXPECT_EQ(sandbox->scenario().configuration, before);

    palomir_test::TempDir directory;
    std::ofstream(directory / "bad.json") << GetParam().json;
    auto [status, output] = checkCommand(directory / "bad.json");
    EXPECT_NE(status, 0);
    EXPECT_EQ(output, (directory / "bad.json").string() + ": " + GetParam().error + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Sandbox, ScenarioRefusal,
    ::testing::Values(
        BadScenario{"NoteIdentifier",
                    R"({"configuration": {"version": "1", "theme": {"text_color": "#fff", "background_color": "#000"},
                        "notes": [{"identifier": "not-a-uuid", "title": "t", "content": "c"}],
                        "lockdown": {"active": false, "latest_version": "1"}}})",
                    "configuration.notes[0].identifier: not a valid UUID"},
        BadScenario{"ServiceState",
                    R"({"configuration": {"version": "1", "theme": {"text_color": "#fff", "background_color": "#000"},
                        "notes": [], "lockdown": {"active": false, "latest_version": "1"}},
                        "system_services": [{"name": "A", "identifier": "a", "is_available": true, "state": "ok",
                                             "triggers_message": false},
                                            {"name": "B", "identifier": "b", "is_available": true, "state": null,
                                             "triggers_message": false}]})",
                    "system_services[1].state: expected a string, found null"},
        BadScenario{"NoConfiguration", R"({"services": []})", "configuration: missing required key"}),
    [](const auto& info) { return info.param.name; });

TEST_F(SandboxTest, SwitchesScenarioAtRunTimeByNameThroughTheAdminRoute) {
    start(SandboxOptions{.scenarioFile = kScenarios / "notes-only.json"});
    EXPECT_FALSE(Json::parse(client->checkin().body)["lockdown"]["active"].get<bool>());

    Reply posted = client->send("POST", "/_sandbox/scenario", R"({"name": "hard-lockdown"})", kUnsigned);
    EXPECT_EQ(posted.status, 200) << posted.body;
    auto configuration = decodeJson<Configuration>(client->checkin().body);
    ASSERT_TRUE(configuration.hasValue());
    EXPECT_EQ(configuration.value().lockdown.type, LockdownType::hard);
    EXPECT_TRUE(configuration.value().theme.backgroundGradient.has_value());

    sandbox->reset();
    EXPECT_EQ(sandbox->scenario().name, "notes-only");
}

TEST_F(SandboxTest, TakesUploadsMatchingTheirAnnouncementAndRecordsFeedbackWithItsFiles) {
    Json forged{{"feedback", {{"title", "t"}, {"message", "m"}, {"submitted_by", "s"}, {"files", {"forged"}}}},
                {"app_info", Json::object()}};
    Reply unknown = client->send("POST", "/api/feedback", forged.dump());
    EXPECT_EQ(unknown.status, 422);
    EXPECT_EQ(unknown.body, R"({"errors":["Unknown file: forged"]})");
    EXPECT_TRUE(sandbox->recordedFeedback().empty());

    Json log = upload("main.log", "abc");
    EXPECT_EQ(log["direct_upload"]["headers"],
              (Json{{"Content-Type", "text/plain"}, {"Content-MD5", "kAFQmDzST7DWlj99KOF/cg=="}}));
    const std::string own = "https://localhost:" + std::to_string(sandbox->port()) + "/";
    EXPECT_EQ(log["direct_upload"]["url"].get<std::string>().rfind(own, 0), 0u);
    auto decoded = decode<DirectUploadResponse>(log);
    ASSERT_TRUE(decoded.hasValue());
    // The byte upload is not signed; the announcement is.
    EXPECT_EQ(sandbox->requests()[2].signature, "unsigned");

    Json refused = announce("a.txt", 3, "kAFQmDzST7DWlj99KOF/cg==");
    Reply wrongBytes = putBytes(refused, "abd");
    EXPECT_EQ(wrongBytes.status, 422);
    EXPECT_EQ(wrongBytes.body, R"({"errors":["Checksum mismatch"]})");
    Reply wrongSize = putBytes(refused, "abcd");
    EXPECT_EQ(wrongSize.status, 422);
    EXPECT_EQ(wrongSize.body, R"({"errors":["Size mismatch: announced 3 bytes, received 4"]})");
    Reply badBlob = client->send("POST", "/api/direct_uploads", R"({"blob": {"filename": "a.txt"}})");
    EXPECT_EQ(badBlob.status, 422);
    EXPECT_EQ(badBlob.body, R"({"errors":["blob.byte_size: missing required key"]})");
    auto uploads = sandbox->recordedUploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[0].signedID, decoded.value().signedID);
    EXPECT_EQ(uploads[1].problem, "Size mismatch: announced 3 bytes, received 4");

    Json note = upload("full_message.txt", std::string(1500, 'x'));
    Json body{{"feedback",
               {{"title", "Sync stopped"},
                {"message", "My notes no longer sync."},
                {"submitted_by", "ada@example.com"},
                {"files", {note["signed_id"], log["signed_id"]}}}},
              {"app_info", {{"app_version", "3.4.0"}}}};
    Reply reply = client->send("POST", "/api/feedback", body.dump());
    ASSERT_EQ(reply.status, 201) << reply.body;
    EXPECT_EQ(Json::parse(reply.body), body["feedback"]);
    auto recorded = sandbox->recordedFeedback();
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].appInfo, body["app_info"]);
    Json stored = Json::parse(readText(recorded[0].directory / "feedback.json"));
    EXPECT_EQ(stored["message"], "My notes no longer sync.");
    EXPECT_EQ(readText(stored["attachments"][0]["file"].get<std::string>()), std::string(1500, 'x'));
    EXPECT_EQ(readText(recorded[0].directory / "2-main.log"), "abc");
}

}  // namespace
}  // namespace palomir::sandbox
