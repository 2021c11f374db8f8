#include "model/reading.hpp"
#include "palomir/model.hpp"

namespace palomir::model {
namespace {

// Every enumeration read from JSON must name one of its cases exactly.
template <class Enum, class FromString>
Enum readEnum(JsonPath& path, const json& value, const char* typeName, FromString fromString) {
    const std::string_view name = expectString(path, value);
    if (auto parsed = fromString(name)) return *parsed;
    path.fail("unknown value \"" + std::string(name) + "\" for " + typeName);
}

}  // namespace

Date read(JsonPath& path, const json& value, Tag<Date>) {
    if (auto date = plRFC3339.parse(expectString(path, value))) return *date;
    path.fail("not a valid date");
}

Url read(JsonPath& path, const json& value, Tag<Url>) {
    if (auto url = Url::parseReference(expectString(path, value))) return std::move(*url);
    path.fail("not a valid URL");
}

// Lockdown links are opened or loaded as they stand, with no base address to
// resolve a relative one against.
static std::optional<Url> optionalAbsoluteUrl(JsonPath& path, const json& object, std::string_view key) {
    auto url = optional<Url>(path, object, key);
    if (url && !url->isAbsolute()) {
        PathScope scope(path, key);
        path.fail("not an absolute URL");
    }
    return url;
}

Uuid read(JsonPath& path, const json& value, Tag<Uuid>) {
    if (auto uuid = Uuid::parse(expectString(path, value))) return *uuid;
    path.fail("not a valid UUID");
}

CheckinEvent read(JsonPath& path, const json& value, Tag<CheckinEvent>) {
    return readEnum<CheckinEvent>(path, value, "CheckinEvent", checkinEventFromString);
}

LockdownType read(JsonPath& path, const json& value, Tag<LockdownType>) {
    return readEnum<LockdownType>(path, value, "LockdownType", lockdownTypeFromString);
}

ServiceState read(JsonPath& path, const json& value, Tag<ServiceState>) {
    // Tolerant on purpose: a state the backend adds later shows as the worst.
    return serviceStateFromString(expectString(path, value)).value_or(ServiceState::unknown);
}

Color read(JsonPath& path, const json& value, Tag<Color>) {
    return Color::fromHex(expectString(path, value));
}

ColorGradient::Point read(JsonPath& path, const json& value, Tag<ColorGradient::Point>) {
    if (!value.is_array() || value.size() != 2) path.fail("expected an array of two numbers");
    const json& x = value[0];
    const json& y = value[1];
    if (!x.is_number() || !y.is_number()) path.fail("expected an array of two numbers");
    return ColorGradient::Point{x.get<double>(), y.get<double>()};
}

NextCheckin read(JsonPath& path, const json& value, Tag<NextCheckin>) {
    const json& o = expectObject(path, value);
    NextCheckin out;
    out.automaticallyAt = optional<Date>(path, o, "automatically_at");
    out.onEvent = required<std::vector<CheckinEvent>>(path, o, "on_event");
    return out;
}

ColorGradient read(JsonPath& path, const json& value, Tag<ColorGradient>) {
    const json& o = expectObject(path, value);
    ColorGradient out;
    out.colors = required<std::vector<Color>>(path, o, "colors");
    out.startPoint = required<ColorGradient::Point>(path, o, "startPoint");
    out.endPoint = required<ColorGradient::Point>(path, o, "endPoint");
    return out;
}

Theme read(JsonPath& path, const json& value, Tag<Theme>) {
    const json& o = expectObject(path, value);
    Theme out;
    out.textColor = required<Color>(path, o, "text_color");
    out.backgroundColor = required<Color>(path, o, "background_color");
    out.backgroundGradient = optional<ColorGradient>(path, o, "background_gradient");
    out.innerBackgroundColor = optional<Color>(path, o, "inner_background_color");
    out.actionTextColor = optional<Color>(path, o, "action_text_color");
    out.actionButtonColor = optional<Color>(path, o, "action_button_color");
    return out;
}

Note read(JsonPath& path, const json& value, Tag<Note>) {
    const json& o = expectObject(path, value);
    Note out;
    out.identifier = required<Uuid>(path, o, "identifier");
    out.title = required<std::string>(path, o, "title");
    out.subtitle = optional<std::string>(path, o, "subtitle");
    out.content = required<std::string>(path, o, "content");
    out.image = optional<Url>(path, o, "image");
    return out;
}

Lockdown read(JsonPath& path, const json& value, Tag<Lockdown>) {
    const json& o = expectObject(path, value);
    Lockdown out;
    out.active = required<bool>(path, o, "active");
    out.type = optional<LockdownType>(path, o, "type");
    out.latestVersion = required<std::string>(path, o, "latest_version");
    out.title = optional<std::string>(path, o, "title");
    out.titleImage = optionalAbsoluteUrl(path, o, "title_image");
    out.subtitle = optional<std::string>(path, o, "subtitle");
    out.actionURL = optionalAbsoluteUrl(path, o, "action_url");
    out.actionTitle = optional<std::string>(path, o, "action_title");
    out.dismissTitle = optional<std::string>(path, o, "dismiss_title");
    out.notes = optional<std::vector<Note>>(path, o, "notes");
    return out;
}

ServiceMessage read(JsonPath& path, const json& value, Tag<ServiceMessage>) {
    const json& o = expectObject(path, value);
    ServiceMessage out;
    out.title = optional<std::string>(path, o, "title");
    out.description = optional<std::string>(path, o, "description");
    out.dismiss = optional<std::string>(path, o, "dismiss");
    out.url = optional<Url>(path, o, "url");
    out.urlTitle = optional<std::string>(path, o, "url_title");
    out.backgroundColorLight = optional<Color>(path, o, "background_color_light");
    out.backgroundColorDark = optional<Color>(path, o, "background_color_dark");
    return out;
}

Service read(JsonPath& path, const json& value, Tag<Service>) {
    const json& o = expectObject(path, value);
    Service out;
    out.name = required<std::string>(path, o, "name");
    out.identifier = required<std::string>(path, o, "identifier");
    out.url = optional<Url>(path, o, "url");
    out.available = required<bool>(path, o, "is_available");
    out.state = required<ServiceState>(path, o, "state");
    out.triggersMessage = required<bool>(path, o, "triggers_message");
    out.message = optional<ServiceMessage>(path, o, "message");
    out.image = optional<Url>(path, o, "image");
    return out;
}

ServicesResponse read(JsonPath& path, const json& value, Tag<ServicesResponse>) {
    const json& o = expectObject(path, value);
    return ServicesResponse{required<std::vector<Service>>(path, o, "services")};
}

ServiceResponse read(JsonPath& path, const json& value, Tag<ServiceResponse>) {
    const json& o = expectObject(path, value);
    return ServiceResponse{required<Service>(path, o, "service")};
}

Configuration read(JsonPath& path, const json& value, Tag<Configuration>) {
    const json& o = expectObject(path, value);
    Configuration out;
    out.version = required<std::string>(path, o, "version");
    out.nextCheckin = optional<NextCheckin>(path, o, "next_checkin");
    out.theme = required<Theme>(path, o, "theme");
    out.notes = required<std::vector<Note>>(path, o, "notes");
    out.lockdown = required<Lockdown>(path, o, "lockdown");
    out.services = optional<std::vector<Service>>(path, o, "services");
    return out;
}

DirectUpload read(JsonPath& path, const json& value, Tag<DirectUpload>) {
    const json& o = expectObject(path, value);
    DirectUpload out;
    out.filename = required<std::string>(path, o, "filename");
    out.byteSize = required<std::int64_t>(path, o, "byte_size");
    out.checksum = required<std::string>(path, o, "checksum");
    out.contentType = required<std::string>(path, o, "content_type");
    return out;
}

DirectUploadResponse::DirectUpload read(JsonPath& path, const json& value, Tag<DirectUploadResponse::DirectUpload>) {
    const json& o = expectObject(path, value);
    DirectUploadResponse::DirectUpload out;
    out.url = required<std::string>(path, o, "url");
    out.headers = required<std::map<std::string, std::string>>(path, o, "headers");
    return out;
}

DirectUploadResponse read(JsonPath& path, const json& value, Tag<DirectUploadResponse>) {
    const json& o = expectObject(path, value);
    DirectUploadResponse out;
    out.identifier = required<std::int64_t>(path, o, "id");
    out.key = required<std::string>(path, o, "key");
    out.filename = required<std::string>(path, o, "filename");
    out.signedID = required<std::string>(path, o, "signed_id");
    out.directUpload = required<DirectUploadResponse::DirectUpload>(path, o, "direct_upload");
    return out;
}

Feedback read(JsonPath& path, const json& value, Tag<Feedback>) {
    const json& o = expectObject(path, value);
    Feedback out;
    out.title = required<std::string>(path, o, "title");
    out.message = required<std::string>(path, o, "message");
    out.submittedBy = required<std::string>(path, o, "submitted_by");
    out.files = optional<std::vector<std::string>>(path, o, "files");
    return out;
}

}  // namespace palomir::model

