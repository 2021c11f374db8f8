// The C facade's operations: each forwards to Palomir::shared().

#include <filesystem>
#include <map>
#include <vector>

#include "capi/capi_internal.hpp"
#include "palomir/any_codable.hpp"
#include "palomir/bundle.hpp"
#include "palomir/client.hpp"
#include "palomir/credentials.hpp"
#include "palomir/decoding.hpp"
#include "palomir/environment.hpp"

using namespace palomir;
using namespace palomir::capi;

namespace {

// Keeps the host's context for as long as any API client (or an unanswered
// reply) can still call the provider, then hands it back to the host.
struct ProviderHolder {
    PLUserTokenProvider provider;
    void* context;
    void (*releaseContext)(void*);

    ProviderHolder(PLUserTokenProvider p, void* c, void (*r)(void*)) : provider(p), context(c), releaseContext(r) {}
    ProviderHolder(const ProviderHolder&) = delete;
    ProviderHolder& operator=(const ProviderHolder&) = delete;
    ~ProviderHolder() {
        if (releaseContext) releaseContext(context);
    }
};

bool setMetadata(std::string_view json, PLError** error) {
    auto parsed = parseJson(json);
    if (parsed.hasError()) {
        report(error, makeError(PL_ERROR_INVALID_JSON, "Invalid JSON: " + parsed.error().reason));
        return false;
    }
    const auto& document = parsed.value();
    std::optional<std::map<std::string, AnyEncodable>> metadata;
    if (!document.is_null()) {
        if (!document.is_object()) {
            report(error, makeError(PL_ERROR_INVALID_JSON, "Invalid JSON: metadata must be an object or null"));
            return false;
        }
        auto decoded = decode<AnyValue>(document);
        if (decoded.hasError()) {
            report(error, makeError(PL_ERROR_INVALID_JSON, "Invalid JSON: " + decoded.error().message()));
            return false;
        }
        metadata.emplace();
        for (const auto& [key, value] : *decoded.value().get<AnyMap>()) metadata->emplace(key, AnyEncodable(value));
    }
    auto& client = Palomir::shared();
    auto info = client.appInfo();
    if (!info) {
        const PLError translated = translate(PalomirError::failedToCreateAppInfo());
        report(error, makeError(translated.code, translated.description));
        return false;
    }
    info->metadata = std::move(metadata);
    client.setAppInfo(std::move(info));
    clear(error);
    return true;
}

Palomir::Completion<std::string, PalomirError> feedbackCompletion(PLFeedbackCompletion completion, void* context) {
    if (!completion) return {};
    return [completion, context](Result<std::string, PalomirError> result) {
        if (!result.hasError()) {
            completion(true, nullptr, context);
            return;
        }
        PLError failure{PL_ERROR_INTERNAL, "Internal error"};
        try {
            failure = translate(result.error());
        } catch (...) {
            // Out of memory: the host still hears back exactly once.
        }
        completion(false, &failure, context);
    };
}

// The arguments every feedback form shares; false (with the error reported)
// when one is missing.
bool checkFeedbackArguments(const char* title, const char* message, const char* submittedBy, const void* list,
                            const char* listName, size_t count, PLQueue* queue, PLError** error) {
    if (!title) return invalidArgument(error, "title");
    if (!message) return invalidArgument(error, "message");
    if (!submittedBy) return invalidArgument(error, "submitted_by");
    if (!list && count > 0) return invalidArgument(error, listName);
    if (!queue) return invalidArgument(error, "queue");
    return true;
}

}  // namespace

struct PLUserTokenReply {
    ClosureUserCredentials::Callback answer;
    std::shared_ptr<ProviderHolder> holder;
};

