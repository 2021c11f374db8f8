#include "palomir/client.hpp"

#include <iterator>
#include <memory>
#include <mutex>
#include <utility>

#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include "api/app_info_internal.hpp"
#include "core/palomir_internal.hpp"
#include "platform/crypto.hpp"

namespace palomir {

namespace {

// The label of the client's own queue: the vendor's reverse-DNS prefix.
constexpr const char* kQueueLabel = "io.palomir.palomir";
constexpr std::size_t kMaxMessageCharacters = 1000;

std::string describe(const std::optional<Url>& url) {
    return url ? "Optional(" + detail::quotedText(url->absoluteString()) + ")" : "nil";
}

std::string describe(const std::optional<std::string>& text) { return detail::describeOptional(text); }

std::string describe(const std::optional<Color>& color) {
    if (!color) return "nil";
    return "Optional(Color(red: " + std::to_string(color->red) + ", green: " + std::to_string(color->green) +
           ", blue: " + std::to_string(color->blue) + ", alpha: " + std::to_string(color->alpha) + "))";
}

std::string describe(const std::optional<ServiceMessage>& message) {
    if (!message) return "nil";
    return "Optional(ServiceMessage(title: " + describe(message->title) + ", description: " +
           describe(message->description) + ", dismiss: " + describe(message->dismiss) + ", url: " +
           describe(message->url) + ", urlTitle: " + describe(message->urlTitle) + ", backgroundColorLight: " +
           describe(message->backgroundColorLight) + ", backgroundColorDark: " + describe(message->backgroundColorDark) +
           "))";
}

// Wraps a completion so that it is always delivered asynchronously on
// `queue`, the main queue when none is given; an absent completion drops
// the result.
template <class T, class E>
std::function<void(Result<T, E>)> deliveryOn(std::shared_ptr<DispatchQueue> queue,
                                             std::function<void(Result<T, E>)> completion) {
    if (!queue) queue = mainQueue();
    return [queue = std::move(queue), completion = std::move(completion)](Result<T, E> result) {
        if (!completion) return;
        queue->async([completion, result = std::move(result)]() mutable { completion(std::move(result)); });
    };
}

// The client's own queue. Its worker thread is started by the first work
// posted to it: most hosts never submit feedback, and starting a thread is a
// large share of what creating the shared client would otherwise cost.
class DeferredSerialQueue final : public DispatchQueue {
public:
    explicit DeferredSerialQueue(std::string label) : _label(std::move(label)) {}

    void async(Work work) override { started().async(std::move(work)); }

    bool isCurrent() const override {
        std::lock_guard lock(_mutex);
        return _queue && _queue->isCurrent();
    }

    const std::string& label() const override { return _label; }

private:
    DispatchQueue& started() {
        std::lock_guard lock(_mutex);
        if (!_queue) _queue = DispatchQueue::makeSerial(_label);
        return *_queue;
    }

    const std::string _label;
    mutable std::mutex _mutex;
    std::shared_ptr<DispatchQueue> _queue;
};

}  // namespace

std::string describeServices(const std::vector<Service>& services) {
    std::string text = "[";
    for (std::size_t i = 0; i < services.size(); ++i) {
        const auto& s = services[i];
        if (i > 0) text += ", ";
        text += "Service(name: " + detail::quotedText(s.name) + ", identifier: " + detail::quotedText(s.identifier) +
                ", url: " + describe(s.url) + ", available: " + (s.available ? "true" : "false") +
                ", state: " + std::string(toString(s.state)) + ", triggersMessage: " +
                (s.triggersMessage ? "true" : "false") + ", message: " + describe(s.message) +
                ", image: " + describe(s.image) + ")";
    }
    return text + "]";
}

std::string describeNotes(const std::vector<Note>& notes) {
    std::vector<std::string> descriptions;
    descriptions.reserve(notes.size());
    for (const auto& note : notes) descriptions.push_back(note.description());
    return detail::describeList(descriptions);
}

std::pair<std::string, bool> shortenedMessage(const std::string& message) {
    // Fewer bytes than the limit are fewer characters, whatever they are.
    if (message.size() <= kMaxMessageCharacters) return {message, false};

    // Characters as a reader counts them: grapheme clusters, so a letter with
    // its accents or an emoji sequence is never split. ICU's rules follow
    // each Unicode release, which no table of our own would.
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UText, UText* (*)(UText*)> text(
        utext_openUTF8(nullptr, message.data(), static_cast<std::int64_t>(message.size()), &status), &utext_close);
    std::unique_ptr<UBreakIterator, void (*)(UBreakIterator*)> clusters(
        ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status), &ubrk_close);
    if (U_SUCCESS(status)) ubrk_setUText(clusters.get(), text.get(), &status);
    if (U_SUCCESS(status)) {
        std::size_t characters = 0;
        std::int32_t end = 0;
        while (characters < kMaxMessageCharacters && (end = ubrk_next(clusters.get())) != UBRK_DONE) ++characters;
        if (characters < kMaxMessageCharacters || ubrk_next(clusters.get()) == UBRK_DONE) return {message, false};
        return {message.substr(0, static_cast<std::size_t>(end)), true};
    }

