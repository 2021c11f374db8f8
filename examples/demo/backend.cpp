#include "backend.hpp"

#include <curl/curl.h>

#include <nlohmann/json.hpp>

#include "sandbox.hpp"

namespace demo {
namespace {

namespace sb = palomir::sandbox;
using palomir::Err;
using palomir::Ok;
using palomir::Result;

SeenFeedback seen(std::string title, std::string message, std::string submittedBy) {
    SeenFeedback feedback;
    feedback.title = std::move(title);
    feedback.message = std::move(message);
    feedback.submittedBy = std::move(submittedBy);
    return feedback;
}

class InProcess final : public Backend {
public:
    explicit InProcess(std::unique_ptr<sb::Sandbox> sandbox, sb::SandboxOptions options)
        : _sandbox(std::move(sandbox)), _options(std::move(options)) {}
    ~InProcess() override { _sandbox->stop(); }

    Connection connection() const override {
        return Connection{_sandbox->baseURL(), _sandbox->caFile(), _sandbox->bundleDirectory(), _options.appToken,
                          _options.appSecret, _sandbox->adminToken()};
    }
    std::string description() const override {
        return "in-process sandbox on port " + std::to_string(_sandbox->port());
    }
    Result<bool, std::string> setScenario(const std::filesystem::path& file) override {
        return _sandbox->setScenario(file);
    }
    Result<std::vector<SeenRequest>, std::string> requests() override {
        std::vector<SeenRequest> list;
        for (const auto& request : _sandbox->requests())
            list.push_back(
                SeenRequest{request.method, request.target, request.status, request.header("X-Authorization-User")});
        return Ok{std::move(list)};
    }
    Result<std::vector<SeenFeedback>, std::string> feedback() override {
        std::vector<SeenFeedback> list;
        for (const auto& record : _sandbox->recordedFeedback()) {
            auto entry = seen(record.title, record.message, record.submittedBy);
            for (const auto& upload : record.attachments)
                entry.files.push_back(SeenFile{upload.filename, upload.contentType, upload.byteSize, upload.uploaded});
            list.push_back(std::move(entry));
        }
        return Ok{std::move(list)};
    }

private:
    std::unique_ptr<sb::Sandbox> _sandbox;
    sb::SandboxOptions _options;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

// The admin routes answer JSON; anything else is reported with the status.
class Remote final : public Backend {
public:
    Remote(Connection connection, std::string adminBase)
        : _connection(std::move(connection)), _adminBase(std::move(adminBase)) {}

    Connection connection() const override { return _connection; }
    std::string description() const override { return "palomir-sandbox at " + _connection.baseURL; }

    Result<bool, std::string> setScenario(const std::filesystem::path& file) override {
        auto answer = call("POST", "scenario", nlohmann::json{{"path", std::filesystem::absolute(file).string()}}.dump());
        if (answer.hasError()) return Err{answer.error()};
        return Ok{true};
    }
    Result<std::vector<SeenRequest>, std::string> requests() override {
        auto answer = call("GET", "requests", {});
        if (answer.hasError()) return Err{answer.error()};
        std::vector<SeenRequest> list;
        try {
            for (const auto& item : answer.value().at("requests")) {
                SeenRequest request{item.at("method"), item.at("target"), item.at("status"), {}};
                for (const auto& header : item.at("headers")) {
                    std::string name = header.at(0);
                    for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                    if (name == "x-authorization-user") request.userAuthorization = header.at(1);
                }
                list.push_back(std::move(request));
            }
        } catch (const nlohmann::json::exception& e) {
            return Err{std::string("unexpected answer from /_sandbox/requests: ") + e.what()};
        }
        return Ok{std::move(list)};
    }
    Result<std::vector<SeenFeedback>, std::string> feedback() override {
        auto answer = call("GET", "feedback", {});
        if (answer.hasError()) return Err{answer.error()};
        std::vector<SeenFeedback> list;
        try {
            for (const auto& item : answer.value().at("feedback")) {
                auto entry = seen(item.at("title"), item.at("message"), item.at("submitted_by"));
                for (const auto& upload : item.at("attachments"))
                    entry.files.push_back(SeenFile{upload.at("filename"), upload.at("content_type"),
                                                   upload.at("byte_size"), upload.at("uploaded")});
                list.push_back(std::move(entry));
            }
        } catch (const nlohmann::json::exception& e) {
            return Err{std::string("unexpected answer from /_sandbox/feedback: ") + e.what()};
        }
        return Ok{std::move(list)};
    }

private:
    Result<nlohmann::json, std::string> call(const std::string& method, const std::string& route,
                                             const std::string& body) {
        std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
        if (!curl) return Err{std::string("cannot make an HTTP request")};
        const std::string url = _adminBase + "/_sandbox/" + route;
        std::string received;
        curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
        headers = curl_slist_append(headers, ("X-Sandbox-Token: " + _connection.adminToken).c_str());
        curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
        if (method != "GET") curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
        if (!_connection.caFile.empty()) curl_easy_setopt(curl.get(), CURLOPT_CAINFO, _connection.caFile.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 15L);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &received);
        const CURLcode code = curl_easy_perform(curl.get());
        curl_slist_free_all(headers);
        if (code != CURLE_OK) return Err{method + " " + url + ": " + curl_easy_strerror(code)};
        long status = 0;
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
        if (status < 200 || status > 299)
            return Err{method + " " + url + ": status " + std::to_string(status) + " " + received};
        auto parsed = nlohmann::json::parse(received, nullptr, false);
        if (parsed.is_discarded()) return Err{method + " " + url + ": the answer is not JSON"};
        return Ok{std::move(parsed)};
    }

    Connection _connection;
    std::string _adminBase;
};

}  // namespace

Result<std::unique_ptr<Backend>, std::string> startInProcess(const InProcessOptions& options) {
    sb::SandboxOptions sandboxOptions;
    sandboxOptions.scenarioFile = options.scenarioFile;
    sandboxOptions.dataDirectory = options.dataDirectory;
    sandboxOptions.logRequests = options.logRequests;
    auto sandbox = std::make_unique<sb::Sandbox>(sandboxOptions);
    auto started = sandbox->start();
    if (started.hasError()) return Err{started.error()};
    return Ok{std::unique_ptr<Backend>(std::make_unique<InProcess>(std::move(sandbox), sandboxOptions))};
}

Result<std::unique_ptr<Backend>, std::string> connectRemote(Connection connection) {
    const std::string suffix = "/api";
    std::string base = connection.baseURL;
    while (!base.empty() && base.back() == '/') base.pop_back();
    if (base.size() < suffix.size() || base.compare(base.size() - suffix.size(), suffix.size(), suffix) != 0)
        return Err{"the base URL " + connection.baseURL + " does not end in /api, so its admin routes are unknown"};
    base.resize(base.size() - suffix.size());
    return Ok{std::unique_ptr<Backend>(std::make_unique<Remote>(std::move(connection), std::move(base)))};
}

}  // namespace demo
