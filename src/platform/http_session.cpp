#include "platform/http_session.hpp"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

namespace palomir {

namespace {

using Clock = std::chrono::steady_clock;

bool sameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return std::string(text);
}

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// OpenSSL decodes a certificate's extensions the first time it checks one,
// writing into the shared certificate. Stores are shared between network
// threads, so that first decoding happens here, before any of them sees it.
void decodeExtensionsOnce(X509_STORE* store) {
    X509_STORE_lock(store);
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
        if (X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)))
            X509_check_purpose(certificate, -1, 0);
    X509_STORE_unlock(store);
}

// Certificates are shared by reference, not parsed again.
void addCertificates(X509_STORE* store, X509_STORE* from) {
    if (!from) return;
    X509_STORE_lock(from);
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(from);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
        if (X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)))
            X509_STORE_add_cert(store, certificate);
    X509_STORE_unlock(from);
}

// Loading the system's certificate authorities costs milliseconds and about
// a megabyte, so an eager load happens once per process and every session
// shares the result. The store is never freed: network threads may still use
// it while the process ends.
X509_STORE* systemTrustStore() {
    static X509_STORE* const store = [] {
        X509_STORE* created = X509_STORE_new();
        if (created) {
            X509_STORE_set_default_paths(created);
            decodeExtensionsOnce(created);
        }
        return created;
    }();
    return store;
}