    // Without ICU's data (out of memory): whole code points at least.
    std::size_t characters = 0;
    for (std::size_t i = 0; i < message.size(); ++i) {
        if ((static_cast<unsigned char>(message[i]) & 0xC0) == 0x80) continue;
        if (characters == kMaxMessageCharacters) return {message.substr(0, i), true};
        ++characters;
    }
    return {message, false};
}

Palomir& Palomir::shared() {
    // Never destroyed: completions and logging may still run while the
    // process exits.
    static Palomir* instance = new Palomir();
    return *instance;
}

Palomir::Palomir() : _notificationCenter(std::make_unique<NotificationCenter>()) {
    _queue = std::make_shared<DeferredSerialQueue>(kQueueLabel);
    _impl = std::make_shared<Impl>();

    auto formatter = std::make_shared<PalomirLogFormatter>();
    _impl->fileLogger = std::make_shared<FileLogger>("main", formatter, LogType::debug, 2);
    _impl->logger = std::make_shared<CombinedLogger>(
        std::vector<std::shared_ptr<Logger>>{std::make_shared<NSLogger>(), _impl->fileLogger});

    auto info = AppInfo::make(Bundle::main());
    if (info.hasValue()) {
        std::lock_guard lock(_impl->lock);
        _impl->appInfo = std::move(info).value();
    }
    logger()->log("Palomir started", LogType::info);
}

Palomir::~Palomir() = default;

std::optional<AppCredentials> Palomir::appCredentials() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->appCredentials;
}

void Palomir::setAppCredentials(std::optional<AppCredentials> credentials) {
    {
        std::lock_guard lock(_impl->stateMutex);
        _impl->appCredentials = credentials;
    }
    if (!credentials) {
        std::lock_guard lock(_impl->lock);
        _impl->client.reset();
        return;
    }
    std::shared_ptr<UserCredentials> user;
    {
        std::lock_guard lock(_impl->lock);
        // Nested on purpose: the user-credentials read takes the same lock.
        user = userCredentials();
    }
    auto client = APIClient::make(std::move(*credentials), std::move(user), nullptr, logger(), backend());
    std::lock_guard lock(_impl->lock);
    _impl->client = std::move(client);
}

std::shared_ptr<UserCredentials> Palomir::userCredentials() const {
    std::lock_guard lock(_impl->lock);
    return _impl->client ? _impl->client->userCredentials() : nullptr;
}

void Palomir::setUserCredentials(std::shared_ptr<UserCredentials> credentials) {
    auto app = appCredentials();
    if (!app) {
        // User credentials live only inside an API client, and there is none
        // without app credentials: the value is dropped.
        std::lock_guard lock(_impl->lock);
        _impl->client.reset();
        return;
    }
    auto client = APIClient::make(std::move(*app), std::move(credentials), nullptr, logger(), backend());
    std::lock_guard lock(_impl->lock);
    _impl->client = std::move(client);
}

std::optional<AppInfo> Palomir::appInfo() const {
    std::lock_guard lock(_impl->lock);
    return _impl->appInfo;
}

void Palomir::setAppInfo(std::optional<AppInfo> info) {
    std::lock_guard lock(_impl->lock);
    _impl->appInfo = std::move(info);
}

std::shared_ptr<APIClient> Palomir::client() const {
    std::lock_guard lock(_impl->lock);
    return _impl->client;
}

void Palomir::setClient(std::shared_ptr<APIClient> client) {
    std::lock_guard lock(_impl->lock);
    _impl->client = std::move(client);
}

std::optional<Configuration> Palomir::configuration() const {
    std::lock_guard lock(_impl->stateMutex);
    if (!_impl->configuration) return std::nullopt;
    return *_impl->configuration;
}

void Palomir::setConfiguration(std::optional<Configuration> configuration) {
    auto held = configuration ? std::make_shared<const Configuration>(std::move(*configuration)) : nullptr;
    std::lock_guard lock(_impl->stateMutex);
    _impl->configuration = std::move(held);
}

