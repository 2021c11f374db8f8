#include "palomir/api_client.hpp"

#include <unicode/ustring.h>

#include <cctype>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include "api/api_client_internal.hpp"
#include "api/oauth.hpp"
#include "palomir/environment.hpp"
#include "palomir/url.hpp"
#include "platform/http_session.hpp"
#include "platform/pinning.hpp"

namespace palomir {

namespace {

// The token is checked by appending it to a throwaway absolute URL, so that a
// token that could not stand in a URL path is refused before any traffic,
// also by the endpoints that do not put it into their path.
constexpr const char* kTokenCheckPrefix = "http://token-check.palomir.invalid/";

// An upload target whose URL does not parse is sent here instead; the name
// never resolves, so the upload fails on its own.
constexpr const char* kUnusableUploadURL = "https://upload.palomir.invalid/";

constexpr const char* kJSONContentType = "application/json";

// ICU's strict reading refuses overlong forms, surrogates and anything past
// U+10FFFF, as the log and the error texts need.
bool isValidUTF8(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<std::int32_t>(text.size()), &status);
    return U_SUCCESS(status) || status == U_BUFFER_OVERFLOW_ERROR;
}

std::string bodyText(const std::vector<std::uint8_t>& body) {
    std::string text(body.begin(), body.end());
    return isValidUTF8(text) ? text : std::string();
}

std::string responseDescription(const std::string& url, const HttpResponse& response) {
    std::string text = "{ URL: " + url + " } { Status Code: " + std::to_string(response.status) + ", Headers {";
    for (const auto& [name, value] : response.headers) text += "\n    \"" + name + "\": " + value + ";";
    text += response.headers.empty() ? "} }" : "\n} }";
    return text;
}

std::string logRecord(std::string head, const std::string& url, const std::optional<HttpResponse>& response,
                      const std::optional<HttpError>& error) {
    std::string text = std::move(head);
    text += "data: ";
    if (response) text += bodyText(response->body);
    if (response) text += "\nresponse:";
    text += " ";
    if (response) text += responseDescription(url, *response);
    if (error) text += "\nerror:";
    text += " ";
    if (error) text += error->message;
    return text;
}

std::shared_ptr<const std::vector<std::uint8_t>> dumpBody(const nlohmann::ordered_json& json) {
    // Texts from the host are not guaranteed to be UTF-8; a stray byte is
    // replaced rather than failing the whole request.
    std::string text = json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    return std::make_shared<const std::vector<std::uint8_t>>(text.begin(), text.end());
}

}  // namespace

MaxAge parseMaxAge(std::string_view header) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; };
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    static constexpr std::string_view name = "max-age";
    for (std::size_t start = 0; start + name.size() <= header.size(); ++start) {
        bool matches = true;
        for (std::size_t k = 0; k < name.size() && matches; ++k)
            matches = std::tolower(static_cast<unsigned char>(header[start + k])) == name[k];
        if (!matches) continue;
        std::size_t i = start + name.size();
        while (i < header.size() && isSpace(header[i])) ++i;
        if (i >= header.size() || header[i] != '=') continue;
        ++i;
        while (i < header.size() && isSpace(header[i])) ++i;
        std::size_t digits = i;
        while (digits < header.size() && isDigit(header[digits])) ++digits;
        if (digits == i) continue;
        return std::strtod(std::string(header.substr(i, digits - i)).c_str(), nullptr);
    }
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> lookUpPinnedCertificate(const BackendOptions& options,
                                                                  const std::string& host) {
    const std::string name = host + ".crt";
    if (!options.resourceDirectory.empty()) {
        Bundle bundle(nlohmann::json::object(), options.resourceDirectory, false);
        if (auto data = bundle.resourceData(name)) return data;
    }
    return Bundle::palomir().resourceData(name);
}

struct APIClient::Sessions {
    // The credentials and base URL never change for a client, so what only
    // depends on them is checked once.
    bool tokenUsable = false;
    std::string checkinURL;
    bool checkinURLUsable = false;

    std::shared_ptr<HttpSession> checkinSession;
    // A session starts its thread with its first request, so one that is
    // never used costs nothing.
    std::shared_ptr<HttpSession> apiSession;
};

