#include "sandbox.hpp"

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <ctime>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <span>
#include <sstream>
#include <thread>

#include "palomir/model.hpp"
#include "platform/crypto.hpp"
#include "dashboard.hpp"
#include "pki.hpp"
#include "signature.hpp"

namespace palomir::sandbox {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

constexpr std::size_t kRecordedBodyLimit = 64 * 1024;
constexpr const char* kJson = "application/json";

/// An answer before faults and writing: what the route means to say.
struct Answer {
    int status = 200;
    std::string body;
    std::string contentType = kJson;
    std::vector<std::pair<std::string, std::string>> headers;
};

Answer jsonAnswer(int status, const Json& body) {
    Answer answer;
    answer.status = status;
    // Recorded bodies are whatever clients sent, bytes that are not UTF-8
    // included; they show with U+FFFD rather than failing the whole answer.
    answer.body = body.dump(-1, ' ', false, Json::error_handler_t::replace);
    return answer;
}

Answer errorAnswer(int status, const std::string& message) {
    return jsonAnswer(status, Json{{"errors", Json::array({message})}});
}

bool isServerNote(const std::string& name) {
    for (const char* note : {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR", "LOCAL_PORT"})
        if (strcasecmp(name.c_str(), note) == 0) return true;
    return false;
}

std::string trim(std::string_view text) {
    auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

/// The API client adds "application/json" twice, which arrives either as two
/// fields or as one joined with ", "; every part must name JSON.
bool hasJsonContentType(const httplib::Request& request) {
    std::size_t count = request.get_header_value_count("Content-Type");
    if (count == 0) return false;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string field = request.get_header_value("Content-Type", i);
        std::string_view value = field;
        while (true) {
            auto comma = value.find(',');
            std::string part = trim(value.substr(0, comma));
            part = trim(part.substr(0, part.find(';')));
            if (strcasecmp(part.c_str(), kJson) != 0) return false;
            if (comma == std::string_view::npos) break;
            value.remove_prefix(comma + 1);
        }
    }
    return true;
}

std::string randomKey(std::size_t length) {
    static constexpr char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::vector<std::uint8_t> bytes(length);
    crypto::randomBytes(bytes);
    std::string key;
    for (auto byte : bytes) key += alphabet[byte % 36];
    return key;
}

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (auto byte : bytes) {
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

/// A name that is safe to use as one file name in the data directory.
std::string safeFileName(const std::string& name) {
    std::string safe = fs::path(name).filename().string();
    if (safe.empty() || safe == "." || safe == "..") safe = "file";
    return safe;
}

bool writeFile(const fs::path& path, std::string_view bytes) {
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::optional<std::string> readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

Result<std::vector<Certificate>, std::string> loadChain(const fs::path& path) {
    auto text = readFile(path);
    if (!text) return Err{"cannot read " + path.string()};
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(text->data(), static_cast<int>(text->size())),
                                                  BIO_free);
    std::vector<Certificate> chain;
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
        chain.emplace_back(std::shared_ptr<X509>(certificate, X509_free), nullptr);
    if (chain.empty()) return Err{path.string() + ": no PEM certificate found"};
    return Ok{std::move(chain)};
}

Result<std::shared_ptr<EVP_PKEY>, std::string> loadKey(const fs::path& path) {
    auto text = readFile(path);
    if (!text) return Err{"cannot read " + path.string()};
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(text->data(), static_cast<int>(text->size())),
                                                  BIO_free);
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
    if (!key) return Err{path.string() + ": no PEM private key found"};
    return Ok{std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free)};
}

Answer dashboardAsset(const std::string& name) {
    for (std::size_t i = 0; i < kDashboardFileCount; ++i) {
        if (kDashboardFiles[i].name != name) continue;
        Answer answer;
        answer.body = kDashboardFiles[i].content;
        answer.contentType = kDashboardFiles[i].contentType;
        // The page only ever runs its own script, whatever text it shows.
        answer.headers.emplace_back("Content-Security-Policy",
                                    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                                    "connect-src 'self'; form-action 'none'; frame-ancestors 'none'");
        answer.headers.emplace_back("Cache-Control", "no-store");
        return answer;
    }
    return errorAnswer(404, "No dashboard file " + name);
}

fs::path programBesideThisOne(const std::string& name) {
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return {};
    fs::path candidate = self.parent_path() / name;
    return ::access(candidate.c_str(), X_OK) == 0 ? candidate : fs::path();
}

}  // namespace

std::string SandboxRequest::header(std::string_view name) const {
    for (const auto& [field, value] : headers)
        if (field.size() == name.size() && strncasecmp(field.c_str(), name.data(), name.size()) == 0) return value;
    return {};
}

Json toJson(const SandboxRequest& request) {
    Json headers = Json::array();
    for (const auto& [name, value] : request.headers) headers.push_back(Json::array({name, value}));
    return Json{{"id", request.identifier},
                {"received_at", plRFC3339Format(request.receivedAt)},
                {"method", request.method},
                {"target", request.target},
                {"headers", headers},
                {"body", request.body},
                {"status", request.status},
                {"signature", request.signature},
                {"signature_form", request.signatureForm},
                {"fault", request.fault}};
}

Json toJson(const RecordedUpload& upload) {
    return Json{{"id", upload.identifier},
                {"key", upload.key},
                {"filename", upload.filename},
                {"signed_id", upload.signedID},
                {"byte_size", upload.byteSize},
                {"checksum", upload.checksum},
                {"content_type", upload.contentType},
                {"uploaded", upload.uploaded},
                {"problem", upload.problem},
                {"file", upload.file.string()}};
}

Json toJson(const RecordedFeedback& feedback) {
    Json attachments = Json::array();
    for (const auto& upload : feedback.attachments) attachments.push_back(toJson(upload));
    return Json{{"id", feedback.identifier},
                {"title", feedback.title},
                {"message", feedback.message},
                {"submitted_by", feedback.submittedBy},
                {"files", feedback.files},
                {"app_info", feedback.appInfo},
                {"attachments", attachments},
                {"directory", feedback.directory.string()}};
}

// ---------------------------------------------------------------------------

struct Sandbox::State {
    SandboxOptions options;