bool isHashName(const std::string& name) {
    // "<8 hex digits of the subject's hash>.<n>", as c_rehash names them.
    if (name.size() < 10 || name[8] != '.') return false;
    for (std::size_t i = 0; i < 8; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(name[i]))) return false;
    for (std::size_t i = 9; i < name.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

// The system's authorities are looked up by subject in the certificate
// directory while a chain is verified, instead of loaded whole, when that
// directory is hashed and holds everything the bundle file holds: the bundle
// is missing or lies inside the directory (the usual layout, where both are
// made from the same certificates). Any other layout is loaded eagerly.
// Both locations honour the environment, as OpenSSL's defaults do.
// Empty: load eagerly.
std::string lazySystemDirectory() {
    const auto fromEnvironment = [](const char* variable, const char* fallback) {
        const char* value = std::getenv(variable);
        return std::string(value && *value ? value : fallback);
    };
    const std::string file = fromEnvironment(X509_get_default_cert_file_env(), X509_get_default_cert_file());
    const std::string directory = fromEnvironment(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
    // Several directories, separated by colons, are left to the eager load.
    if (directory.find(':') != std::string::npos) return {};

    static std::mutex mutex;
    static std::string decidedFor;
    static std::string decision;
    const std::string key = file + '\n' + directory;
    std::lock_guard lock(mutex);
    if (decidedFor == key) return decision;
    std::error_code error;
    const auto realDirectory = std::filesystem::canonical(directory, error);
    bool lazy = !error && std::filesystem::is_directory(realDirectory, error);
    if (lazy) {
        const auto realFile = std::filesystem::canonical(file, error);
        lazy = error ? !std::filesystem::exists(file, error) : realFile.parent_path() == realDirectory;
    }
    if (lazy) {
        lazy = false;
        for (std::filesystem::directory_iterator entry(realDirectory, error), end; !error && entry != end;
             entry.increment(error)) {
            if (isHashName(entry->path().filename().string())) {
                lazy = true;
                break;
            }
        }
    }
    decidedFor = key;
    decision = lazy ? directory : std::string();
    return decision;
}

// The host's own authorities, read once per version of their files and
// shared by reference between sessions.
X509_STORE* anchorStore(const std::vector<std::filesystem::path>& anchors, bool withSystem) {
    std::string key = withSystem ? "system" : "";
    for (const auto& path : anchors) {
        std::error_code sizeError, timeError;
        const auto size = std::filesystem::file_size(path, sizeError);
        const auto modified = std::filesystem::last_write_time(path, timeError).time_since_epoch().count();
        key += '\n' + path.string() + '\t' + std::to_string(sizeError ? 0 : size) + '\t' +
               std::to_string(timeError ? 0 : modified);
    }
    static std::mutex mutex;
    // Never destroyed, like the stores it keeps: a destructor at exit would
    // run while network threads may still use them.
    static auto& kept = *new std::deque<std::pair<std::string, X509_STORE*>>();
    constexpr std::size_t kKept = 8;
    std::lock_guard lock(mutex);
    for (const auto& [known, store] : kept) {
        if (known != key) continue;
        X509_STORE_up_ref(store);
        return store;
    }
    X509_STORE* store = X509_STORE_new();
    if (!store) return nullptr;
    if (withSystem) addCertificates(store, systemTrustStore());
    // An unreadable file adds nothing; chains that needed it then fail.
    for (const auto& path : anchors) X509_STORE_load_file(store, path.c_str());
    decodeExtensionsOnce(store);
    if (kept.size() == kKept) {
        // Sessions that use it hold their own reference.
        X509_STORE_free(kept.front().second);
        kept.pop_front();
    }
    kept.emplace_back(std::move(key), store);
    X509_STORE_up_ref(store);
    return store;
}

// The trust store of one session.
//
// With the system's authorities looked up lazily, every session has a store
// of its own: the look-up adds certificates to the store as it finds them,
// and OpenSSL decodes a certificate's extensions on its first check, writing
// into it, so such a store is used by the session's network thread alone.
// The host's authorities in it are shared, decoded before sharing.
//
// Loaded eagerly, the system's authorities (merged with the host's, which
// costs milliseconds, and every API client makes two sessions with the same
// anchors) sit in stores shared between sessions, every certificate decoded
// before any network thread sees it.
X509_STORE* makeTrustStore(const HttpSessionConfiguration& configuration) {
    const std::string lazyDirectory = configuration.trustSystemAnchors ? lazySystemDirectory() : std::string();
    if (configuration.trustSystemAnchors && lazyDirectory.empty()) {
        if (configuration.trustAnchors.empty()) {
            X509_STORE* system = systemTrustStore();
            if (system) X509_STORE_up_ref(system);
            return system;
        }
        return anchorStore(configuration.trustAnchors, true);
    }
    X509_STORE* store = X509_STORE_new();
    if (!store) return nullptr;
    if (!configuration.trustAnchors.empty()) {
        X509_STORE* anchors = anchorStore(configuration.trustAnchors, false);
        if (!anchors) {
            X509_STORE_free(store);
            return nullptr;
        }
        addCertificates(store, anchors);
        X509_STORE_free(anchors);
    }
    if (!lazyDirectory.empty() && X509_STORE_load_path(store, lazyDirectory.c_str()) != 1) {
        X509_STORE_free(store);
        return nullptr;
    }
    return store;
}

int verificationIndex() {
    static const int index = SSL_CTX_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void*, void* data, CRYPTO_EX_DATA*, int, long, void*) { delete static_cast<TlsVerification*>(data); });
    return index;
}

int verifyCertificate(X509_STORE_CTX* storeContext, void* argument) {
    return static_cast<const TlsVerification*>(argument)->verify(storeContext);
}

}  // namespace

std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name) {
    std::optional<std::string> joined;
    for (const auto& [field, value] : headers) {
        if (!sameName(field, name)) continue;
        joined = joined ? *joined + ", " + value : value;
    }
    return joined;
}

namespace {

// A session's thread, once the session is released and idle, waits a while
// for the next session instead of ending: clients are rebuilt whenever
// credentials change, and making a thread costs more than a whole warm
// exchange. Never destroyed, as parked threads may wait on it while the
// process ends.
class NetworkThreads {
public:
    void run(std::function<void()> work) {
        {
            std::lock_guard lock(_mutex);
            if (_parked > 0) {
                --_parked;
                _work.push_back(std::move(work));
                _arrived.notify_one();
                return;
            }
        }
        std::thread([this, work = std::move(work)]() mutable { serve(std::move(work)); }).detach();
    }

private:
    static constexpr std::size_t kParked = 2;
    static constexpr std::chrono::seconds kLinger{10};