namespace palomir {

#define PALOMIR_DEFINE_DECODING(T)                                                         \
    template <>                                                                            \
    Result<T, DecodingError> decode<T>(const nlohmann::json& json) {                       \
        return model::decodeRoot<T>(json);                                                 \
    }                                                                                      \
    template <>                                                                            \
    Result<T, DecodingError> decodeJson<T>(std::string_view text) {                        \
        return model::decodeText<T>(text);                                                 \
    }

PALOMIR_DEFINE_DECODING(Date)
PALOMIR_DEFINE_DECODING(CheckinEvent)
PALOMIR_DEFINE_DECODING(NextCheckin)
PALOMIR_DEFINE_DECODING(Color)
PALOMIR_DEFINE_DECODING(ColorGradient)
PALOMIR_DEFINE_DECODING(Theme)
PALOMIR_DEFINE_DECODING(Note)
PALOMIR_DEFINE_DECODING(LockdownType)
PALOMIR_DEFINE_DECODING(Lockdown)
PALOMIR_DEFINE_DECODING(ServiceState)
PALOMIR_DEFINE_DECODING(ServiceMessage)
PALOMIR_DEFINE_DECODING(Service)
PALOMIR_DEFINE_DECODING(ServicesResponse)
PALOMIR_DEFINE_DECODING(ServiceResponse)
PALOMIR_DEFINE_DECODING(Configuration)
PALOMIR_DEFINE_DECODING(DirectUpload)
PALOMIR_DEFINE_DECODING(DirectUploadResponse::DirectUpload)
PALOMIR_DEFINE_DECODING(DirectUploadResponse)
PALOMIR_DEFINE_DECODING(Feedback)

}  // namespace palomir