    mutable std::mutex mutex;
    Scenario initialScenario;
    Scenario scenario;
    std::map<Route, Fault> faults;
    std::vector<SandboxRequest> requests;
    std::vector<RecordedUpload> uploads;
    std::vector<RecordedFeedback> feedback;
    std::int64_t nextUploadId = 1;
    std::int64_t nextFeedbackId = 1;
    std::int64_t nextRequestId = 1;
    // Nonces of answered requests, with their timestamps; one older than the
    // timestamp window cannot come back without being refused as stale, so
    // it is forgotten.
    std::map<std::string, std::int64_t> nonces;
    std::size_t noncesAfterLastPrune = 0;
    // Requests being handled, so that an interruption can wait for them.
    int inFlight = 0;
    std::condition_variable idle;
    std::string adminToken;
    bool madeLastingAuthority = false;
    std::mutex previewMutex;

    fs::path dataDirectory;
    fs::path bundleDirectory;
    bool ownsDataDirectory = false;

    std::vector<Certificate> chain;  // leaf first
    std::shared_ptr<EVP_PKEY> key;
    std::string caPem;

    std::unique_ptr<httplib::SSLServer> server;
    std::thread thread;
    std::atomic<bool> stopping{false};
    int port = 0;

    Result<bool, std::string> prepareDirectories();
    Result<bool, std::string> prepareCertificates();
    void handle(const httplib::Request& request, httplib::Response& response);

    // Routes; each answers what a healthy backend would.
    Answer checkin(const httplib::Request& request, const std::string& token);
    Answer services(bool system);
    Answer service(bool system, const std::string& identifier);
    Answer startDirectUpload(const httplib::Request& request);
    Answer upload(const httplib::Request& request, const std::string& key);
    Answer feedbackRoute(const httplib::Request& request);
    Answer admin(const httplib::Request& request);
    Answer preview();
    bool rememberNonce(const std::string& nonce, std::int64_t timestamp);

    std::optional<Fault> takeFault(Route route);
    bool sleepUnlessStopping(std::chrono::milliseconds duration) const;
    void stallUntilClientLeaves(const httplib::Request& request, std::chrono::milliseconds limit) const;
    std::string hostOf(const httplib::Request& request) const;
};

namespace {

int socketOf(const httplib::Request& request) { return request.ssl ? SSL_get_fd(request.ssl) : -1; }

}  // namespace

std::string Sandbox::State::hostOf(const httplib::Request& request) const {
    std::string host = request.get_header_value("Host");
    return host.empty() ? "localhost:" + std::to_string(port) : host;
}

bool Sandbox::State::sleepUnlessStopping(std::chrono::milliseconds duration) const {
    auto until = std::chrono::steady_clock::now() + duration;
    while (!stopping.load()) {
        auto left = until - std::chrono::steady_clock::now();
        if (left <= std::chrono::milliseconds(0)) return true;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(20)));
    }
    return false;
}

