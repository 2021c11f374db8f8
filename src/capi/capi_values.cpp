// The C facade's values: errors, enumerations, queues, configurations and
// attachments.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "capi/capi_internal.hpp"
#include "palomir/decoding.hpp"

using namespace palomir;

namespace palomir::capi {

PLError* makeError(PLErrorCode code, std::string description) noexcept {
    try {
        return new PLError{code, std::move(description)};
    } catch (...) {
        return nullptr;
    }
}

void report(PLError** out, PLError* made) noexcept {
    if (out)
        *out = made;
    else
        delete made;
}

bool invalidArgument(PLError** out, std::string_view name) noexcept {
    if (!out) return false;
    try {
        report(out, makeError(PL_ERROR_INVALID_ARGUMENT, "Invalid argument: " + std::string(name) + " is NULL"));
    } catch (...) {
        *out = nullptr;
    }
    return false;
}

bool internalFailure(PLError** out) noexcept {
    if (!out) return false;
    std::string what = "Internal error";
    try {
        throw;
    } catch (const std::exception& e) {
        what = std::string("Internal error: ") + e.what();
    } catch (...) {
    }
    report(out, makeError(PL_ERROR_INTERNAL, std::move(what)));
    return false;
}

PLError translate(const PalomirError& error) {
    switch (error.kind()) {
        case PalomirError::Kind::missingCredentials:
            return PLError{PL_ERROR_MISSING_CREDENTIALS, error.localizedDescription()};
        case PalomirError::Kind::failedToCreateAppInfo:
            return PLError{PL_ERROR_FAILED_TO_CREATE_APP_INFO, error.localizedDescription()};
        case PalomirError::Kind::requestFailed:
            break;
    }
    return PLError{PL_ERROR_REQUEST_FAILED, error.localizedDescription()};
}

PLError translate(const Error& error) {
    if (const auto* palomirError = error.palomirError()) return translate(*palomirError);
    return PLError{PL_ERROR_REQUEST_FAILED, error.localizedDescription()};
}

}  // namespace palomir::capi

using namespace palomir::capi;

// ---------------------------------------------------------------------------
// Errors and strings

extern "C" PLErrorCode pl_error_code(const PLError* error) noexcept {
    return error ? error->code : PL_ERROR_INVALID_ARGUMENT;
}

extern "C" const char* pl_error_description(const PLError* error) noexcept {
    return error ? error->description.c_str() : "";
}

extern "C" PLError* pl_error_copy(const PLError* error) noexcept {
    if (!error) return nullptr;
    return makeError(error->code, error->description);
}

extern "C" void pl_error_release(PLError* error) noexcept { delete error; }

extern "C" void pl_string_free(char* string) noexcept { delete[] string; }

// ---------------------------------------------------------------------------
// Enumerations

extern "C" bool pl_dismiss_action_from_int(int value, PLDismissAction* out) noexcept {
    if (!out) return false;
    switch (value) {
        case PL_DISMISS_ACTION_PERFORM_ACTION:
        case PL_DISMISS_ACTION_CLOSE:
            *out = static_cast<PLDismissAction>(value);
            return true;
        default:
            return false;
    }
}

extern "C" bool pl_lockdown_result_from_int(int value, PLLockdownResult* out) noexcept {
    if (!out || value < PL_LOCKDOWN_RESULT_OPEN || value > PL_LOCKDOWN_RESULT_HARD) return false;
    *out = static_cast<PLLockdownResult>(value);
    return true;
}

// ---------------------------------------------------------------------------
// Queues

struct PLMainWork {
    DispatchQueue::Work work;
};

extern "C" PLQueue* pl_queue_main(void) noexcept {
    // Never destroyed: hosts may use it while the process exits.
    static PLQueue* const main = new (std::nothrow) PLQueue{mainQueue()};
    return main;
}

extern "C" PLQueue* pl_queue_create_serial(const char* label) noexcept {
    try {
        return new PLQueue{DispatchQueue::makeSerial(label ? label : "")};
    } catch (...) {
        return nullptr;
    }
}