APIClient::APIClient(AppCredentials credentials, std::shared_ptr<UserCredentials> userCredentials,
                     std::shared_ptr<Logger> logger, BackendOptions options)
    : _credentials(std::move(credentials)),
      _userCredentials(std::move(userCredentials)),
      _logger(std::move(logger)),
      _options(std::move(options)) {}

APIClient::~APIClient() = default;

std::shared_ptr<APIClient> APIClient::make(AppCredentials credentials, std::shared_ptr<UserCredentials> userCredentials,
                                           std::shared_ptr<HttpSession> urlSession, std::shared_ptr<Logger> logger,
                                           BackendOptions options) {
    std::shared_ptr<APIClient> client(
        new APIClient(std::move(credentials), std::move(userCredentials), std::move(logger), std::move(options)));
    auto sessions = std::make_shared<Sessions>();
    if (urlSession) {
        sessions->apiSession = urlSession;
        sessions->checkinSession = urlSession;
    } else {
        std::map<std::string, std::vector<std::uint8_t>> pinned;
        if (auto base = Url::parse(client->_options.baseURL)) {
            if (auto der = lookUpPinnedCertificate(client->_options, base->host())) pinned[base->host()] = *der;
        }
        auto pins = std::make_shared<const PinSet>(pinned);

        HttpSessionConfiguration api;
        api.label = "palomir.api";
        api.pins = pins;
        api.trustAnchors = client->_options.trustAnchors;
        sessions->apiSession = HttpSession::make(api);

        // Check-in gives up quickly: it sits on the host's launch path.
        HttpSessionConfiguration checkin = api;
        checkin.label = "palomir.checkin";
        checkin.idleTimeout = std::chrono::milliseconds(1000);
        checkin.totalTimeout = std::chrono::milliseconds(5000);
        sessions->checkinSession = HttpSession::make(checkin);
    }
    sessions->tokenUsable = Url::parse(kTokenCheckPrefix + client->_credentials.token).has_value();
    sessions->checkinURL = client->_options.baseURL + "/checkin/" + client->_credentials.token;
    sessions->checkinURLUsable = Url::parse(sessions->checkinURL).has_value();
    client->_sessions = std::move(sessions);
    return client;
}

std::shared_ptr<UserCredentials> APIClient::userCredentials() const {
    std::lock_guard lock(_userCredentialsMutex);
    return _userCredentials;
}

void APIClient::setUserCredentials(std::shared_ptr<UserCredentials> userCredentials) {
    std::lock_guard lock(_userCredentialsMutex);
    _userCredentials = std::move(userCredentials);
}

URLRequest APIClient::urlRequest(const std::string& url, const std::string& method,
                                 const std::optional<AppCredentials>& credentials,
                                 std::optional<std::vector<std::uint8_t>> body, const std::string& contentType) const {
    URLRequest request;
    request.url = url;
    request.timeoutInterval = 60.0;
    request.addValue(contentType, "Content-Type");
    request.addValue(AppInfo::userAgent(), "User-Agent");
    request.addValue(currentLocale().languageCode.value_or("en"), "Accept-Language");
    request.method = method;
    request.body = body;
    if (credentials) {
        oAuthSign(request, method, std::move(body), contentType, OAuthCredentials{credentials->token, credentials->secret},
                  std::nullopt);
    }
    return request;
}