std::optional<std::vector<Service>> Palomir::services() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->services;
}

std::optional<std::vector<Service>> Palomir::systemServices() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->systemServices;
}

std::vector<std::shared_ptr<ConfigurableViewController>> Palomir::viewControllers() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->viewControllers;
}

std::shared_ptr<Logger> Palomir::logger() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->logger;
}

void Palomir::setLogger(std::shared_ptr<Logger> logger) {
    std::lock_guard lock(_impl->stateMutex);
    _impl->logger = std::move(logger);
}

void Palomir::setBackend(BackendOptions options) {
    {
        std::lock_guard lock(_impl->stateMutex);
        _impl->backend = std::move(options);
    }
    // A new client picks the backend up; the user credentials go along.
    if (auto app = appCredentials()) setAppCredentials(std::move(app));
}

BackendOptions Palomir::backend() const {
    std::lock_guard lock(_impl->stateMutex);
    return _impl->backend;
}

void Palomir::checkin(std::shared_ptr<DispatchQueue> queue, Completion<Configuration> completion) {
    if (!queue) queue = mainQueue();

    std::shared_ptr<const Configuration> held;
    {
        std::lock_guard lock(_impl->stateMutex);
        held = _impl->configuration;
    }
    if (held) {
        std::optional<Date> next = held->nextCheckin ? held->nextCheckin->automaticallyAt : std::nullopt;
        if (!next || *next > std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now())) {
            if (completion) queue->async([completion, held] { completion(Ok{*held}); });
            return;
        }
    }

    auto deliver = deliveryOn(std::move(queue), std::move(completion));
    auto start = clientAndAppInfo();
    if (start.hasError()) return deliver(Err{Error(start.error())});
    auto client = start.value().first;
    auto info = std::move(start.value().second);

    std::weak_ptr<Impl> weak = _impl;
    client->checkin(info, [weak, deliver](Result<Configuration, APIError> result) {
        auto& palomir = Palomir::shared();
        if (result.hasError()) {
            palomir.logger()->log("checkin failed to register Palomir endpoint: " + result.error().localizedDescription(),
                                  LogType::default_);
            return deliver(Err{Error(std::move(result).error())});
        }
        auto configuration = std::make_shared<const Configuration>(std::move(result).value());
        palomir.logger()->log("successfully checked in:\n" + describeNotes(configuration->notes), LogType::default_);
        if (auto impl = weak.lock()) {
            std::lock_guard lock(impl->stateMutex);
            impl->configuration = configuration;
        }
        deliver(Ok{*configuration});
    });
}

void Palomir::webRequest(const std::string& url, std::shared_ptr<DispatchQueue> queue, Completion<URLRequest> completion) {
    auto deliver = deliveryOn(std::move(queue), std::move(completion));
    auto client = this->client();
    if (!client) return deliver(Err{Error(PalomirError::missingCredentials())});
    deliver(Ok{client->urlRequest(url, "GET", appCredentials(), std::nullopt, "text/html")});
}

void Palomir::lockdownIfNeeded(std::shared_ptr<Window> window, bool /*animated*/,
                               std::function<void(DismissAction)> dismissCallback,
                               std::function<void(LockdownResult)> completion) {
    std::weak_ptr<Impl> weak = _impl;
    checkin(mainQueue(), [weak, window = std::move(window), dismissCallback = std::move(dismissCallback),
                          completion = std::move(completion)](Result<Configuration, Error>) {
        // The outcome of the check-in does not matter: whatever configuration
        // is held now decides, so a failed check-in keeps the last lockdown.
        auto finish = [&completion](LockdownResult result) {
            if (completion) completion(result);
        };
        auto impl = weak.lock();
        std::shared_ptr<const Configuration> configuration;
        if (impl) {
            std::lock_guard lock(impl->stateMutex);
            configuration = impl->configuration;
        }
        if (!configuration) return finish(LockdownResult::open());

        const auto& lockdown = configuration->lockdown;
        const LockdownType type = lockdown.type.value_or(LockdownType::soft);
        std::shared_ptr<LockdownScreen> screen;
        if (lockdown.active && window) {
            screen = window->makeLockdownScreen();
            if (screen) screen->setDismissCallback(dismissCallback);
        }

        std::vector<std::shared_ptr<ConfigurableViewController>> presented;
        if (impl) {
            std::lock_guard lock(impl->stateMutex);
            presented = impl->viewControllers;
        }
        // Lifting a lockdown animates; replacing one screen by the next does not.
        for (const auto& controller : presented) controller->dismiss(!lockdown.active, nullptr);
        const bool wasEmpty = presented.empty();

        if (!lockdown.active) return finish(LockdownResult::open());
        // Nowhere to present: the result waits for a screen that never shows,
        // so the completion does not run (see the header).
        if (!screen) return;
        if (impl) {
            std::lock_guard lock(impl->stateMutex);
            impl->viewControllers.push_back(screen);
        }
        screen->setConfig(*configuration);

        auto root = window->rootViewController();
        if (!root) return;
        root->present(screen, wasEmpty, [completion, type] {
            if (completion) completion(LockdownResult::lockedDown(type));
        });
    });
}