extern "C" void pl_queue_release(PLQueue* queue) noexcept {
    if (queue == pl_queue_main()) return;
    delete queue;
}

extern "C" size_t pl_main_queue_drain(void) noexcept {
    try {
        return MainQueue::shared()->drain();
    } catch (...) {
        return 0;
    }
}

extern "C" bool pl_main_queue_run_until(bool (*predicate)(void*), void* context, int64_t timeout_ms) noexcept {
    try {
        auto done = [predicate, context] { return predicate && predicate(context); };
        return MainQueue::shared()->runUntil(done, std::chrono::milliseconds(timeout_ms < 0 ? 0 : timeout_ms));
    } catch (...) {
        return false;
    }
}

extern "C" void pl_main_queue_bind(PLMainQueuePoster poster, void* context) noexcept {
    try {
        if (!poster) {
            MainQueue::shared()->bind({});
            return;
        }
        MainQueue::shared()->bind([poster, context](DispatchQueue::Work work) {
            poster(new PLMainWork{std::move(work)}, context);
        });
    } catch (...) {
    }
}

extern "C" void pl_main_work_run(PLMainWork* work) noexcept {
    if (!work) return;
    std::unique_ptr<PLMainWork> owned(work);
    try {
        if (owned->work) owned->work();
    } catch (...) {
    }
}

extern "C" void pl_main_work_discard(PLMainWork* work) noexcept { delete work; }

// ---------------------------------------------------------------------------
// Configuration

namespace {

PLLockdownResult facadeReading(const Lockdown& lockdown) noexcept {
    if (!lockdown.active || !lockdown.type) return PL_LOCKDOWN_RESULT_OPEN;
    return *lockdown.type == LockdownType::hard ? PL_LOCKDOWN_RESULT_HARD : PL_LOCKDOWN_RESULT_SOFT;
}

std::optional<std::string> worstIdentifier(const Configuration& configuration) {
    if (auto worst = configuration.worstService()) return worst->identifier;
    return std::nullopt;
}

const char* text(const std::optional<std::string>& value) { return value ? value->c_str() : nullptr; }
const char* text(const std::optional<Url>& value) { return value ? value->absoluteString().c_str() : nullptr; }

const Note* noteAt(const PLConfiguration* configuration, size_t index) {
    if (!configuration || index >= configuration->value.notes.size()) return nullptr;
    return &configuration->value.notes[index];
}

const Service* serviceAt(const PLConfiguration* configuration, size_t index) {
    if (!configuration || !configuration->value.services || index >= configuration->value.services->size())
        return nullptr;
    return &(*configuration->value.services)[index];
}

PLConfiguration* configurationFromJson(std::string_view json, PLError** error) noexcept {
    try {
        auto decoded = decodeJson<Configuration>(json);
        if (decoded.hasError()) {
            report(error, makeError(PL_ERROR_INVALID_JSON, "Invalid configuration: " + decoded.error().message()));
            return nullptr;
        }
        clear(error);
        return new PLConfiguration(std::move(decoded).value());
    } catch (...) {
        internalFailure(error);
        return nullptr;
    }
}

std::vector<std::string> identifiers(const Configuration& configuration) {
    std::vector<std::string> texts;
    for (const auto& note : configuration.notes) texts.push_back(note.identifier.text());
    if (configuration.lockdown.notes)
        for (const auto& note : *configuration.lockdown.notes) texts.push_back(note.identifier.text());
    return texts;
}

}  // namespace

PLConfiguration::PLConfiguration(Configuration c)
    : value(std::move(c)),
      lockdown(facadeReading(value.lockdown)),
      worstServiceIdentifier(worstIdentifier(value)),
      noteIdentifiers(identifiers(value)) {}

extern "C" PLConfiguration* pl_configuration_from_json(const char* json, PLError** error) noexcept {
    if (!json) {
        invalidArgument(error, "json");
        return nullptr;
    }
    return configurationFromJson(json, error);
}