// The client sends nothing more while it waits for an answer, so the socket
// turns readable only when it closes the connection (close_notify or FIN).
void Sandbox::State::stallUntilClientLeaves(const httplib::Request& request, std::chrono::milliseconds limit) const {
    int fd = socketOf(request);
    auto until = std::chrono::steady_clock::now() + limit;
    while (!stopping.load() && std::chrono::steady_clock::now() < until) {
        if (fd < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        pollfd watch{fd, static_cast<short>(POLLIN | POLLRDHUP), 0};
        if (::poll(&watch, 1, 20) > 0) break;
    }
    if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

std::optional<Fault> Sandbox::State::takeFault(Route route) {
    std::lock_guard lock(mutex);
    for (Route candidate : {route, Route::any}) {
        auto found = faults.find(candidate);
        if (found == faults.end()) continue;
        Fault fault = found->second;
        if (found->second.remaining && --*found->second.remaining <= 0) faults.erase(found);
        return fault;
    }
    return std::nullopt;
}

Result<bool, std::string> Sandbox::State::prepareDirectories() {
    std::error_code error;
    if (options.dataDirectory.empty()) {
        std::string pattern = (fs::temp_directory_path() / "palomir-sandbox-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) return Err{std::string("cannot make a temporary data directory")};
        dataDirectory = pattern;
        ownsDataDirectory = true;
    } else {
        dataDirectory = options.dataDirectory;
        fs::create_directories(dataDirectory, error);
        if (error) return Err{"cannot make " + dataDirectory.string() + ": " + error.message()};
    }
    bundleDirectory = options.bundleDirectory.empty() ? dataDirectory / "bundle" : options.bundleDirectory;
    fs::create_directories(bundleDirectory, error);
    if (error) return Err{"cannot make " + bundleDirectory.string() + ": " + error.message()};
    return Ok{true};
}

Result<bool, std::string> Sandbox::State::prepareCertificates() {
    if (options.certificateFile.empty() != options.keyFile.empty())
        return Err{std::string("a certificate needs its key, and a key its certificate")};
    // A data directory the developer named keeps the CA, so that a browser
    // told once to trust it keeps trusting the sandbox across starts.
    const fs::path kept = ownsDataDirectory ? fs::path() : dataDirectory / "authority";
    auto reuse = [&]() -> bool {
        if (kept.empty()) return false;
        auto loaded = loadChain(kept / "chain.pem");
        auto loadedKey = loadKey(kept / "key.pem");
        auto ca = readFile(kept / "ca.pem");
        if (loaded.hasError() || loadedKey.hasError() || !ca) return false;
        // Renewed a day before the certificate runs out.
        std::time_t tomorrow = std::time(nullptr) + 86400;
        if (X509_cmp_time(X509_get0_notAfter(loaded.value().front().x509()), &tomorrow) <= 0) return false;
        if (X509_check_private_key(loaded.value().front().x509(), loadedKey.value().get()) != 1) return false;
        chain = std::move(loaded).value();
        key = std::move(loadedKey).value();
        caPem = *ca;
        return true;
    };
    if (options.certificateFile.empty() && !reuse()) {
        auto pki = Pki::make("Palomir Sandbox");
        chain = {pki.leaf, pki.intermediate};
        key = std::shared_ptr<EVP_PKEY>(pki.leaf.key(), [keep = pki.leaf](EVP_PKEY*) {});
        caPem = pki.root.pem();
        if (!kept.empty()) {
            try {
                fs::create_directories(kept);
                writePem(kept / "chain.pem", pki.chain());
                pki.leaf.writeKeyPem(kept / "key.pem");
                fs::permissions(kept / "key.pem", fs::perms::owner_read | fs::perms::owner_write);
                pki.root.writePem(kept / "ca.pem");
                madeLastingAuthority = true;
            } catch (const std::exception& e) {
                return Err{"cannot keep the CA in " + kept.string() + ": " + e.what()};
            }
        }
    } else if (!options.certificateFile.empty()) {
        auto loaded = loadChain(options.certificateFile);
        if (loaded.hasError()) return Err{loaded.error()};
        auto loadedKey = loadKey(options.keyFile);
        if (loadedKey.hasError()) return Err{loadedKey.error()};
        chain = std::move(loaded).value();
        key = std::move(loadedKey).value();
        if (X509_check_private_key(chain.front().x509(), key.get()) != 1)
            return Err{options.keyFile.string() + ": the key does not belong to the certificate"};
        if (!options.caCertificateFile.empty()) {
            auto ca = loadChain(options.caCertificateFile);
            if (ca.hasError()) return Err{ca.error()};
            caPem.clear();
            for (const auto& certificate : ca.value()) caPem += certificate.pem();
        } else {
            // Without a separate CA, the top of the given chain is what a
            // client is to trust.
            caPem = chain.back().pem();
        }
    }
    try {
        chain.front().writeDer(bundleDirectory / "localhost.crt");
    } catch (const std::exception& e) {
        return Err{std::string("cannot write localhost.crt: ") + e.what()};
    }
    if (!writeFile(bundleDirectory / "ca.pem", caPem)) return Err{"cannot write " + (bundleDirectory / "ca.pem").string()};
    return Ok{true};
}

// ---------------------------------------------------------------------------
// Routes

Answer Sandbox::State::checkin(const httplib::Request& request, const std::string& token) {
    if (token != options.appToken) return errorAnswer(404, "Unknown app token");
    if (!hasJsonContentType(request)) return errorAnswer(415, "Content-Type must be application/json");
    auto body = parseJson(request.body);
    if (body.hasError()) return errorAnswer(400, "Body is not JSON: " + body.error().reason);
    auto info = body.value().find("app_info");
    if (!body.value().is_object() || info == body.value().end() || !info->is_object())
        return errorAnswer(422, "app_info: missing required key");

    Scenario current;
    {
        std::lock_guard lock(mutex);
        current = scenario;
    }
    Json configuration = current.configuration;
    if (current.nextCheckinAfterSeconds) {
        auto due = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now()) +
                   std::chrono::seconds(*current.nextCheckinAfterSeconds);
        if (!configuration["next_checkin"].is_object())
            configuration["next_checkin"] = Json{{"on_event", Json::array({"launch", "foreground"})}};
        configuration["next_checkin"]["automatically_at"] = plRFC3339Format(due);
    }
    return jsonAnswer(200, configuration);
}

Answer Sandbox::State::services(bool system) {
    std::lock_guard lock(mutex);
    Answer answer = jsonAnswer(200, Json{{"services", system ? scenario.systemServices : scenario.services}});
    answer.headers.emplace_back("Cache-Control", options.cacheControl);
    return answer;
}

Answer Sandbox::State::service(bool system, const std::string& identifier) {
    std::lock_guard lock(mutex);
    for (const auto& entry : system ? scenario.systemServices : scenario.services) {
        if (entry.value("identifier", "") != identifier) continue;
        Answer answer = jsonAnswer(200, Json{{"service", entry}});
        answer.headers.emplace_back("Cache-Control", options.cacheControl);
        return answer;
    }
    return errorAnswer(404, "Unknown service: " + identifier);
}

Answer Sandbox::State::startDirectUpload(const httplib::Request& request) {
    if (!hasJsonContentType(request)) return errorAnswer(415, "Content-Type must be application/json");
    auto body = parseJson(request.body);
    if (body.hasError()) return errorAnswer(400, "Body is not JSON: " + body.error().reason);
    if (!body.value().is_object() || !body.value().contains("blob")) return errorAnswer(422, "blob: missing required key");
    auto blob = decode<DirectUpload>(body.value()["blob"]);
    if (blob.hasError()) {
        const auto& error = blob.error();
        return errorAnswer(422, (error.keyPath.empty() ? "blob" : "blob." + error.keyPath) + ": " + error.reason);
    }
    if (blob.value().byteSize < 0) return errorAnswer(422, "blob.byte_size: must not be negative");
    // The base64 of sixteen bytes, spelled as an encoder spells it: the text
    // decodes and encodes back to itself.
    const std::string& checksum = blob.value().checksum;
    std::array<unsigned char, 18> digest{};  // 24 characters decode to 18 bytes, the last two padding
    if (checksum.size() != 24 ||
        EVP_DecodeBlock(digest.data(), reinterpret_cast<const unsigned char*>(checksum.data()), 24) != 18 ||
        crypto::base64Encode(std::span(digest).first(16)) != checksum)
        return errorAnswer(422, "blob.checksum: expected the base64 of an MD5 digest");

    RecordedUpload upload;
    upload.filename = blob.value().filename;
    upload.byteSize = blob.value().byteSize;
    upload.checksum = blob.value().checksum;
    upload.contentType = blob.value().contentType;
    upload.key = randomKey(28);
    {
        std::lock_guard lock(mutex);
        upload.identifier = nextUploadId++;
    }
    std::string payload = "upload:" + std::to_string(upload.identifier) + ":" + upload.key;
    auto mac = crypto::hmacSha1(options.appSecret, payload);
    upload.signedID = crypto::base64Encode(crypto::asBytes(payload)) + "--" + hex(mac);

    Json response{{"id", upload.identifier},
                  {"key", upload.key},
                  {"filename", upload.filename},
                  {"signed_id", upload.signedID},
                  {"direct_upload",
                   {{"url", "https://" + hostOf(request) + "/uploads/" + upload.key},
                    {"headers", {{"Content-Type", upload.contentType}, {"Content-MD5", upload.checksum}}}}}};
    {
        std::lock_guard lock(mutex);
        uploads.push_back(upload);
    }
    return jsonAnswer(200, response);
}

Answer Sandbox::State::upload(const httplib::Request& request, const std::string& key) {
    RecordedUpload announced;
    {
        std::lock_guard lock(mutex);
        auto found = std::find_if(uploads.begin(), uploads.end(), [&](const auto& u) { return u.key == key; });
        if (found == uploads.end()) return errorAnswer(404, "Unknown upload: " + key);
        announced = *found;
    }
    std::string checksum = crypto::base64Encode(crypto::md5(crypto::asBytes(request.body)));
    std::string problem;
    if (static_cast<std::int64_t>(request.body.size()) != announced.byteSize)
        problem = "Size mismatch: announced " + std::to_string(announced.byteSize) + " bytes, received " +
                  std::to_string(request.body.size());
    else if (checksum != announced.checksum)
        problem = "Checksum mismatch";
    else if (request.has_header("Content-MD5") && request.get_header_value("Content-MD5") != announced.checksum)
        problem = "Content-MD5 does not match the announced checksum";
    if (!problem.empty()) {
        std::lock_guard lock(mutex);
        for (auto& u : uploads)
            if (u.key == key) u.problem = problem;
        return errorAnswer(422, problem);
    }

    fs::path file = dataDirectory / "uploads" / key / safeFileName(announced.filename);
    if (!writeFile(file, request.body)) return errorAnswer(500, "Cannot store the upload");
    std::lock_guard lock(mutex);
    for (auto& u : uploads)
        if (u.key == key) {
            u.uploaded = true;
            u.file = file;
            u.problem.clear();
        }
    Answer answer;
    answer.status = 204;
    answer.contentType.clear();
    return answer;
}

Answer Sandbox::State::feedbackRoute(const httplib::Request& request) {
    if (!hasJsonContentType(request)) return errorAnswer(415, "Content-Type must be application/json");
    auto body = parseJson(request.body);
    if (body.hasError()) return errorAnswer(400, "Body is not JSON: " + body.error().reason);
    const Json& document = body.value();
    if (!document.is_object() || !document.contains("feedback")) return errorAnswer(422, "feedback: missing required key");
    auto decoded = decode<Feedback>(document["feedback"]);
    if (decoded.hasError()) {
        const auto& error = decoded.error();
        return errorAnswer(422,
                           (error.keyPath.empty() ? "feedback" : "feedback." + error.keyPath) + ": " + error.reason);
    }
    auto info = document.find("app_info");
    if (info == document.end() || !info->is_object()) return errorAnswer(422, "app_info: missing required key");

    const Feedback& submitted = decoded.value();
    RecordedFeedback record;
    record.title = submitted.title;
    record.message = submitted.message;
    record.submittedBy = submitted.submittedBy;
    record.files = submitted.files.value_or(std::vector<std::string>{});
    record.appInfo = *info;
    {
        std::lock_guard lock(mutex);
        for (const auto& signedID : record.files) {
            auto found = std::find_if(uploads.begin(), uploads.end(),
                                      [&](const auto& u) { return u.signedID == signedID; });
            if (found == uploads.end()) return errorAnswer(422, "Unknown file: " + signedID);
            record.attachments.push_back(*found);
        }
        record.identifier = nextFeedbackId++;
    }
    record.directory = dataDirectory / "feedback" / std::to_string(record.identifier);

    Json files = Json::array();
    std::size_t index = 0;
    for (auto& attachment : record.attachments) {
        ++index;
        Json entry = toJson(attachment);
        if (attachment.uploaded) {
            fs::path copy = record.directory / (std::to_string(index) + "-" + safeFileName(attachment.filename));
            std::error_code error;
            fs::create_directories(record.directory, error);
            fs::copy_file(attachment.file, copy, fs::copy_options::overwrite_existing, error);
            if (!error) entry["file"] = copy.string();
        }
        files.push_back(entry);
    }
    Json stored = toJson(record);
    stored["attachments"] = files;
    stored["received_at"] =
        plRFC3339Format(std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now()));
    if (!writeFile(record.directory / "feedback.json", stored.dump(2) + "\n"))
        return errorAnswer(500, "Cannot store the feedback");
    {
        std::lock_guard lock(mutex);
        feedback.push_back(record);
    }
    return jsonAnswer(201, encode(submitted));
}

Answer Sandbox::State::admin(const httplib::Request& request) {
    const std::string what = request.path.substr(std::string("/_sandbox/").size());
    auto body = [&]() -> Json {
        auto parsed = parseJson(request.body.empty() ? "{}" : request.body);
        return parsed.hasValue() ? parsed.value() : Json();
    };

    if (request.method == "GET" && what == "requests") {
        // ?since=ID lists only newer ones (the page polls); ?summary leaves
        // out headers and bodies, which the page fetches one at a time.
        std::int64_t since = 0;
        if (request.has_param("since")) since = std::atoll(request.get_param_value("since").c_str());
        const bool summary = request.has_param("summary");
        Json list = Json::array();
        std::lock_guard lock(mutex);
        for (const auto& r : requests) {
            if (r.identifier <= since) continue;
            Json entry = toJson(r);
            if (summary) {
                entry.erase("headers");
                entry.erase("body");
                entry["user_authorization"] = !r.header("X-Authorization-User").empty();
            }
            list.push_back(std::move(entry));
        }
        return jsonAnswer(200, Json{{"requests", list}});
    }
    if (request.method == "GET" && what.rfind("requests/", 0) == 0) {
        std::int64_t id = std::atoll(what.c_str() + std::string("requests/").size());
        std::lock_guard lock(mutex);
        for (const auto& r : requests)
            if (r.identifier == id) return jsonAnswer(200, toJson(r));
        return errorAnswer(404, "No request " + std::to_string(id));
    }
    if (request.method == "GET" && what.rfind("uploads/", 0) == 0) {
        std::int64_t id = std::atoll(what.c_str() + std::string("uploads/").size());
        RecordedUpload found;
        {
            std::lock_guard lock(mutex);
            for (const auto& u : uploads)
                if (u.identifier == id && u.uploaded) found = u;
        }
        auto bytes = found.uploaded ? readFile(found.file) : std::nullopt;
        if (!bytes) return errorAnswer(404, "No uploaded bytes for upload " + std::to_string(id));
        // Opened in the page's origin, an uploaded file must not run script.
        const bool inline_ = request.has_param("inline");
        const bool viewable = found.contentType.rfind("image/", 0) == 0 && found.contentType != "image/svg+xml";
        Answer answer;
        answer.body = std::move(*bytes);
        answer.contentType = !inline_ ? "application/octet-stream" : viewable ? found.contentType : "text/plain";
        answer.headers.emplace_back("Content-Disposition", std::string(inline_ ? "inline" : "attachment") +
                                                               "; filename=\"" + safeFileName(found.filename) + "\"");
        answer.headers.emplace_back("Content-Security-Policy", "sandbox");
        return answer;
    }
    if (request.method == "GET" && what == "scenarios") {
        Json names = Json::array();
        if (!options.scenarioFile.empty()) {
            std::error_code error;
            std::vector<std::string> found;
            for (const auto& entry : fs::directory_iterator(options.scenarioFile.parent_path(), error))
                if (entry.path().extension() == ".json") found.push_back(entry.path().stem().string());
            std::sort(found.begin(), found.end());
            names = found;
        }
        return jsonAnswer(200, Json{{"scenarios", names}});
    }
    if (request.method == "POST" && what == "preview") return preview();
    if (request.method == "GET" && what.rfind("preview/", 0) == 0) {
        auto bytes = readFile(dataDirectory / "preview" / safeFileName(what.substr(std::string("preview/").size())));
        if (!bytes) return errorAnswer(404, "No such preview image");
        Answer answer;
        answer.body = std::move(*bytes);
        answer.contentType = "image/png";
        return answer;
    }
    if (request.method == "GET" && what == "uploads") {
        Json list = Json::array();
        std::lock_guard lock(mutex);
        for (const auto& u : uploads) list.push_back(toJson(u));
        return jsonAnswer(200, Json{{"uploads", list}});
    }
    if (request.method == "GET" && what == "feedback") {
        Json list = Json::array();
        std::lock_guard lock(mutex);
        for (const auto& f : feedback) list.push_back(toJson(f));
        return jsonAnswer(200, Json{{"feedback", list}});
    }
    if (request.method == "GET" && what == "scenario") {
        std::lock_guard lock(mutex);
        Json document{{"name", scenario.name},
                      {"configuration", scenario.configuration},
                      {"services", scenario.services},
                      {"system_services", scenario.systemServices}};
        if (scenario.nextCheckinAfterSeconds)
            document["next_checkin_after_seconds"] = *scenario.nextCheckinAfterSeconds;
        return jsonAnswer(200, document);
    }
    if (request.method == "POST" && what == "scenario") {
        Json document = body();
        if (!document.is_object()) return errorAnswer(400, "Body is not a JSON object");
        Result<Scenario, std::string> loaded = Err{std::string()};
        if (auto path = document.find("path"); path != document.end() && path->is_string()) {
            loaded = Scenario::fromFile(path->get<std::string>());
        } else if (auto name = document.find("name"); name != document.end() && name->is_string() &&
                                                      !document.contains("configuration")) {
            fs::path directory = options.scenarioFile.empty() ? fs::path(".") : options.scenarioFile.parent_path();
            loaded = Scenario::fromFile(directory / (safeFileName(name->get<std::string>()) + ".json"));
        } else {
            loaded = Scenario::fromJson(document, "posted");
        }
        if (loaded.hasError()) return errorAnswer(422, loaded.error());
        std::lock_guard lock(mutex);
        scenario = std::move(loaded).value();
        return jsonAnswer(200, Json{{"scenario", scenario.name}});
    }
    auto faultList = [&] {
        Json list = Json::object();
        for (const auto& [route, fault] : faults) list[std::string(toString(route))] = fault.description();
        return jsonAnswer(200, Json{{"faults", list}});
    };
    if (what == "faults" && request.method == "GET") {
        std::lock_guard lock(mutex);
        return faultList();
    }
    if (what == "faults" && request.method == "DELETE") {
        std::optional<Route> only;
        if (request.has_param("route")) {
            only = routeFromString(request.get_param_value("route"));
            if (!only) return errorAnswer(422, "unknown fault route: " + request.get_param_value("route"));
        }
        std::lock_guard lock(mutex);
        if (only)
            faults.erase(*only);
        else
            faults.clear();
        return faultList();
    }
    if (what == "faults" && request.method == "POST") {
        Json document = body();
        if (!document.is_object()) return errorAnswer(400, "Body is not a JSON object");
        std::vector<std::pair<Route, Fault>> settings;
        std::vector<std::string> texts;
        if (auto list = document.find("faults"); list != document.end()) {
            if (!list->is_array()) return errorAnswer(422, "faults: expected an array of route=kind[:argument]");
            for (const auto& item : *list) {
                if (!item.is_string()) return errorAnswer(422, "faults: expected an array of route=kind[:argument]");
                texts.push_back(item.get<std::string>());
            }
        }
        if (document.contains("route") || document.contains("fault")) {
            if (!document.value("route", Json()).is_string() || !document.value("fault", Json()).is_string())
                return errorAnswer(422, "route and fault must both be given as text");
            texts.push_back(document["route"].get<std::string>() + "=" + document["fault"].get<std::string>());
        }
        for (const auto& text : texts) {
            auto setting = parseFaultSetting(text);
            if (setting.hasError()) return errorAnswer(422, setting.error());
            settings.push_back(setting.value());
        }
        std::lock_guard lock(mutex);
        if (document.value("clear", false)) faults.clear();
        for (auto& [route, fault] : settings) faults[route] = fault;
        return faultList();
    }
    if (request.method == "POST" && what == "reset") {
        std::lock_guard lock(mutex);
        faults.clear();
        requests.clear();
        uploads.clear();
        feedback.clear();
        scenario = initialScenario;
        return jsonAnswer(200, Json{{"reset", true}});
    }
    return errorAnswer(404, "No admin route " + request.method + " " + request.path);
}

// The sandbox stays free of Qt: the screens are drawn by palomir-preview in a
// child process, one at a time, into <data directory>/preview.
Answer Sandbox::State::preview() {
    fs::path program = options.previewProgram.empty() ? programBesideThisOne("palomir-preview") : options.previewProgram;
    if (program.empty() || ::access(program.c_str(), X_OK) != 0)
        return errorAnswer(503, "No preview program: install palomir-preview beside palomir-sandbox, or name it "
                                "with --preview");
    std::lock_guard previewing(previewMutex);
    const fs::path directory = dataDirectory / "preview";
    std::error_code error;
    fs::remove_all(directory, error);
    fs::create_directories(directory, error);
    {
        std::lock_guard lock(mutex);
        if (!writeFile(directory / "configuration.json", scenario.configuration.dump()))
            return errorAnswer(500, "Cannot write the configuration for the preview");
    }
    const std::string file = (directory / "configuration.json").string(), out = directory.string(),
                      log = (directory / "preview.log").string();
    std::vector<char*> arguments{const_cast<char*>(program.c_str()), const_cast<char*>(file.c_str()),
                                 const_cast<char*>("--out"), const_cast<char*>(out.c_str()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t child = 0;
    int spawned = ::posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return errorAnswer(500, "Cannot run " + program.string() + ": " + std::strerror(spawned));
    int status = 0;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (stopping.load() || std::chrono::steady_clock::now() > until) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return errorAnswer(504, program.string() + " did not finish");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Json images = Json::array();
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory, error))
        if (entry.path().extension() == ".png") names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    images = names;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return jsonAnswer(500, Json{{"errors", {program.filename().string() + " failed: " +
                                                trim(readFile(log).value_or(""))}},
                                    {"images", images}});
    return jsonAnswer(200, Json{{"images", images}});
}

// ---------------------------------------------------------------------------
// Dispatch, faults and writing

bool Sandbox::State::rememberNonce(const std::string& nonce, std::int64_t timestamp) {
    if (!nonces.emplace(nonce, timestamp).second) return false;
    // Pruned whenever the map doubled, so each answer pays a constant share.
    if (nonces.size() >= 2 * noncesAfterLastPrune + 64) {
        auto oldest = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch() - options.timestampTolerance)
                          .count();
        std::erase_if(nonces, [&](const auto& entry) { return entry.second < oldest; });
        noncesAfterLastPrune = nonces.size();
    }
    return true;
}

