#include "platform/http_session.hpp"

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>

namespace palomir {

namespace {

using Clock = std::chrono::steady_clock;

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return std::string(text);
}

bool hasLineBreak(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

// The system's authorities as a hashed directory, which OpenSSL searches by
// subject while it builds a chain: only the few certificates a chain needs
// are ever read, where the bundle file would put every authority in memory
// for each connection. The environment overrides it as it does for OpenSSL.
std::string systemCertificateDirectory() {
    const char* fromEnvironment = std::getenv(X509_get_default_cert_dir_env());
    return fromEnvironment && *fromEnvironment ? fromEnvironment : X509_get_default_cert_dir();
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

// A released session's thread frees its TLS state on its way out, and
// OpenSSL's per-thread clean-up runs as the thread ends. If the process exits
// meanwhile, OpenSSL's exit handler frees locks such a thread still takes. So
// the threads are joinable: one that has done its work is joined by the next
// launch or, at the latest, by an exit handler of ours, which runs before
// OpenSSL's and first waits a moment for released sessions still finishing.
struct EndingThreads {
    std::mutex mutex;
    std::condition_variable ended;
    int count = 0;
    std::vector<std::thread> finished;
    bool exiting = false;  // threads ending later detach themselves
};

EndingThreads& endingThreads() {
    static auto& threads = *new EndingThreads();  // used by exit handlers: never destroyed
    return threads;
}

void joinFinishedThreads() {
    std::vector<std::thread> finished;
    {
        std::lock_guard lock(endingThreads().mutex);
        finished.swap(endingThreads().finished);
    }
    for (std::thread& thread : finished) thread.join();
}

void waitForEndingThreads() {
    {
        EndingThreads& threads = endingThreads();
        std::unique_lock lock(threads.mutex);
        threads.ended.wait_for(lock, std::chrono::milliseconds(500), [&] { return threads.count <= 0; });
        threads.exiting = true;
    }
    joinFinishedThreads();
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

struct Transfer {
    HttpSession::Core* core = nullptr;
    HttpRequest request;
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
        : configuration(std::move(configuration)), multi(curl_multi_init()), share(curl_share_init()) {
        // Transfers share TLS sessions (to resume them) and name look-ups.
        // Only the network thread touches the share, so it needs no locks.
        if (share) {
            curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
            curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        }
    }

    ~Core() {
        if (multi) curl_multi_cleanup(multi);
        if (share) curl_share_cleanup(share);
    }

    void enqueue(std::unique_ptr<Transfer> transfer) {
        bool first = false;
        {
            std::lock_guard lock(mutex);
            pending.push_back(std::move(transfer));
            first = !started;
            started = true;
        }
        // The thread starts with its first task already waiting, so a
        // session never used costs no thread.
        if (first)
            launch();
        else
            curl_multi_wakeup(multi);
    }

    void launch() {
        joinFinishedThreads();
        // The thread keeps the machinery alive until it is released and idle.
        std::lock_guard lock(mutex);
        thread = std::thread([core = shared_from_this()]() mutable {
            core->threadId.store(std::this_thread::get_id());
            pthread_setname_np(pthread_self(), core->configuration.label.substr(0, 15).c_str());
            core->run();
            core->threadId.store({});
            std::thread self;
            {
                std::lock_guard lock(core->mutex);
                self = std::move(core->thread);
            }
            core.reset();
            // What OpenSSL would free for this thread after it ends, freed now.
            OPENSSL_thread_stop();
            EndingThreads& ending = endingThreads();
            std::lock_guard lock(ending.mutex);
            if (ending.exiting)
                self.detach();
            else
                ending.finished.push_back(std::move(self));
            --ending.count;
            ending.ended.notify_all();
        });
    }

    void release() {
        bool running = false;
        {
            std::lock_guard lock(mutex);
            released = true;
            running = started;
        }
        if (running) {
            EndingThreads& ending = endingThreads();
            std::lock_guard lock(ending.mutex);
            ++ending.count;
        }
        curl_multi_wakeup(multi);
    }

    void run();
    void start(std::unique_ptr<Transfer> transfer);
    std::optional<HttpError> configure(Transfer& transfer);
    void finish(CURL* easy, CURLcode code);
    void expireTimedOut(Clock::time_point now);
    int pollTimeout(Clock::time_point now) const;

    const HttpSessionConfiguration configuration;
    CURLM* const multi;
    CURLSH* const share;
    std::atomic<std::thread::id> threadId{};

    std::mutex mutex;
    std::thread thread;  // until the thread hands itself to EndingThreads
    std::deque<std::unique_ptr<Transfer>> pending;
    bool started = false;
    bool released = false;

    // Network thread only.
    std::map<CURL*, std::unique_ptr<Transfer>> active;
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

std::string tooLargeMessage(std::size_t limit) {
    return "The response body is larger than " + std::to_string(limit) + " bytes";
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    transfer->lastActivity = Clock::now();
    auto& body = transfer->response.body;
    const std::size_t limit = transfer->core->configuration.maxBodySize;
    if (length > limit - std::min(limit, body.size())) {
        transfer->failure = HttpError{HttpError::Kind::tooLarge, CURLE_FILESIZE_EXCEEDED, tooLargeMessage(limit)};
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

int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto* transfer = static_cast<Transfer*>(user);
    if (downloaded != transfer->downloaded || uploaded != transfer->uploaded) {
        transfer->downloaded = downloaded;
        transfer->uploaded = uploaded;
        transfer->lastActivity = Clock::now();
    }
    return 0;
}

// Runs once per new connection, after libcurl has pointed the context's
// store at the system's directory.
CURLcode onSslContext(CURL*, void* sslContext, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    auto* context = static_cast<SSL_CTX*>(sslContext);
    // An unreadable file adds nothing; chains that needed it then fail.
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    for (const auto& path : transfer->core->configuration.trustAnchors) X509_STORE_load_file(store, path.c_str());

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

}  // namespace

std::optional<HttpError> HttpSession::Core::configure(Transfer& transfer) {
    const auto invalid = [](std::string message) {
        return HttpError{HttpError::Kind::invalidRequest, 0, std::move(message)};
    };
    const HttpRequest& request = transfer.request;

    std::string host;
    std::string scheme;
    if (CURLU* url = curl_url()) {
        char* part = nullptr;
        if (curl_url_set(url, CURLUPART_URL, request.url.c_str(), 0) == CURLUE_OK) {
            if (curl_url_get(url, CURLUPART_HOST, &part, 0) == CURLUE_OK) host = part;
            curl_free(part);
            part = nullptr;
            if (curl_url_get(url, CURLUPART_SCHEME, &part, 0) == CURLUE_OK) scheme = part;
            curl_free(part);
        }
        curl_url_cleanup(url);
    }
    if (host.empty()) return invalid("Invalid URL: " + request.url);
    if (scheme != "http" && scheme != "https") return invalid("Unsupported URL scheme: " + scheme);
    if (request.method.empty() || hasLineBreak(request.method) || request.method.find(' ') != std::string::npos)
        return invalid("Invalid HTTP method: " + request.method);

    transfer.verification.host = host;
    transfer.verification.pins = configuration.pins;

    // Fields named twice go out once, their values joined, in first-seen order.
    HttpHeaders fields;
    const auto named = [&](std::string_view name) {
        return std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return sameName(f.first, name); });
    };
    for (const auto& [name, value] : request.headers) {
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) || name.find(':') != std::string::npos)
            return invalid("Invalid header field: " + name);
        if (auto same = named(name); same != fields.end())
            same->second += ", " + value;
        else
            fields.emplace_back(name, value);
    }
    std::vector<std::string> lines;
    for (const auto& [name, value] : fields)
        lines.push_back(value.empty() ? name + ";" : name + ": " + value);  // "Name;" sends an empty field
    // What goes out is what the caller gave, and what HTTP itself needs. Of
    // libcurl's own additions these go: an Accept field, a form Content-Type
    // on bodies that did not name one, and "Expect: 100-continue", which
    // stalls large uploads on servers that do not answer it. Storage targets
    // check the fields of an upload against what they signed.
    for (const char* added : {"Accept", "Content-Type", "Expect"})
        if (named(added) == fields.end()) lines.push_back(std::string(added) + ":");
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
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    const std::string systemDirectory = configuration.trustSystemAnchors ? systemCertificateDirectory() : "";
    curl_easy_setopt(easy, CURLOPT_CAPATH, systemDirectory.empty() ? nullptr : systemDirectory.c_str());
    curl_easy_setopt(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, onSslContext);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &transfer);
    // A resumed session skips certificate verification, so a pinned session
    // checks every connection afresh.
    if (configuration.pins) curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);