void APIClientAccess::send(APIClient& client, const std::string& url, const std::string& method,
                           std::shared_ptr<const std::vector<std::uint8_t>> body, bool checkin,
                           std::function<void(Result<RawBody, RequestError>)> completion) {
    std::optional<std::vector<std::uint8_t>> bodyCopy;
    if (body) bodyCopy = *body;
    URLRequest built = client.urlRequest(url, method, client._credentials, std::move(bodyCopy), kJSONContentType);

    HttpRequest request;
    request.url = built.url;
    request.method = built.method;
    request.headers = std::move(built.headers);
    request.body = std::move(body);
    request.idleTimeout = std::chrono::milliseconds(static_cast<long long>(built.timeoutInterval * 1000));

    auto session = checkin ? client._sessions->checkinSession : client._sessions->apiSession;
    auto logger = client._logger;
    auto send = [session, logger, completion = std::move(completion)](HttpRequest request) mutable {
        const std::string method = request.method;
        const std::string url = request.url;
        session->dataTask(std::move(request), [logger, method, url, completion = std::move(completion)](
                                                   std::optional<HttpResponse> response,
                                                   std::optional<HttpError> error) {
            if (logger) logger->log(logRecord("request: " + method + " " + url + "\n", url, response, error), LogType::debug);
            if (error) return completion(Err{RequestError::networkError(error->message)});
            if (!response) return completion(Err{RequestError::noResponse()});
            if (response->status < 200 || response->status > 299)
                return completion(Err{RequestError::badStatus(static_cast<int>(response->status))});
            MaxAge maxAge;
            if (auto cacheControl = response->header("Cache-Control")) maxAge = parseMaxAge(*cacheControl);
            completion(Ok{RawBody{std::move(response->body), maxAge}});
        });
    };

    auto userCredentials = client.userCredentials();
    if (!userCredentials) return send(std::move(request));
    // The user's header may take a while (a host refreshing a token); only
    // this request waits for it.
    auto pending = std::make_shared<HttpRequest>(std::move(request));
    userCredentials->authHeader([pending, send = std::move(send)](std::optional<std::string> header) mutable {
        if (header) pending->headers.emplace_back("X-Authorization-User", *header);
        send(std::move(*pending));
    });
}

namespace {

template <class T>
void decodeAnswer(Result<RawBody, RequestError> answer, std::function<void(Result<std::pair<T, MaxAge>, APIError>)> done) {
    if (answer.hasError()) return done(Err{APIError::requestFailed(std::move(answer).error())});
    RawBody raw = std::move(answer).value();
    if (raw.body.empty()) return done(Err{APIError::emptyResponse()});
    std::string_view text(reinterpret_cast<const char*>(raw.body.data()), raw.body.size());
    auto decoded = decodeJson<T>(text);
    if (decoded.hasError()) {
        return done(Err{APIError::decodingResponseFailure(bodyText(raw.body), decoded.error().message())});
    }
    done(Ok{std::pair<T, MaxAge>{std::move(decoded).value(), raw.maxAge}});
}

template <class T>
std::function<void(Result<std::pair<T, MaxAge>, APIError>)> droppingMaxAge(APIClient::Completion<T> completion) {
    return [completion = std::move(completion)](Result<std::pair<T, MaxAge>, APIError> result) {
        if (!completion) return;
        if (result.hasError()) return completion(Err{std::move(result).error()});
        completion(Ok{std::move(std::move(result).value().first)});
    };
}

}  // namespace

template <class T>
void APIClientAccess::jsonRequest(APIClient& client, const std::string& path, const std::string& method,
                                  std::optional<Result<nlohmann::ordered_json, EncodingError>> body, bool checkin,
                                  std::function<void(Result<std::pair<T, MaxAge>, APIError>)> completion) {
    auto finish = [completion = std::move(completion)](Result<std::pair<T, MaxAge>, APIError> result) {
        if (completion) completion(std::move(result));
    };
    const auto& sessions = *client._sessions;
    if (!sessions.tokenUsable) return finish(Err{APIError::invalidAppToken()});
    const std::string url = client._options.baseURL + path;
    if (url == sessions.checkinURL ? !sessions.checkinURLUsable : !Url::parse(url))
        return finish(Err{APIError::invalidURL()});

    std::shared_ptr<const std::vector<std::uint8_t>> bytes;
    if (body) {
        if (body->hasError()) return finish(Err{APIError::encodingFailed(body->error().message())});
        bytes = dumpBody(body->value());
    }
    send(client, url, method, std::move(bytes), checkin,
         [finish = std::move(finish)](Result<RawBody, RequestError> answer) mutable {
             decodeAnswer<T>(std::move(answer), std::move(finish));
         });
}