void Sandbox::State::handle(const httplib::Request& request, httplib::Response& response) {
    {
        std::lock_guard lock(mutex);
        ++inFlight;
    }
    SandboxRequest record;
    record.receivedAt = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    record.method = request.method;
    record.target = request.target.empty() ? request.path : request.target;
    for (const auto& [name, value] : request.headers)
        if (!isServerNote(name)) record.headers.emplace_back(name, value);
    record.body = request.body.substr(0, kRecordedBodyLimit);
    record.signature = "unsigned";

    const std::string& path = request.path;
    auto startsWith = [&](std::string_view prefix) { return path.rfind(prefix, 0) == 0; };
    std::optional<Route> route;
    std::function<Answer()> answerRoute;
    std::string nonce;
    std::int64_t nonceTimestamp = 0;

    // A browser's own asks (the favicon) are not the client's traffic either.
    const bool observer = path == "/" || path == "/favicon.ico" || startsWith("/_sandbox/");
    if (observer) {
        std::string given = request.has_param("token") ? request.get_param_value("token")
                                                       : request.get_header_value("X-Sandbox-Token");
        if (startsWith("/_sandbox/ui/"))
            answerRoute = [&] { return dashboardAsset(path.substr(std::string("/_sandbox/ui/").size())); };
        else if (!constantTimeEquals(given, adminToken))
            answerRoute = [] {
                return errorAnswer(401, "The dashboard and the admin routes need the token palomir-sandbox printed "
                                        "at start, as ?token= or the X-Sandbox-Token header");
            };
        else if (path == "/")
            answerRoute = [] { return dashboardAsset("index.html"); };
        else if (path == "/favicon.ico")
            answerRoute = [] { return errorAnswer(404, "No icon"); };
        else
            answerRoute = [&] { return admin(request); };
    } else if (startsWith("/uploads/") && request.method == "PUT") {
        route = Route::upload;
        std::string key = path.substr(std::string("/uploads/").size());
        answerRoute = [this, &request, key] { return upload(request, key); };
    } else if (startsWith("/api/")) {
        std::string rest = path.substr(4);
        const bool system = rest.rfind("/system_services", 0) == 0;
        const std::string listPath = system ? "/system_services" : "/services";
        if (request.method == "PUT" && rest.rfind("/checkin/", 0) == 0) {
            route = Route::checkin;
            std::string token = rest.substr(std::string("/checkin/").size());
            answerRoute = [this, &request, token] { return checkin(request, token); };
        } else if (request.method == "GET" && (rest == listPath || rest == listPath + "/") &&
                   (system || rest.rfind("/services", 0) == 0)) {
            route = Route::services;
            answerRoute = [this, system] { return services(system); };
        } else if (request.method == "GET" && rest.rfind(listPath + "/", 0) == 0 &&
                   (system || rest.rfind("/services/", 0) == 0)) {
            route = Route::service;
            std::string identifier = rest.substr(listPath.size() + 1);
            answerRoute = [this, system, identifier] { return service(system, identifier); };
        } else if (request.method == "POST" && rest == "/direct_uploads") {
            route = Route::directUploads;
            answerRoute = [this, &request] { return startDirectUpload(request); };
        } else if (request.method == "POST" && rest == "/feedback") {
            route = Route::feedback;
            answerRoute = [this, &request] { return feedbackRoute(request); };
        } else {
            answerRoute = [&] { return errorAnswer(404, "No route for " + request.method + " " + path); };
        }
        auto authorization = request.has_header("Authorization")
                                 ? std::optional<std::string>(request.get_header_value("Authorization"))
                                 : std::nullopt;
        auto verdict = verifySignature(request.method, "https://" + hostOf(request) + record.target, authorization,
                                       options.appToken, options.appSecret, std::chrono::system_clock::now(),
                                       options.timestampTolerance);
        if (verdict.ok()) {
            std::lock_guard lock(mutex);
            if (nonces.count(verdict.nonce)) verdict = {"replay", "Nonce already used"};
        }
        record.signature = verdict.verdict;
        record.signatureForm = verdict.form;
        if (verdict.ok()) {
            nonce = verdict.nonce;
            nonceTimestamp = verdict.timestamp;
        }
        if (!verdict.ok()) answerRoute = [message = verdict.error] { return errorAnswer(401, message); };
    } else {
        answerRoute = [&] { return errorAnswer(404, "No route for " + request.method + " " + path); };
    }

    std::optional<Fault> fault = route ? takeFault(*route) : std::nullopt;
    if (fault) record.fault = fault->description();

    auto finish = [&](int status) {
        record.status = status;
        if (options.logRequests) {
            std::string line = "palomir-sandbox: " + record.method + " " + record.target + " -> " +
                               (status ? std::to_string(status) : std::string("no answer")) +
                               " (signature " + record.signature + ")";
            if (fault) line += " [fault " + record.fault + "]";
            if (observer) line = "palomir-sandbox: " + record.method + " " + path + " -> " + std::to_string(status);
            std::fprintf(stderr, "%s\n", line.c_str());
        }
        if (observer) response.set_header("Referrer-Policy", "no-referrer");
        std::lock_guard lock(mutex);
        // A nonce counts once its request was answered: a client whose reused
        // connection died before an answer sends the same request again.
        if (!nonce.empty() && status != 0) rememberNonce(nonce, nonceTimestamp);
        // The dashboard and admin routes are the observer's own traffic.
        if (!observer) {
            record.identifier = nextRequestId++;
            requests.push_back(std::move(record));
        }
        if (--inFlight == 0) idle.notify_all();
    };

    using Kind = Fault::Kind;
    if (fault && fault->kind == Kind::drop) {
        if (int fd = socketOf(request); fd >= 0) ::shutdown(fd, SHUT_RDWR);
        response.status = 500;
        return finish(0);
    }
    if (fault && fault->kind == Kind::stall) {
        stallUntilClientLeaves(request, std::chrono::milliseconds(fault->milliseconds));
        response.status = 500;
        return finish(0);
    }
    if (fault && fault->kind == Kind::status) {
        response.status = fault->status;
        if (!fault->body.empty()) {
            bool json = !fault->body.empty() && (fault->body.front() == '{' || fault->body.front() == '[');
            response.set_content(fault->body, json ? kJson : "text/plain");
        }
        return finish(fault->status);
    }
    if (fault && fault->kind == Kind::redirect) {
        response.status = 302;
        response.set_header("Location", fault->body);
        return finish(302);
    }
    if (fault && fault->kind == Kind::malformed) {
        response.status = 200;
        response.set_content("{\"version\": \"sandbox\", \"theme\": [oops", kJson);
        return finish(200);
    }
    if (fault && fault->kind == Kind::empty) {
        response.status = 200;
        return finish(200);
    }
    if (fault && fault->kind == Kind::delay) sleepUnlessStopping(std::chrono::milliseconds(fault->milliseconds));

    Answer answer = answerRoute();
    if (fault && fault->kind == Kind::wrongCacheControl) {
        std::erase_if(answer.headers, [](const auto& h) { return strcasecmp(h.first.c_str(), "Cache-Control") == 0; });
        answer.headers.emplace_back("Cache-Control", fault->body);
    }
    if (fault && fault->kind == Kind::oversized && answer.status == 204) answer.status = 200;
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);

    if (fault && fault->kind == Kind::oversized) {
        // The real answer, then trailing white space, which keeps a JSON
        // answer valid so the client has to read it all. Streamed: the first
        // bytes leave at once however large the padding, and the padding is
        // never held in memory.
        auto body = std::make_shared<std::string>(std::move(answer.body));
        const std::size_t total = body->size() + fault->megabytes * 1024 * 1024;
        response.set_content_provider(
            total, answer.contentType.empty() ? kJson : answer.contentType,
            [body, total](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                static const std::string padding(64 * 1024, ' ');
                if (offset < body->size()) return sink.write(body->data() + offset, body->size() - offset);
                return sink.write(padding.data(), std::min(padding.size(), total - offset));
            });
        return finish(answer.status);
    }

    if (fault && fault->kind == Kind::truncated) {
        auto body = std::make_shared<std::string>(std::move(answer.body));
        if (body->empty()) *body = "{}";
        int fd = socketOf(request);
        response.set_content_provider(
            body->size(), answer.contentType.empty() ? kJson : answer.contentType,
            [body, fd](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                std::size_t half = body->size() / 2;
                if (offset < half) sink.write(body->data() + offset, half - offset);
                if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
                return false;
            });
        return finish(answer.status);
    }
    if (fault && fault->kind == Kind::drip) {
        auto body = std::make_shared<std::string>(std::move(answer.body));
        auto interval = std::chrono::milliseconds(fault->milliseconds);
        response.set_content_provider(
            body->size(), answer.contentType.empty() ? "text/plain" : answer.contentType,
            [this, body, interval](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                if (offset >= body->size()) return true;
                if (!sink.is_writable() || !sink.write(body->data() + offset, 1)) return false;
                return sleepUnlessStopping(interval);
            });
        return finish(answer.status);
    }
    if (!answer.body.empty() || !answer.contentType.empty()) response.set_content(answer.body, answer.contentType);
    finish(answer.status);
}