    void serve(std::function<void()> work) {
        for (;;) {
            work();
            // Drops what the work held (its session) before waiting.
            work = nullptr;
            std::unique_lock lock(_mutex);
            if (_parked >= kParked) return;
            ++_parked;
            if (!_arrived.wait_for(lock, kLinger, [this] { return !_work.empty(); })) {
                --_parked;
                return;
            }
            work = std::move(_work.front());
            _work.pop_front();
        }
    }

    std::mutex _mutex;
    std::condition_variable _arrived;
    std::deque<std::function<void()>> _work;
    std::size_t _parked = 0;  // threads waiting for work, less work handed to them
};

void runOnNetworkThread(std::function<void()> work) {
    static auto& threads = *new NetworkThreads();
    threads.run(std::move(work));
}

}  // namespace

struct Transfer {
    HttpSession::Core* core = nullptr;
    HttpRequest request;
    std::shared_ptr<const std::vector<std::uint8_t>> upload;
    std::size_t uploadOffset = 0;
    HttpCompletion completion;

    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    HttpResponse response;
    std::optional<HttpError> failure;
    TlsVerification verification;

    Clock::time_point start;
    Clock::time_point lastActivity;
    std::chrono::milliseconds idleTimeout{0};
    std::optional<std::chrono::milliseconds> totalTimeout;
    curl_off_t downloaded = 0;
    curl_off_t uploaded = 0;

    ~Transfer() {
        if (easy) curl_easy_cleanup(easy);
        if (headerList) curl_slist_free_all(headerList);
    }
};

struct HttpSession::Core : std::enable_shared_from_this<HttpSession::Core> {
    explicit Core(HttpSessionConfiguration configuration)
        : configuration(std::move(configuration)), multi(curl_multi_init()), share(curl_share_init()),
          trustStore(makeTrustStore(this->configuration)) {
        // Transfers share TLS sessions (to resume them) and name look-ups.
        // Only the network thread touches the share, so it needs no locks.
        if (share) {
            curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
            curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        }
    }

    ~Core() {
        for (CURL* easy : idleHandles) curl_easy_cleanup(easy);
        if (multi) curl_multi_cleanup(multi);
        if (share) curl_share_cleanup(share);
        if (trustStore) X509_STORE_free(trustStore);
    }

    void enqueue(std::unique_ptr<Transfer> transfer) {
        bool first = false;
        {
            std::lock_guard lock(mutex);
            pending.push_back(std::move(transfer));
            first = !started;
            started = true;
        }
        // The thread starts with its first task already waiting, so that
        // task costs no wake-up, and a session never used costs no thread.
        if (first)
            launch();
        else
            curl_multi_wakeup(multi);
    }

    void launch() {
        // The thread keeps the machinery alive until it is released and idle.
        runOnNetworkThread([core = shared_from_this()] {
            core->threadId.store(std::this_thread::get_id());
            pthread_setname_np(pthread_self(), core->configuration.label.substr(0, 15).c_str());
            core->run();
            core->threadId.store({});
        });
    }

    void release() {
        {
            std::lock_guard lock(mutex);
            released = true;
        }
        curl_multi_wakeup(multi);
    }

    void run();
    CURL* takeHandle();
    void recycle(CURL* easy);
    void start(std::unique_ptr<Transfer> transfer);
    std::optional<HttpError> configure(Transfer& transfer);
    void finish(CURL* easy, CURLcode code);
    void expireTimedOut(Clock::time_point now);
    int pollTimeout(Clock::time_point now) const;