extern "C" bool pl_set_caches_directory(const char* path, PLError** error) noexcept {
    if (!path) return invalidArgument(error, "path");
    try {
        setCachesDirectory(path);
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_set_backend(const char* base_url, const char* ca_file, const char* resource_dir,
                               PLError** error) noexcept {
    try {
        BackendOptions options;
        if (base_url) options.baseURL = base_url;
        if (ca_file) options.trustAnchors.emplace_back(ca_file);
        if (resource_dir) options.resourceDirectory = resource_dir;
        Palomir::shared().setBackend(std::move(options));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_set_host_info(const char* identifier, const char* version, const char* build, const char* name,
                                 PLError** error) noexcept {
    if (!identifier) return invalidArgument(error, "identifier");
    if (!version) return invalidArgument(error, "version");
    if (!build) return invalidArgument(error, "build");
    try {
        nlohmann::json info = {{"CFBundleIdentifier", identifier},
                               {"CFBundleShortVersionString", version},
                               {"CFBundleVersion", build}};
        if (name) info["CFBundleDisplayName"] = name;
        Bundle::setMain(Bundle(std::move(info), std::nullopt));
        auto made = AppInfo::make(Bundle::main());
        if (made.hasError()) {
            const PLError translated = translate(PalomirError::failedToCreateAppInfo());
            report(error, makeError(translated.code, translated.description));
            return false;
        }
        auto& client = Palomir::shared();
        auto described = std::move(made).value();
        if (auto previous = client.appInfo()) described.metadata = std::move(previous->metadata);
        client.setAppInfo(std::move(described));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_set_app_credentials(const char* token, const char* secret, PLError** error) noexcept {
    if (!token) return invalidArgument(error, "token");
    if (!secret) return invalidArgument(error, "secret");
    try {
        Palomir::shared().setAppCredentials(AppCredentials{token, secret});
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" void pl_clear_app_credentials(void) noexcept {
    try {
        Palomir::shared().setAppCredentials(std::nullopt);
    } catch (...) {
    }
}

extern "C" void pl_user_token_reply(PLUserTokenReply* reply, const char* token) noexcept {
    if (!reply) return;
    std::unique_ptr<PLUserTokenReply> owned(reply);
    try {
        std::optional<std::string> answer;
        if (token) answer = token;
        owned->answer(std::move(answer));
    } catch (...) {
    }
}

extern "C" void pl_set_user_credentials(PLUserTokenProvider provider, void* context,
                                        void (*release_context)(void*)) noexcept {
    if (!provider) {
        if (release_context) release_context(context);
        try {
            Palomir::shared().setUserCredentials(nullptr);
        } catch (...) {
        }
        return;
    }
    std::shared_ptr<ProviderHolder> holder;
    try {
        holder.reset(new ProviderHolder{provider, context, release_context});
    } catch (...) {
        // Consumed on every path: the host gets its context back.
        if (release_context) release_context(context);
        return;
    }
    try {
        auto credentials = std::make_shared<ClosureUserCredentials>(
            [holder](ClosureUserCredentials::Callback answer) {
                auto* reply = new PLUserTokenReply{std::move(answer), holder};
                holder->provider(reply, holder->context);
            });
        Palomir::shared().setUserCredentials(std::move(credentials));
    } catch (...) {
    }
}

extern "C" bool pl_set_app_info_metadata_json(const char* json, PLError** error) noexcept {
    if (!json) return invalidArgument(error, "json");
    try {
        return setMetadata(json, error);
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_set_app_info_metadata_json_n(const char* json, size_t length, PLError** error) noexcept {
    if (!json && length > 0) return invalidArgument(error, "json");
    try {
        return setMetadata(std::string_view(json ? json : "", length), error);
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_checkin(PLQueue* queue, PLCheckinCompletion completion, void* context, PLError** error) noexcept {
    if (!queue) return invalidArgument(error, "queue");
    try {
        Palomir::Completion<Configuration> forward;
        if (completion) {
            forward = [completion, context](Result<Configuration, Error> result) {
                PLConfiguration* configuration = nullptr;
                PLError failure{PL_ERROR_INTERNAL, "Internal error"};
                try {
                    if (result.hasError())
                        failure = translate(result.error());
                    else
                        configuration = new PLConfiguration(std::move(result).value());
                } catch (...) {
                    // Out of memory: the host still hears back exactly once.
                }
                completion(configuration, configuration ? nullptr : &failure, context);
                pl_configuration_release(configuration);
            };
        }
        Palomir::shared().checkin(queue->queue, std::move(forward));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_feedback(const char* title, const char* message, const char* submitted_by,
                            const PLAttachment* const* attachments, size_t count, PLQueue* queue,
                            PLFeedbackCompletion completion, void* context, PLError** error) noexcept {
    if (!checkFeedbackArguments(title, message, submitted_by, attachments, "attachments", count, queue, error)) return false;
    try {
        std::vector<Attachment> list;
        list.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            if (!attachments[i]) return invalidArgument(error, "attachments[" + std::to_string(i) + "]");
            list.push_back(attachments[i]->value);
        }
        Palomir::shared().feedback(title, message, submitted_by, std::move(list), {}, queue->queue,
                                   feedbackCompletion(completion, context));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_feedback_with_files(const char* title, const char* message, const char* submitted_by,
                                       const char* const* paths, size_t count, PLQueue* queue,
                                       PLFeedbackCompletion completion, void* context, PLError** error) noexcept {
    if (!checkFeedbackArguments(title, message, submitted_by, paths, "paths", count, queue, error)) return false;
    try {
        std::vector<std::filesystem::path> files;
        files.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            if (!paths[i]) return invalidArgument(error, "paths[" + std::to_string(i) + "]");
            files.emplace_back(paths[i]);
        }
        Palomir::shared().feedback(title, message, submitted_by, files, {}, queue->queue,
                                   feedbackCompletion(completion, context));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}