void APIClient::checkin(const AppInfo& info, Completion<Configuration> completion) {
    std::optional<Result<nlohmann::ordered_json, EncodingError>> body;
    auto appInfo = encode(info);
    if (appInfo.hasError()) {
        body = Err{std::move(appInfo).error()};
    } else {
        nlohmann::ordered_json json;
        json["app_info"] = std::move(appInfo).value();
        body = Ok{std::move(json)};
    }
    APIClientAccess::jsonRequest<Configuration>(*this, "/checkin/" + _credentials.token, "PUT", std::move(body), true,
                                                droppingMaxAge<Configuration>(std::move(completion)));
}

void APIClient::services(const AppInfo&, bool systemServices, Completion<std::pair<ServicesResponse, MaxAge>> completion) {
    APIClientAccess::jsonRequest<ServicesResponse>(*this, systemServices ? "/system_services/" : "/services/", "GET",
                                                   std::nullopt, false, std::move(completion));
}

void APIClient::service(const std::string& identifier, const AppInfo&, bool systemService,
                        Completion<std::pair<Service, MaxAge>> completion) {
    APIClientAccess::jsonRequest<ServiceResponse>(
        *this, (systemService ? "/system_services/" : "/services/") + identifier, "GET", std::nullopt, false,
        [completion = std::move(completion)](Result<std::pair<ServiceResponse, MaxAge>, APIError> result) {
            if (!completion) return;
            if (result.hasError()) return completion(Err{std::move(result).error()});
            auto [response, maxAge] = std::move(result).value();
            completion(Ok{std::pair<Service, MaxAge>{std::move(response.service), maxAge}});
        });
}

void APIClient::startDirectUpload(DirectUpload blob, Completion<DirectUploadResponse> completion) {
    nlohmann::ordered_json json;
    json["blob"] = encode(blob);
    APIClientAccess::jsonRequest<DirectUploadResponse>(*this, "/direct_uploads", "POST", Ok{std::move(json)}, false,
                                                       droppingMaxAge<DirectUploadResponse>(std::move(completion)));
}

void APIClient::createFeedback(Feedback feedback, const AppInfo& appInfo, Completion<Feedback> completion) {
    std::optional<Result<nlohmann::ordered_json, EncodingError>> body;
    auto info = encode(appInfo);
    if (info.hasError()) {
        body = Err{std::move(info).error()};
    } else {
        nlohmann::ordered_json json;
        json["feedback"] = encode(feedback);
        json["app_info"] = std::move(info).value();
        body = Ok{std::move(json)};
    }
    APIClientAccess::jsonRequest<Feedback>(*this, "/feedback", "POST", std::move(body), false,
                                           droppingMaxAge<Feedback>(std::move(completion)));
}

void APIClient::directUpload(std::shared_ptr<const std::vector<std::uint8_t>> data,
                             const DirectUploadResponse::DirectUpload& config, std::shared_ptr<HttpSession> session,
                             Completion<bool> completion) {
    HttpRequest request;
    request.url = Url::parse(config.url) ? config.url : std::string(kUnusableUploadURL);
    request.method = "PUT";
    request.idleTimeout = std::chrono::milliseconds(60'000);
    // The target's headers go out exactly as the backend gave them: the
    // storage behind it checks them, and it knows nothing of our signing.
    for (const auto& [name, value] : config.headers) request.headers.emplace_back(name, value);
    request.body = data ? std::move(data) : std::make_shared<const std::vector<std::uint8_t>>();

    if (!session) session = _sessions->apiSession;
    auto logger = _logger;
    const std::string url = request.url;
    session->dataTask(std::move(request),
                        [logger, url, completion = std::move(completion)](std::optional<HttpResponse> response,
                                                                          std::optional<HttpError> error) {
                            if (logger) logger->log(logRecord("direct upload:\n", url, response, error), LogType::debug);
                            if (!completion) return;
                            if (error)
                                return completion(Err{APIError::requestFailed(RequestError::networkError(error->message))});
                            if (!response) return completion(Err{APIError::requestFailed(RequestError::noResponse())});
                            if (response->status < 200 || response->status > 299)
                                return completion(Err{APIError::requestFailed(
                                    RequestError::badStatus(static_cast<int>(response->status)))});
                            completion(Ok{true});
                        });
}

}  // namespace palomir