    const HttpSessionConfiguration configuration;
    CURLM* const multi;
    CURLSH* const share;
    X509_STORE* const trustStore;
    std::atomic<std::thread::id> threadId{};

    std::mutex mutex;
    std::deque<std::unique_ptr<Transfer>> pending;
    bool started = false;
    bool released = false;

    // Network thread only.
    std::map<CURL*, std::unique_ptr<Transfer>> active;
    // Easy handles of finished transfers, kept for the next ones: making a
    // handle costs more than resetting one. Connections and TLS state live in
    // the multi handle and the share, not here, so a reused handle carries
    // nothing from one exchange to the next.
    std::vector<CURL*> idleHandles;
    // The last URL taken apart, as most requests of a session go to the same.
    std::string parsedURL;
    std::string parsedHost;
};

namespace {

void complete(std::unique_ptr<Transfer> transfer, std::optional<HttpResponse> response,
              std::optional<HttpError> error) {
    HttpCompletion completion = std::move(transfer->completion);
    transfer.reset();
    if (!completion) return;
    try {
        completion(std::move(response), std::move(error));
    } catch (...) {
        // A throwing completion must not take the network thread down.
    }
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    transfer->lastActivity = Clock::now();
    auto& body = transfer->response.body;
    const std::size_t limit = transfer->core->configuration.maxBodySize;
    if (length > limit - std::min(limit, body.size())) {
        transfer->failure = HttpError{HttpError::Kind::tooLarge, CURLE_FILESIZE_EXCEEDED,
                                      "The response body is larger than " + std::to_string(limit) + " bytes"};
        return 0;  // any short count aborts the transfer
    }
    body.insert(body.end(), reinterpret_cast<const std::uint8_t*>(data),
                reinterpret_cast<const std::uint8_t*>(data) + length);
    return length;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    transfer->lastActivity = Clock::now();
    const std::string_view line(data, length);
    // Interim responses (100 Continue) come first; keep the final one only.
    if (line.rfind("HTTP/", 0) == 0) {
        transfer->response.headers.clear();
    } else if (const auto colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
        transfer->response.headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
    }
    return length;
}

std::size_t onUploadRead(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const auto& bytes = *transfer->upload;
    const std::size_t length = std::min(size * count, bytes.size() - transfer->uploadOffset);
    std::memcpy(buffer, bytes.data() + transfer->uploadOffset, length);
    transfer->uploadOffset += length;
    transfer->lastActivity = Clock::now();
    return length;
}

int onUploadSeek(void* user, curl_off_t offset, int origin) {
    auto* transfer = static_cast<Transfer*>(user);
    if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > transfer->upload->size())
        return CURL_SEEKFUNC_CANTSEEK;
    transfer->uploadOffset = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto* transfer = static_cast<Transfer*>(user);
    if (downloaded != transfer->downloaded || uploaded != transfer->uploaded) {
        transfer->downloaded = downloaded;
        transfer->uploaded = uploaded;
        transfer->lastActivity = Clock::now();
    }
    return 0;
}

CURLcode onSslContext(CURL*, void* sslContext, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    auto* context = static_cast<SSL_CTX*>(sslContext);
    if (!transfer->core->trustStore) return CURLE_SSL_CACERT_BADFILE;
    X509_STORE_up_ref(transfer->core->trustStore);
    SSL_CTX_set_cert_store(context, transfer->core->trustStore);

    // The connection may outlive this transfer in the pool, so it owns its
    // own copy of what to check, freed with the context.
    auto* verification = new TlsVerification(transfer->verification);
    if (SSL_CTX_set_ex_data(context, verificationIndex(), verification) != 1) {
        delete verification;
        return CURLE_SSL_CONNECT_ERROR;
    }
    SSL_CTX_set_cert_verify_callback(context, verifyCertificate, verification);
    // A renegotiation could bring another certificate into a connection
    // that was already checked.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    if (transfer->verification.pins) SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return CURLE_OK;
}