    const std::string& method = request.method;
    // A body (an upload's bytes too) goes out from memory, without a copy.
    const std::vector<std::uint8_t>* body = request.body.get();
    if (body || (method != "GET" && method != "HEAD" && method != "DELETE")) {
        static const char empty[] = "";
        const bool hasBytes = body && !body->empty();
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(hasBytes ? body->size() : 0));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, hasBytes ? reinterpret_cast<const char*>(body->data()) : empty);
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

void HttpSession::Core::start(std::unique_ptr<Transfer> transfer) {
    transfer->core = this;
    transfer->easy = curl_easy_init();
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
    if (error) return complete(std::move(transfer), std::nullopt, std::move(error));
    CURL* easy = transfer->easy;
    active.emplace(easy, std::move(transfer));
}

void HttpSession::Core::finish(CURL* easy, CURLcode code) {
    auto found = active.find(easy);
    if (found == active.end()) return;
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    active.erase(found);
    curl_multi_remove_handle(multi, easy);

    if (transfer->failure) {
        std::optional<HttpError> error = std::move(transfer->failure);
        return complete(std::move(transfer), std::nullopt, std::move(error));
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
            error.message = tooLargeMessage(configuration.maxBodySize);
        } else if (code == CURLE_OPERATION_TIMEDOUT) {
            error.kind = HttpError::Kind::timedOut;
        }
        return complete(std::move(transfer), std::nullopt, std::move(error));
    }
    HttpResponse response = std::move(transfer->response);
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response.status);
    complete(std::move(transfer), std::move(response), std::nullopt);
}

void HttpSession::Core::expireTimedOut(Clock::time_point now) {
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
    // Without a transfer the thread sleeps until new work or its release
    // wakes it (libcurl shortens the wait itself when it has timers of its own).
    if (active.empty()) return INT_MAX;
    milliseconds wait = milliseconds::max();
    for (const auto& [easy, transfer] : active) {
        auto deadline = transfer->lastActivity + transfer->idleTimeout;
        if (transfer->totalTimeout) deadline = std::min(deadline, transfer->start + *transfer->totalTimeout);
        wait = std::min(wait, std::chrono::ceil<milliseconds>(deadline - now));
    }
    return static_cast<int>(std::clamp<long long>(wait.count(), 1, INT_MAX));
}

void HttpSession::Core::run() {
    for (;;) {
        std::deque<std::unique_ptr<Transfer>> arrived;
        {
            std::lock_guard lock(mutex);
            arrived.swap(pending);
            if (released && arrived.empty() && active.empty()) break;
        }
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
    static std::once_flag once;
    std::call_once(once, [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        std::atexit(waitForEndingThreads);
    });
    return std::shared_ptr<HttpSession>(new HttpSession(std::make_shared<Core>(std::move(configuration))));
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


}  // namespace palomir