void Palomir::services(std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion) {
    fetchServices(false, std::move(queue), std::move(completion));
}

void Palomir::systemServices(std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion) {
    fetchServices(true, std::move(queue), std::move(completion));
}

void Palomir::service(const std::string& identifier, std::shared_ptr<DispatchQueue> queue,
                      Completion<ServiceResult> completion) {
    fetchService(identifier, false, std::move(queue), std::move(completion));
}

void Palomir::systemService(const std::string& identifier, std::shared_ptr<DispatchQueue> queue,
                            Completion<ServiceResult> completion) {
    fetchService(identifier, true, std::move(queue), std::move(completion));
}

void Palomir::fetchServices(bool system, std::shared_ptr<DispatchQueue> queue, Completion<ServicesResult> completion) {
    auto deliver = deliveryOn(std::move(queue), std::move(completion));
    auto start = clientAndAppInfo();
    if (start.hasError()) return deliver(Err{Error(start.error())});
    auto client = start.value().first;
    auto info = std::move(start.value().second);

    std::weak_ptr<Impl> weak = _impl;
    client->services(info, system, [weak, system, deliver](Result<std::pair<ServicesResponse, MaxAge>, APIError> result) {
        auto& palomir = Palomir::shared();
        if (result.hasError()) {
            palomir.logger()->log("failed to fetch services: " + result.error().localizedDescription(), LogType::default_);
            return deliver(Err{Error(std::move(result).error())});
        }
        auto [response, maxAge] = std::move(result).value();
        auto& list = response.services;
        palomir.logger()->log("successfully fetched services:\n" + describeServices(list), LogType::default_);
        if (auto impl = weak.lock()) {
            std::lock_guard lock(impl->stateMutex);
            (system ? impl->systemServices : impl->services) = list;
        }
        palomir.notificationCenter().post(system ? systemServicesUpdated : servicesUpdated, list);
        for (const auto& service : list) palomir.notificationCenter().post(system ? systemServiceUpdated : serviceUpdated, service);
        deliver(Ok{ServicesResult{std::move(list), maxAge}});
    });
}

void Palomir::fetchService(const std::string& identifier, bool system, std::shared_ptr<DispatchQueue> queue,
                           Completion<ServiceResult> completion) {
    auto deliver = deliveryOn(std::move(queue), std::move(completion));
    auto start = clientAndAppInfo();
    if (start.hasError()) return deliver(Err{Error(start.error())});
    auto client = start.value().first;
    auto info = std::move(start.value().second);

    std::weak_ptr<Impl> weak = _impl;
    client->service(identifier, info, system, [weak, system, deliver](Result<std::pair<Service, MaxAge>, APIError> result) {
        auto& palomir = Palomir::shared();
        if (result.hasError()) {
            palomir.logger()->log("failed to fetch service: " + result.error().localizedDescription(), LogType::default_);
            return deliver(Err{Error(std::move(result).error())});
        }
        auto [service, maxAge] = std::move(result).value();
        if (system) {
            // Deliberately not merged into a list already held: only a first
            // fetch before any list fetch makes a list of it.
            if (auto impl = weak.lock()) {
                std::lock_guard lock(impl->stateMutex);
                if (!impl->systemServices) impl->systemServices = std::vector<Service>{service};
            }
        }
        palomir.notificationCenter().post(system ? systemServiceUpdated : serviceUpdated, service);
        deliver(Ok{ServiceResult{std::move(service), maxAge}});
    });
}

void Palomir::feedback(const std::string& title, const std::string& message, const std::string& submittedBy,
                       const std::vector<std::filesystem::path>& fileAttachments,
                       std::vector<std::shared_ptr<AttachmentProvider>> attachmentProviders,
                       std::shared_ptr<DispatchQueue> queue, Completion<std::string, PalomirError> completion) {
    std::vector<Attachment> attachments;
    // A file that cannot be read is left out quietly and the feedback still
    // goes; a host that wants to know why builds with Attachment::fromFile.
    for (const auto& path : fileAttachments) {
        if (auto attachment = Attachment::fromFile(path); attachment.hasValue())
            attachments.push_back(std::move(attachment).value());
    }
    feedback(title, message, submittedBy, std::move(attachments), std::move(attachmentProviders), std::move(queue),
             std::move(completion));
}