bool hasLineBreak(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

std::optional<HttpError> HttpSession::Core::configure(Transfer& transfer) {
    const auto invalid = [](std::string message) {
        return HttpError{HttpError::Kind::invalidRequest, 0, std::move(message)};
    };
    const HttpRequest& request = transfer.request;

    if (request.url != parsedURL || parsedURL.empty()) {
        CURLU* url = curl_url();
        if (!url) return invalid("Out of memory");
        const bool parsed = curl_url_set(url, CURLUPART_URL, request.url.c_str(), 0) == CURLUE_OK;
        char* host = nullptr;
        char* scheme = nullptr;
        if (parsed) {
            curl_url_get(url, CURLUPART_HOST, &host, 0);
            curl_url_get(url, CURLUPART_SCHEME, &scheme, 0);
        }
        std::string hostText = host ? host : "";
        const std::string schemeText = scheme ? scheme : "";
        curl_free(host);
        curl_free(scheme);
        curl_url_cleanup(url);
        if (!parsed || hostText.empty()) return invalid("Invalid URL: " + request.url);
        if (schemeText != "http" && schemeText != "https") return invalid("Unsupported URL scheme: " + schemeText);
        parsedURL = request.url;
        parsedHost = std::move(hostText);
    }
    const std::string& hostText = parsedHost;
    if (request.method.empty() || hasLineBreak(request.method) || request.method.find(' ') != std::string::npos)
        return invalid("Invalid HTTP method: " + request.method);

    transfer.verification.host = hostText;
    transfer.verification.pins = configuration.pins;

    // Fields named twice go out once, their values joined, in first-seen order.
    std::vector<std::pair<std::string, std::string>> fields;
    for (const auto& header : request.headers) {
        const std::string& name = header.first;
        const std::string& value = header.second;
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) || name.find(':') != std::string::npos)
            return invalid("Invalid header field: " + name);
        auto same = std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return sameName(f.first, name); });
        if (same == fields.end())
            fields.emplace_back(name, value);
        else
            same->second += ", " + value;
    }
    const auto present = [&](std::string_view name) {
        return std::any_of(fields.begin(), fields.end(), [&](const auto& f) { return sameName(f.first, name); });
    };
    if (configuration.cachePolicy == HttpCachePolicy::reloadIgnoringLocalAndRemoteCacheData) {
        if (!present("Cache-Control")) fields.emplace_back("Cache-Control", "no-cache");
        if (!present("Pragma")) fields.emplace_back("Pragma", "no-cache");
    }
    std::vector<std::string> lines;
    for (const auto& [name, value] : fields)
        lines.push_back(value.empty() ? name + ";" : name + ": " + value);  // "Name;" sends an empty field
    // libcurl's own additions that the request did not ask for are removed:
    // an Accept field, and "Expect: 100-continue", which stalls large uploads
    // on servers that do not answer it.
    if (!present("Accept")) lines.emplace_back("Accept:");
    if (!present("Expect")) lines.emplace_back("Expect:");
    for (const auto& line : lines) {
        curl_slist* extended = curl_slist_append(transfer.headerList, line.c_str());
        if (!extended) return invalid("Out of memory");
        transfer.headerList = extended;
    }

    CURL* easy = transfer.easy;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
    if (share) curl_easy_setopt(easy, CURLOPT_SHARE, share);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // Requests are small and answered at once: no waiting to fill segments.
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    // Servers close idle connections after a few seconds. A request written
    // into a connection the server is closing fails with a broken pipe that
    // libcurl does not always retry, so only connections idle for less than
    // a second are used again.
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(configuration.maxBodySize));

    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    // The trust store is installed in the TLS context below; nothing is
    // loaded from files per connection.
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, onSslContext);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &transfer);
    // A resumed session skips certificate verification, so a pinned session
    // checks every connection afresh.
    if (configuration.pins) curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);

    const std::string& method = request.method;
    if (transfer.upload) {
        curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(easy, CURLOPT_READFUNCTION, onUploadRead);
        curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
        curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, onUploadSeek);
        curl_easy_setopt(easy, CURLOPT_SEEKDATA, &transfer);
        curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(transfer.upload->size()));
        if (method != "PUT") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (request.body || (method != "GET" && method != "HEAD" && method != "DELETE")) {
        static const char empty[] = "";
        const bool hasBytes = request.body && !request.body->empty();
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(hasBytes ? request.body->size() : 0));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                         hasBytes ? reinterpret_cast<const char*>(request.body->data()) : empty);
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    transfer.idleTimeout = configuration.idleTimeout;
    if (request.idleTimeout) transfer.idleTimeout = std::min(transfer.idleTimeout, *request.idleTimeout);
    transfer.totalTimeout = configuration.totalTimeout;
    return std::nullopt;
}