// ---------------------------------------------------------------------------

Sandbox::Sandbox(SandboxOptions options) : _state(std::make_shared<State>()) {
    _state->options = std::move(options);
}

Sandbox::~Sandbox() {
    stop();
    if (_state->ownsDataDirectory) {
        std::error_code error;
        fs::remove_all(_state->dataDirectory, error);
    }
}

Result<bool, std::string> Sandbox::start() {
    State& state = *_state;
    if (state.server) return Err{std::string("the sandbox is already running")};
    // A client that vanishes mid-answer must not end the process.
    ::signal(SIGPIPE, SIG_IGN);

    Result<Scenario, std::string> scenario = Err{std::string()};
    if (!state.options.scenarioJson.empty())
        scenario = Scenario::fromText(state.options.scenarioJson, "given");
    else if (!state.options.scenarioFile.empty())
        scenario = Scenario::fromFile(state.options.scenarioFile);
    else
        scenario = Scenario::fromText(R"({"configuration": {"version": "sandbox", "theme": {"text_color": "#1d1d1f",
            "background_color": "#ffffff"}, "notes": [], "lockdown": {"active": false, "latest_version": "1.0"}}})",
                                      "empty");
    if (scenario.hasError()) return Err{scenario.error()};
    state.initialScenario = scenario.value();
    state.scenario = std::move(scenario).value();
    for (const auto& [route, fault] : state.options.faults) state.faults[route] = fault;

    state.adminToken = state.options.adminToken.empty() ? randomKey(32) : state.options.adminToken;
    if (auto prepared = state.prepareDirectories(); prepared.hasError()) return prepared;
    if (auto prepared = state.prepareCertificates(); prepared.hasError()) return prepared;

    State* raw = &state;
    state.server = std::make_unique<httplib::SSLServer>([raw](SSL_CTX& context) {
        if (SSL_CTX_use_certificate(&context, raw->chain.front().x509()) != 1) return false;
        if (SSL_CTX_use_PrivateKey(&context, raw->key.get()) != 1) return false;
        for (std::size_t i = 1; i < raw->chain.size(); ++i)
            if (SSL_CTX_add1_chain_cert(&context, raw->chain[i].x509()) != 1) return false;
        return true;
    });
    if (!state.server->is_valid()) {
        state.server.reset();
        return Err{std::string("cannot set up TLS with the server certificate")};
    }
    // Stalled and dripping answers hold a thread each.
    state.server->new_task_queue = [] { return new httplib::ThreadPool(24); };
    state.server->set_keep_alive_timeout(2);
    state.server->set_payload_max_length(256 * 1024 * 1024);
    auto handler = [raw](const httplib::Request& request, httplib::Response& response) {
        raw->handle(request, response);
    };
    state.server->Get(".*", handler);
    state.server->Put(".*", handler);
    state.server->Post(".*", handler);
    state.server->Delete(".*", handler);
    state.server->Patch(".*", handler);

    if (state.options.port == 0) {
        state.port = state.server->bind_to_any_port("127.0.0.1");
        if (state.port <= 0) {
            state.server.reset();
            return Err{std::string("cannot listen on 127.0.0.1")};
        }
    } else {
        if (!state.server->bind_to_port("127.0.0.1", state.options.port)) {
            state.server.reset();
            return Err{"cannot listen on 127.0.0.1:" + std::to_string(state.options.port)};
        }
        state.port = state.options.port;
    }
    state.stopping = false;
    state.thread = std::thread([raw] { raw->server->listen_after_bind(); });
    while (!state.server->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return Ok{true};
}