void Palomir::feedback(const std::string& title, const std::string& message, const std::string& submittedBy,
                       std::vector<Attachment> attachments,
                       std::vector<std::shared_ptr<AttachmentProvider>> attachmentProviders,
                       std::shared_ptr<DispatchQueue> queue, Completion<std::string, PalomirError> completion) {
    auto deliver = deliveryOn(std::move(queue), std::move(completion));
    auto start = clientAndAppInfo();
    if (start.hasError()) return deliver(Err{start.error()});
    auto client = start.value().first;
    auto info = std::move(start.value().second);

    // Gathered on the caller's thread, in this order: the host's files, the
    // whole text of a long message, then each provider's files.
    auto [submitted, shortened] = shortenedMessage(message);
    if (shortened) attachments.push_back(Attachment::fromText("full_message.txt", std::nullopt, message));
    for (const auto& provider : attachmentProviders) {
        if (!provider) continue;
        for (auto& attachment : provider->feedbackAttachments()) attachments.push_back(std::move(attachment));
    }

    auto job = std::make_shared<FeedbackJob>();
    job->feedback = Feedback{title, submitted, submittedBy, std::nullopt};
    job->attachments = std::move(attachments);
    job->appInfo = std::move(info);
    _queue->async([client, job, deliver] { runFeedback(*client, *job, deliver); });
}

void runFeedback(APIClient& client, FeedbackJob& job,
                 const std::function<void(Result<std::string, PalomirError>)>& deliver) {
    DispatchGroup group;
    std::mutex idsMutex;
    std::vector<std::string> signedIDs;

    for (auto& attachment : job.attachments) {
        auto data = std::make_shared<const std::vector<std::uint8_t>>(std::move(attachment.data));
        const auto digest = crypto::md5(*data);
        DirectUpload blob{attachment.filename, static_cast<std::int64_t>(data->size()), crypto::base64Encode(digest),
                          attachment.contentType, std::nullopt};
        group.enter();
        client.startDirectUpload(std::move(blob), [&client, &group, &idsMutex, &signedIDs,
                                                   data](Result<DirectUploadResponse, APIError> result) {
            if (result.hasError()) {
                Palomir::shared().logger()->log("failed to start direct upload: " + result.error().localizedDescription(),
                                                LogType::default_);
                group.leave();
                return;
            }
            auto response = std::move(result).value();
            // Whether the bytes arrived is not looked at: the signed id names
            // the file either way, and the backend sorts out missing bytes.
            client.directUpload(data, response.directUpload, nullptr,
                                [&group, &idsMutex, &signedIDs, signedID = response.signedID](Result<bool, APIError>) {
                                    {
                                        std::lock_guard lock(idsMutex);
                                        signedIDs.push_back(signedID);
                                    }
                                    group.leave();
                                });
        });
    }
    // Every attachment ends in exactly one leave, so this returns; the
    // client's queue waits meanwhile, which keeps submissions in order.
    group.wait();

    {
        std::lock_guard lock(idsMutex);
        job.feedback.files = signedIDs;
    }
    client.createFeedback(job.feedback, job.appInfo, [deliver](Result<Feedback, APIError> result) {
        if (result.hasError()) return deliver(Err{PalomirError::requestFailed(std::move(result).error())});
        deliver(Ok{std::string()});
    });
}

Result<std::pair<std::shared_ptr<APIClient>, AppInfo>, PalomirError> Palomir::clientAndAppInfo() const {
    auto client = this->client();
    if (!client) return Err{PalomirError::missingCredentials()};
    auto info = appInfo();
    if (!info) return Err{PalomirError::failedToCreateAppInfo()};
    return Ok{std::pair{std::move(client), std::move(*info)}};
}

std::vector<Attachment> Palomir::feedbackAttachments() {
    std::vector<Attachment> attachments;
    for (const auto& path : logFiles()) {
        if (auto attachment = Attachment::fromFile(path); attachment.hasValue())
            attachments.push_back(std::move(attachment).value());
    }
    return attachments;
}

std::vector<std::filesystem::path> Palomir::logFiles() const {
    // Lines logged so far belong in what is attached.
    _impl->fileLogger->flush();
    return _impl->fileLogger->logFiles();
}

}  // namespace palomir