CURL* HttpSession::Core::takeHandle() {
    if (idleHandles.empty()) return curl_easy_init();
    CURL* easy = idleHandles.back();
    idleHandles.pop_back();
    return easy;
}

void HttpSession::Core::recycle(CURL* easy) {
    constexpr std::size_t kIdleHandles = 4;
    if (idleHandles.size() >= kIdleHandles) return curl_easy_cleanup(easy);
    // Drops every option, among them the pointers into the finished transfer.
    curl_easy_reset(easy);
    idleHandles.push_back(easy);
}

void HttpSession::Core::start(std::unique_ptr<Transfer> transfer) {
    transfer->core = this;
    transfer->easy = takeHandle();
    std::optional<HttpError> error;
    if (!transfer->easy)
        error = HttpError{HttpError::Kind::transport, CURLE_FAILED_INIT, "The transfer could not be set up"};
    else
        error = configure(*transfer);
    if (!error) {
        transfer->start = transfer->lastActivity = Clock::now();
        if (const CURLMcode added = curl_multi_add_handle(multi, transfer->easy); added != CURLM_OK)
            error = HttpError{HttpError::Kind::transport, CURLE_FAILED_INIT, curl_multi_strerror(added)};
    }
    if (error) {
        complete(std::move(transfer), std::nullopt, std::move(error));
        return;
    }
    CURL* easy = transfer->easy;
    active.emplace(easy, std::move(transfer));
}

void HttpSession::Core::finish(CURL* easy, CURLcode code) {
    auto found = active.find(easy);
    if (found == active.end()) return;
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    active.erase(found);
    curl_multi_remove_handle(multi, easy);

    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    // Reset only after the completion, which is what the caller waits for.
    transfer->easy = nullptr;
    struct Recycle {
        Core& core;
        CURL* easy;
        ~Recycle() { core.recycle(easy); }
    } recycleAfterwards{*this, easy};

    if (transfer->failure) {
        std::optional<HttpError> error = std::move(transfer->failure);
        complete(std::move(transfer), std::nullopt, std::move(error));
        return;
    }
    if (code != CURLE_OK) {
        HttpError error{HttpError::Kind::transport, static_cast<int>(code),
                        transfer->errorBuffer[0] ? transfer->errorBuffer : curl_easy_strerror(code)};
        if (*transfer->verification.refusal) {
            error.kind = HttpError::Kind::refusedTls;
            error.message = **transfer->verification.refusal;
        } else if (code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE) {
            error.kind = HttpError::Kind::refusedTls;
        } else if (code == CURLE_FILESIZE_EXCEEDED) {
            error.kind = HttpError::Kind::tooLarge;
            error.message =
                "The response body is larger than " + std::to_string(configuration.maxBodySize) + " bytes";
        } else if (code == CURLE_OPERATION_TIMEDOUT) {
            error.kind = HttpError::Kind::timedOut;
        }
        complete(std::move(transfer), std::nullopt, std::move(error));
        return;
    }
    HttpResponse response = std::move(transfer->response);
    response.status = status;
    complete(std::move(transfer), std::move(response), std::nullopt);
}