void Sandbox::stop() {
    State& state = *_state;
    if (!state.server) return;
    // After interrupt() the listener is already closed.
    if (!state.stopping.exchange(true)) state.server->stop();
    if (state.thread.joinable()) state.thread.join();
    state.server.reset();
}

void Sandbox::interrupt() {
    State& state = *_state;
    if (!state.server) return;
    state.stopping = true;
    state.server->stop();
    std::unique_lock lock(state.mutex);
    state.idle.wait(lock, [&] { return state.inFlight == 0; });
}

bool Sandbox::running() const { return _state->server != nullptr; }
int Sandbox::port() const { return _state->port; }
std::string Sandbox::baseURL() const { return "https://localhost:" + std::to_string(_state->port) + "/api"; }
const fs::path& Sandbox::dataDirectory() const { return _state->dataDirectory; }
const fs::path& Sandbox::bundleDirectory() const { return _state->bundleDirectory; }
fs::path Sandbox::certificateFile() const { return _state->bundleDirectory / "localhost.crt"; }
fs::path Sandbox::caFile() const { return _state->bundleDirectory / "ca.pem"; }
const std::string& Sandbox::adminToken() const { return _state->adminToken; }
std::string Sandbox::dashboardURL() const {
    return "https://localhost:" + std::to_string(_state->port) + "/?token=" + _state->adminToken;
}
bool Sandbox::madeLastingAuthority() const { return _state->madeLastingAuthority; }