extern "C" PLConfiguration* pl_configuration_from_json_n(const char* json, size_t length, PLError** error) noexcept {
    if (!json && length > 0) {
        invalidArgument(error, "json");
        return nullptr;
    }
    return configurationFromJson(std::string_view(json ? json : "", length), error);
}

extern "C" PLConfiguration* pl_configuration_retain(const PLConfiguration* configuration) noexcept {
    if (!configuration) return nullptr;
    configuration->references.fetch_add(1, std::memory_order_relaxed);
    return const_cast<PLConfiguration*>(configuration);
}

extern "C" void pl_configuration_release(PLConfiguration* configuration) noexcept {
    if (configuration && configuration->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete configuration;
}

extern "C" char* pl_configuration_copy_json(const PLConfiguration* configuration) noexcept {
    if (!configuration) return nullptr;
    try {
        const std::string json = encode(configuration->value).dump();
        char* copy = new char[json.size() + 1];
        std::memcpy(copy, json.c_str(), json.size() + 1);
        return copy;
    } catch (...) {
        return nullptr;
    }
}

extern "C" const char* pl_configuration_version(const PLConfiguration* configuration) noexcept {
    return configuration ? configuration->value.version.c_str() : nullptr;
}

extern "C" bool pl_configuration_next_checkin(const PLConfiguration* configuration, bool* has_date, int64_t* unix_ms) noexcept {
    if (!configuration || !configuration->value.nextCheckin) return false;
    const auto& at = configuration->value.nextCheckin->automaticallyAt;
    if (has_date) *has_date = at.has_value();
    if (unix_ms) *unix_ms = at ? at->time_since_epoch().count() : 0;
    return true;
}

extern "C" size_t pl_configuration_next_checkin_event_count(const PLConfiguration* configuration) noexcept {
    if (!configuration || !configuration->value.nextCheckin) return 0;
    return configuration->value.nextCheckin->onEvent.size();
}

extern "C" bool pl_configuration_next_checkin_event_at(const PLConfiguration* configuration, size_t index,
                                                       PLCheckinEvent* out) noexcept {
    if (!out || index >= pl_configuration_next_checkin_event_count(configuration)) return false;
    *out = configuration->value.nextCheckin->onEvent[index] == CheckinEvent::launch ? PL_CHECKIN_EVENT_LAUNCH
                                                                                    : PL_CHECKIN_EVENT_FOREGROUND;
    return true;
}

extern "C" size_t pl_configuration_note_count(const PLConfiguration* configuration) noexcept {
    return configuration ? configuration->value.notes.size() : 0;
}

extern "C" const char* pl_configuration_note_title(const PLConfiguration* configuration, size_t index) noexcept {
    const Note* note = noteAt(configuration, index);
    return note ? note->title.c_str() : nullptr;
}

extern "C" const char* pl_configuration_note_subtitle(const PLConfiguration* configuration, size_t index) noexcept {
    const Note* note = noteAt(configuration, index);
    return note ? text(note->subtitle) : nullptr;
}

extern "C" const char* pl_configuration_note_content(const PLConfiguration* configuration, size_t index) noexcept {
    const Note* note = noteAt(configuration, index);
    return note ? note->content.c_str() : nullptr;
}

extern "C" const char* pl_configuration_note_image(const PLConfiguration* configuration, size_t index) noexcept {
    const Note* note = noteAt(configuration, index);
    return note ? text(note->image) : nullptr;
}

extern "C" PLLockdownResult pl_configuration_lockdown(const PLConfiguration* configuration) noexcept {
    return configuration ? configuration->lockdown : PL_LOCKDOWN_RESULT_OPEN;
}

extern "C" bool pl_configuration_lockdown_active(const PLConfiguration* configuration) noexcept {
    return configuration && configuration->value.lockdown.active;
}

extern "C" const char* pl_configuration_lockdown_latest_version(const PLConfiguration* configuration) noexcept {
    return configuration ? configuration->value.lockdown.latestVersion.c_str() : nullptr;
}

extern "C" const char* pl_configuration_lockdown_title(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.title) : nullptr;
}