void HttpSession::Core::expireTimedOut(Clock::time_point now) {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    std::vector<CURL*> expired;
    for (auto& [easy, transfer] : active) {
        if (now - transfer->lastActivity >= transfer->idleTimeout) {
            transfer->failure = HttpError{HttpError::Kind::timedOut, CURLE_OPERATION_TIMEDOUT,
                                          "The request timed out: no data for " +
                                              std::to_string(transfer->idleTimeout.count()) + " ms"};
        } else if (transfer->totalTimeout && now - transfer->start >= *transfer->totalTimeout) {
            transfer->failure = HttpError{HttpError::Kind::timedOut, CURLE_OPERATION_TIMEDOUT,
                                          "The request timed out: not complete after " +
                                              std::to_string(transfer->totalTimeout->count()) + " ms"};
        } else {
            continue;
        }
        expired.push_back(easy);
    }
    for (CURL* easy : expired) finish(easy, CURLE_OPERATION_TIMEDOUT);
}

int HttpSession::Core::pollTimeout(Clock::time_point now) const {
    using std::chrono::milliseconds;
    // Idle sessions only wait for new work or their release.
    milliseconds wait{60'000};
    for (const auto& [easy, transfer] : active) {
        auto deadline = transfer->lastActivity + transfer->idleTimeout;
        if (transfer->totalTimeout) deadline = std::min(deadline, transfer->start + *transfer->totalTimeout);
        wait = std::min(wait, std::chrono::ceil<milliseconds>(deadline - now));
    }
    return static_cast<int>(std::clamp<long long>(wait.count(), 1, 60'000));
}

void HttpSession::Core::run() {
    for (;;) {
        std::deque<std::unique_ptr<Transfer>> arrived;
        bool done = false;
        {
            std::lock_guard lock(mutex);
            arrived.swap(pending);
            done = released && arrived.empty() && active.empty();
        }
        if (done) break;
        for (auto& transfer : arrived) start(std::move(transfer));

        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued))
            if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
        expireTimedOut(Clock::now());

        {
            // Work that arrived during the completions is started at once.
            std::lock_guard lock(mutex);
            if (!pending.empty() || (released && active.empty())) continue;
        }
        curl_multi_poll(multi, nullptr, 0, pollTimeout(Clock::now()), nullptr);
    }
}

std::shared_ptr<HttpSession> HttpSession::make(HttpSessionConfiguration configuration) {
    initialiseCurlOnce();
    auto core = std::make_shared<Core>(std::move(configuration));
    return std::shared_ptr<HttpSession>(new HttpSession(std::move(core)));
}

HttpSession::HttpSession(std::shared_ptr<Core> core) : _core(std::move(core)) {}

HttpSession::~HttpSession() { _core->release(); }

const HttpSessionConfiguration& HttpSession::configuration() const { return _core->configuration; }

bool HttpSession::isCurrent() const { return std::this_thread::get_id() == _core->threadId.load(); }

void HttpSession::dataTask(HttpRequest request, HttpCompletion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->completion = std::move(completion);
    _core->enqueue(std::move(transfer));
}

void HttpSession::uploadTask(HttpRequest request, std::shared_ptr<const std::vector<std::uint8_t>> bytes,
                             HttpCompletion completion) {
    if (request.method.empty() || request.method == "GET") request.method = "PUT";
    auto transfer = std::make_unique<Transfer>();
    transfer->upload = bytes ? std::move(bytes) : std::make_shared<const std::vector<std::uint8_t>>();
    transfer->request = std::move(request);
    transfer->request.body.reset();
    transfer->completion = std::move(completion);
    _core->enqueue(std::move(transfer));
}

}  // namespace palomir