Result<bool, std::string> Sandbox::setScenario(const fs::path& file) {
    auto loaded = Scenario::fromFile(file);
    if (loaded.hasError()) return Err{loaded.error()};
    setScenario(std::move(loaded).value());
    return Ok{true};
}

Result<bool, std::string> Sandbox::setScenarioJson(std::string_view json) {
    auto loaded = Scenario::fromText(json, "given");
    if (loaded.hasError()) return Err{loaded.error()};
    setScenario(std::move(loaded).value());
    return Ok{true};
}

void Sandbox::setScenario(Scenario scenario) {
    std::lock_guard lock(_state->mutex);
    _state->scenario = std::move(scenario);
}

Scenario Sandbox::scenario() const {
    std::lock_guard lock(_state->mutex);
    return _state->scenario;
}

void Sandbox::setFault(Route route, Fault fault) {
    std::lock_guard lock(_state->mutex);
    _state->faults[route] = std::move(fault);
}

void Sandbox::clearFault(Route route) {
    std::lock_guard lock(_state->mutex);
    _state->faults.erase(route);
}

void Sandbox::clearFaults() {
    std::lock_guard lock(_state->mutex);
    _state->faults.clear();
}

std::map<Route, Fault> Sandbox::faults() const {
    std::lock_guard lock(_state->mutex);
    return _state->faults;
}

std::vector<RecordedFeedback> Sandbox::recordedFeedback() const {
    std::lock_guard lock(_state->mutex);
    return _state->feedback;
}

std::vector<RecordedUpload> Sandbox::recordedUploads() const {
    std::lock_guard lock(_state->mutex);
    return _state->uploads;
}

std::vector<SandboxRequest> Sandbox::requests() const {
    std::lock_guard lock(_state->mutex);
    return _state->requests;
}

void Sandbox::reset() {
    std::lock_guard lock(_state->mutex);
    _state->faults.clear();
    _state->requests.clear();
    _state->uploads.clear();
    _state->feedback.clear();
    _state->scenario = _state->initialScenario;
}

}  // namespace palomir::sandbox
