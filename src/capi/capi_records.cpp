// The C facade's records beyond the check-in's core: theme colours, note
// identifiers, the lockdown's type and notes, service lists and their
// fetches, and the log files.

#include <type_traits>

#include "capi/capi_internal.hpp"
#include "palomir/client.hpp"

using namespace palomir;
using namespace palomir::capi;

namespace {

const char* text(const std::optional<std::string>& value) { return value ? value->c_str() : nullptr; }
const char* text(const std::optional<Url>& value) { return value ? value->absoluteString().c_str() : nullptr; }

bool put(const Color& color, PLColor* out) {
    if (!out) return false;
    *out = PLColor{color.red, color.green, color.blue, color.alpha};
    return true;
}

bool put(const std::optional<Color>& color, PLColor* out) { return color && put(*color, out); }

const Service* serviceAt(const PLServices* services, size_t index) {
    if (!services || index >= services->value.size()) return nullptr;
    return &services->value[index];
}

PLServices* makeServices(std::vector<Service> services, MaxAge maxAge) {
    return new PLServices{{1}, std::move(services), maxAge};
}

// Hands a fetch's outcome to the host as a borrowed list or error, exactly once.
template <class Value>
Palomir::Completion<Value> servicesCompletion(PLServicesCompletion completion, void* context) {
    if (!completion) return {};
    return [completion, context](Result<Value, Error> result) {
        PLServices* services = nullptr;
        PLError failure{PL_ERROR_INTERNAL, "Internal error"};
        try {
            if (result.hasError()) {
                failure = translate(result.error());
            } else {
                auto [fetched, maxAge] = std::move(result).value();
                if constexpr (std::is_same_v<Value, Palomir::ServiceResult>)
                    services = makeServices({std::move(fetched)}, maxAge);
                else
                    services = makeServices(std::move(fetched), maxAge);
            }
        } catch (...) {
            // Out of memory: the host still hears back exactly once.
        }
        completion(services, services ? nullptr : &failure, context);
        pl_services_release(services);
    };
}

}  // namespace

struct PLStringList {
    std::vector<std::string> value;
};

// ---------------------------------------------------------------------------
// Theme, notes and lockdown

extern "C" bool pl_configuration_theme_color(const PLConfiguration* configuration, PLThemeColor which,
                                             PLColor* out) noexcept {
    if (!configuration) return false;
    const Theme& theme = configuration->value.theme;
    switch (which) {
        case PL_THEME_COLOR_TEXT: return put(theme.textColor, out);
        case PL_THEME_COLOR_BACKGROUND: return put(theme.backgroundColor, out);
        case PL_THEME_COLOR_INNER_BACKGROUND: return put(theme.innerBackgroundColor, out);
        case PL_THEME_COLOR_ACTION_TEXT: return put(theme.actionTextColor, out);
        case PL_THEME_COLOR_ACTION_BUTTON: return put(theme.actionButtonColor, out);
    }
    return false;
}

extern "C" size_t pl_configuration_theme_gradient_count(const PLConfiguration* configuration) noexcept {
    if (!configuration || !configuration->value.theme.backgroundGradient) return 0;
    return configuration->value.theme.backgroundGradient->colors.size();
}

extern "C" bool pl_configuration_theme_gradient_color_at(const PLConfiguration* configuration, size_t index,
                                                         PLColor* out) noexcept {
    if (index >= pl_configuration_theme_gradient_count(configuration)) return false;
    return put(configuration->value.theme.backgroundGradient->colors[index], out);
}

extern "C" bool pl_configuration_theme_gradient_points(const PLConfiguration* configuration, double* start_x,
                                                       double* start_y, double* end_x, double* end_y) noexcept {
    if (!configuration || !configuration->value.theme.backgroundGradient) return false;
    const auto& gradient = *configuration->value.theme.backgroundGradient;
    if (start_x) *start_x = gradient.startPoint.x;
    if (start_y) *start_y = gradient.startPoint.y;
    if (end_x) *end_x = gradient.endPoint.x;
    if (end_y) *end_y = gradient.endPoint.y;
    return true;
}

extern "C" const char* pl_configuration_note_identifier(const PLConfiguration* configuration, size_t index) noexcept {
    if (!configuration || index >= configuration->value.notes.size()) return nullptr;
    return configuration->noteIdentifiers[index].c_str();
}

extern "C" bool pl_configuration_lockdown_type(const PLConfiguration* configuration, PLLockdownType* out) noexcept {
    if (!configuration || !out || !configuration->value.lockdown.type) return false;
    *out = *configuration->value.lockdown.type == LockdownType::hard ? PL_LOCKDOWN_TYPE_HARD : PL_LOCKDOWN_TYPE_SOFT;
    return true;
}

extern "C" const char* pl_configuration_lockdown_title_image(const PLConfiguration* configuration) noexcept {
    return configuration ? text(configuration->value.lockdown.titleImage) : nullptr;
}

extern "C" size_t pl_configuration_lockdown_note_count(const PLConfiguration* configuration) noexcept {
    if (!configuration || !configuration->value.lockdown.notes) return 0;
    return configuration->value.lockdown.notes->size();
}