extern "C" const char* pl_configuration_lockdown_subtitle(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.subtitle) : nullptr;
}

extern "C" const char* pl_configuration_lockdown_action_url(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.actionURL) : nullptr;
}

extern "C" const char* pl_configuration_lockdown_action_title(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.actionTitle) : nullptr;
}

extern "C" const char* pl_configuration_lockdown_dismiss_title(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.dismissTitle) : nullptr;
}

extern "C" size_t pl_configuration_service_count(const PLConfiguration* configuration) noexcept {
    if (!configuration || !configuration->value.services) return 0;
    return configuration->value.services->size();
}

extern "C" const char* pl_configuration_service_name(const PLConfiguration* configuration, size_t index) noexcept {
    const Service* service = serviceAt(configuration, index);
    return service ? service->name.c_str() : nullptr;
}

extern "C" const char* pl_configuration_service_identifier(const PLConfiguration* configuration, size_t index) noexcept {
    const Service* service = serviceAt(configuration, index);
    return service ? service->identifier.c_str() : nullptr;
}

extern "C" bool pl_configuration_service_state(const PLConfiguration* configuration, size_t index,
                                               PLServiceState* out) noexcept {
    const Service* service = serviceAt(configuration, index);
    if (!service || !out) return false;
    switch (service->state) {
        case ServiceState::ok: *out = PL_SERVICE_STATE_OK; break;
        case ServiceState::warning: *out = PL_SERVICE_STATE_WARNING; break;
        case ServiceState::error: *out = PL_SERVICE_STATE_ERROR; break;
        case ServiceState::disabled: *out = PL_SERVICE_STATE_DISABLED; break;
        case ServiceState::unknown: *out = PL_SERVICE_STATE_UNKNOWN; break;
    }
    return true;
}

extern "C" const char* pl_configuration_worst_service_identifier(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->worstServiceIdentifier) : nullptr;
}

// ---------------------------------------------------------------------------
// Attachments

extern "C" PLAttachment* pl_attachment_create(const char* filename, const char* content_type, const void* bytes,
                                              size_t length) noexcept {
    if (!filename || (!bytes && length > 0)) return nullptr;
    try {
        const auto* begin = static_cast<const std::uint8_t*>(bytes);
        std::vector<std::uint8_t> data(begin, begin + length);
        std::optional<std::string> type;
        if (content_type) type = content_type;
        return new PLAttachment{Attachment::fromData(filename, std::move(type), std::move(data))};
    } catch (...) {
        return nullptr;
    }
}

extern "C" PLAttachment* pl_attachment_create_from_file(const char* path, PLError** error) noexcept {
    if (!path) {
        invalidArgument(error, "path");
        return nullptr;
    }
    try {
        auto attachment = Attachment::fromFile(path);
        if (attachment.hasError()) {
            report(error, makeError(PL_ERROR_FILE, "Cannot read file \"" + std::string(path) +
                                                       "\": " + attachment.error().message()));
            return nullptr;
        }
        clear(error);
        return new PLAttachment{std::move(attachment).value()};
    } catch (...) {
        internalFailure(error);
        return nullptr;
    }
}

extern "C" void pl_attachment_release(PLAttachment* attachment) noexcept { delete attachment; }

extern "C" const char* pl_attachment_filename(const PLAttachment* attachment) noexcept {
    return attachment ? attachment->value.filename.c_str() : nullptr;
}

extern "C" const char* pl_attachment_content_type(const PLAttachment* attachment) noexcept {
    return attachment ? attachment->value.contentType.c_str() : nullptr;
}

extern "C" const void* pl_attachment_bytes(const PLAttachment* attachment, size_t* length) noexcept {
    if (length) *length = attachment ? attachment->value.data.size() : 0;
    return attachment ? attachment->value.data.data() : nullptr;
}
