#include "palomir/model.hpp"

namespace palomir {
namespace {

using nlohmann::json;

template <class T>
void putOptional(json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = encode(*value);
}

void putOptional(json& object, const char* key, const std::optional<std::string>& value) {
    if (value) object[key] = *value;
}

void putOptional(json& object, const char* key, const std::optional<Url>& value) {
    if (value) object[key] = value->absoluteString();
}

template <class T>
json encodeList(const std::vector<T>& values) {
    json array = json::array();
    for (const T& value : values) array.push_back(encode(value));
    return array;
}

json encodePoint(const ColorGradient::Point& point) { return json::array({point.x, point.y}); }

}  // namespace

json encode(Date date) { return plRFC3339.format(date); }

json encode(CheckinEvent event) { return std::string(toString(event)); }

json encode(const NextCheckin& value) {
    json o = json::object();
    putOptional(o, "automatically_at", value.automaticallyAt);
    o["on_event"] = encodeList(value.onEvent);
    return o;
}

json encode(const Color& value) {
    return json{{"red", value.red}, {"green", value.green}, {"blue", value.blue}, {"alpha", value.alpha}};
}

json encode(const ColorGradient& value) {
    return json{{"colors", encodeList(value.colors)},
                {"startPoint", encodePoint(value.startPoint)},
                {"endPoint", encodePoint(value.endPoint)}};
}

json encode(const Theme& value) {
    json o = json::object();
    o["text_color"] = encode(value.textColor);
    o["background_color"] = encode(value.backgroundColor);
    putOptional(o, "background_gradient", value.backgroundGradient);
    putOptional(o, "inner_background_color", value.innerBackgroundColor);
    putOptional(o, "action_text_color", value.actionTextColor);
    putOptional(o, "action_button_color", value.actionButtonColor);
    return o;
}

json encode(const Note& value) {
    json o = json::object();
    o["identifier"] = value.identifier.text();
    o["title"] = value.title;
    putOptional(o, "subtitle", value.subtitle);
    o["content"] = value.content;
    putOptional(o, "image", value.image);
    return o;
}

json encode(LockdownType type) { return std::string(toString(type)); }

json encode(const Lockdown& value) {
    json o = json::object();
    o["active"] = value.active;
    putOptional(o, "type", value.type);
    o["latest_version"] = value.latestVersion;
    putOptional(o, "title", value.title);
    putOptional(o, "title_image", value.titleImage);
    putOptional(o, "subtitle", value.subtitle);
    putOptional(o, "action_url", value.actionURL);
    putOptional(o, "action_title", value.actionTitle);
    putOptional(o, "dismiss_title", value.dismissTitle);
    if (value.notes) o["notes"] = encodeList(*value.notes);
    return o;
}

json encode(ServiceState state) { return std::string(toString(state)); }

json encode(const ServiceMessage& value) {
    json o = json::object();
    putOptional(o, "title", value.title);
    putOptional(o, "description", value.description);
    putOptional(o, "dismiss", value.dismiss);
    putOptional(o, "url", value.url);
    putOptional(o, "url_title", value.urlTitle);
    putOptional(o, "background_color_light", value.backgroundColorLight);
    putOptional(o, "background_color_dark", value.backgroundColorDark);
    return o;
}

json encode(const Service& value) {
    json o = json::object();
    o["name"] = value.name;
    o["identifier"] = value.identifier;
    putOptional(o, "url", value.url);
    o["is_available"] = value.available;
    o["state"] = encode(value.state);
    o["triggers_message"] = value.triggersMessage;
    putOptional(o, "message", value.message);
    putOptional(o, "image", value.image);
    return o;
}

json encode(const ServicesResponse& value) { return json{{"services", encodeList(value.services)}}; }

json encode(const ServiceResponse& value) { return json{{"service", encode(value.service)}}; }

json encode(const Configuration& value) {
    json o = json::object();
    o["version"] = value.version;
    putOptional(o, "next_checkin", value.nextCheckin);
    o["theme"] = encode(value.theme);
    o["notes"] = encodeList(value.notes);
    o["lockdown"] = encode(value.lockdown);
    if (value.services) o["services"] = encodeList(*value.services);
    return o;
}

json encode(const DirectUpload& value) {
    return json{{"filename", value.filename},
                {"byte_size", value.byteSize},
                {"checksum", value.checksum},
                {"content_type", value.contentType}};
}

json encode(const DirectUploadResponse::DirectUpload& value) {
    json headers = json::object();
    for (const auto& [name, headerValue] : value.headers) headers[name] = headerValue;
    return json{{"url", value.url}, {"headers", headers}};
}

json encode(const DirectUploadResponse& value) {
    return json{{"id", value.identifier},
                {"key", value.key},
                {"filename", value.filename},
                {"signed_id", value.signedID},
                {"direct_upload", encode(value.directUpload)}};
}

json encode(const Feedback& value) {
    json o = json::object();
    o["title"] = value.title;
    o["message"] = value.message;
    o["submitted_by"] = value.submittedBy;
    if (value.files) o["files"] = *value.files;
    return o;
}

}  // namespace palomir