extern "C" const char* pl_configuration_lockdown_note(const PLConfiguration* configuration, size_t index,
                                                      PLNoteField field) noexcept {
    if (index >= pl_configuration_lockdown_note_count(configuration)) return nullptr;
    const Note& note = (*configuration->value.lockdown.notes)[index];
    switch (field) {
        case PL_NOTE_IDENTIFIER: return configuration->noteIdentifiers[configuration->value.notes.size() + index].c_str();
        case PL_NOTE_TITLE: return note.title.c_str();
        case PL_NOTE_SUBTITLE: return text(note.subtitle);
        case PL_NOTE_CONTENT: return note.content.c_str();
        case PL_NOTE_IMAGE: return text(note.image);
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// Services

extern "C" PLServices* pl_services_retain(const PLServices* services) noexcept {
    if (!services) return nullptr;
    services->references.fetch_add(1, std::memory_order_relaxed);
    return const_cast<PLServices*>(services);
}

extern "C" void pl_services_release(PLServices* services) noexcept {
    if (services && services->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete services;
}

extern "C" PLServices* pl_configuration_copy_services(const PLConfiguration* configuration) noexcept {
    if (!configuration) return nullptr;
    try {
        return makeServices(configuration->value.services.value_or(std::vector<Service>{}), std::nullopt);
    } catch (...) {
        return nullptr;
    }
}

extern "C" bool pl_services_max_age(const PLServices* services, double* seconds) noexcept {
    if (!services || !services->maxAge) return false;
    if (seconds) *seconds = *services->maxAge;
    return true;
}

extern "C" size_t pl_services_count(const PLServices* services) noexcept {
    return services ? services->value.size() : 0;
}

extern "C" const char* pl_services_text(const PLServices* services, size_t index, PLServiceField field) noexcept {
    const Service* service = serviceAt(services, index);
    if (!service) return nullptr;
    const auto& message = service->message;
    switch (field) {
        case PL_SERVICE_NAME: return service->name.c_str();
        case PL_SERVICE_IDENTIFIER: return service->identifier.c_str();
        case PL_SERVICE_URL: return text(service->url);
        case PL_SERVICE_IMAGE: return text(service->image);
        case PL_SERVICE_MESSAGE_TITLE: return message ? text(message->title) : nullptr;
        case PL_SERVICE_MESSAGE_DESCRIPTION: return message ? text(message->description) : nullptr;
        case PL_SERVICE_MESSAGE_DISMISS: return message ? text(message->dismiss) : nullptr;
        case PL_SERVICE_MESSAGE_URL: return message ? text(message->url) : nullptr;
        case PL_SERVICE_MESSAGE_URL_TITLE: return message ? text(message->urlTitle) : nullptr;
    }
    return nullptr;
}

extern "C" bool pl_services_state(const PLServices* services, size_t index, PLServiceState* out) noexcept {
    const Service* service = serviceAt(services, index);
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

extern "C" bool pl_services_available(const PLServices* services, size_t index) noexcept {
    const Service* service = serviceAt(services, index);
    return service && service->available;
}

extern "C" bool pl_services_triggers_message(const PLServices* services, size_t index) noexcept {
    const Service* service = serviceAt(services, index);
    return service && service->triggersMessage;
}

extern "C" bool pl_services_has_message(const PLServices* services, size_t index) noexcept {
    const Service* service = serviceAt(services, index);
    return service && service->message;
}

extern "C" bool pl_services(bool system, PLQueue* queue, PLServicesCompletion completion, void* context,
                            PLError** error) noexcept {
    if (!queue) return invalidArgument(error, "queue");
    try {
        auto forward = servicesCompletion<Palomir::ServicesResult>(completion, context);
        if (system)
            Palomir::shared().systemServices(queue->queue, std::move(forward));
        else
            Palomir::shared().services(queue->queue, std::move(forward));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

extern "C" bool pl_service(bool system, const char* identifier, PLQueue* queue, PLServicesCompletion completion,
                           void* context, PLError** error) noexcept {
    if (!identifier) return invalidArgument(error, "identifier");
    if (!queue) return invalidArgument(error, "queue");
    try {
        auto forward = servicesCompletion<Palomir::ServiceResult>(completion, context);
        if (system)
            Palomir::shared().systemService(identifier, queue->queue, std::move(forward));
        else
            Palomir::shared().service(identifier, queue->queue, std::move(forward));
        clear(error);
        return true;
    } catch (...) {
        return internalFailure(error);
    }
}

// ---------------------------------------------------------------------------
// Log files

extern "C" PLStringList* pl_copy_log_files(void) noexcept {
    try {
        auto list = std::make_unique<PLStringList>();
        for (const auto& path : Palomir::shared().logFiles()) list->value.push_back(path.string());
        return list.release();
    } catch (...) {
        return nullptr;
    }
}

extern "C" size_t pl_string_list_count(const PLStringList* list) noexcept { return list ? list->value.size() : 0; }

extern "C" const char* pl_string_list_at(const PLStringList* list, size_t index) noexcept {
    if (!list || index >= list->value.size()) return nullptr;
    return list->value[index].c_str();
}

extern "C" void pl_string_list_release(PLStringList* list) noexcept { delete list; }
