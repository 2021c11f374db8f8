#include "palomir/app_info.hpp"

#include <cstdio>
#include <mutex>

#include "api/app_info_internal.hpp"

namespace palomir {
namespace {

constexpr std::string_view kMissing = "__";

std::mutex gAdditionalFieldsMutex;
std::vector<std::string> gAdditionalUserAgentFields;

// An information entry as text, whatever its JSON kind: hosts write build
// numbers as numbers as often as as strings.
std::string renderedEntry(const Bundle& bundle, const char* key) {
    const auto& info = bundle.info();
    if (!info.is_object()) return std::string(kMissing);
    const auto it = info.find(key);
    if (it == info.end() || it->is_null()) return std::string(kMissing);
    if (it->is_string()) return it->get<std::string>();
    return it->dump();
}

std::string identifierOrMissing(const Bundle& bundle) {
    return bundle.identifier().value_or(std::string(kMissing));
}

std::string nonEmptyOrMissing(const std::optional<std::string>& text) {
    return text && !text->empty() ? *text : std::string(kMissing);
}

}  // namespace

std::string_view toString(AppInfoError error) {
    switch (error) {
        case AppInfoError::missingBundleIdentifier: return "missingBundleIdentifier";
        case AppInfoError::missingBundleVersion: return "missingBundleVersion";
        case AppInfoError::missingFrameworkBundle: return "missingFrameworkBundle";
        case AppInfoError::missingSDKBundleVersion: return "missingSDKBundleVersion";
    }
    return "unknown";
}

namespace detail {

Result<AppInfo, AppInfoError> makeAppInfo(const Bundle& bundle, const Bundle& sdkBundle,
                                          std::vector<std::string> preferredLanguages) {
    AppInfo info;
    info.name = bundle.string("CFBundleDisplayName");
    auto identifier = bundle.identifier();
    if (!identifier) return Err{AppInfoError::missingBundleIdentifier};
    info.bundleIdentifier = std::move(*identifier);
    auto build = bundle.string("CFBundleVersion");
    auto version = bundle.string("CFBundleShortVersionString");
    if (!build || !version) return Err{AppInfoError::missingBundleVersion};
    info.build = std::move(*build);
    info.version = std::move(*version);
    auto sdkVersion = sdkBundle.string("CFBundleVersion");
    if (!sdkVersion) return Err{AppInfoError::missingSDKBundleVersion};
    info.sdkVersion = std::move(*sdkVersion);
    info.preferredLanguages = std::move(preferredLanguages);
    return Ok{std::move(info)};
}

std::string composeUserAgent(const Bundle& mainBundle, const Bundle& sdkBundle, const DeviceInfo& device,
                             const LocaleInfo& locale, const std::vector<std::string>& additionalFields) {
    std::string agent = identifierOrMissing(mainBundle);
    agent += '/';
    agent += renderedEntry(mainBundle, "CFBundleVersion");
    agent += '/';
    agent += renderedEntry(mainBundle, "CFBundleShortVersionString");
    if (mainBundle.info().is_object() && mainBundle.info().contains("EQBuildSubversion")) {
        agent += '/';
        agent += renderedEntry(mainBundle, "EQBuildSubversion");
    }

    // No phone, tablet or TV idiom exists on the platforms this runs on.
    std::vector<std::string> fields{nonEmptyOrMissing(device.machine), "Unknown", nonEmptyOrMissing(device.osName),
                                    nonEmptyOrMissing(device.osRelease), nonEmptyOrMissing(locale.languageCode),
                                    nonEmptyOrMissing(locale.regionCode)};
    fields.insert(fields.end(), additionalFields.begin(), additionalFields.end());

    agent += " (";
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) agent += "; ";
        agent += fields[i];
    }
    agent += ") ";
    agent += identifierOrMissing(sdkBundle);
    agent += '/';
    agent += renderedEntry(sdkBundle, "CFBundleVersion");
    agent += '/';
    agent += renderedEntry(sdkBundle, "CFBundleShortVersionString");
    return agent;
}

std::string quotedText(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\0': out += "\\0"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    char escape[12];
                    std::snprintf(escape, sizeof escape, "\\u{%x}", static_cast<unsigned>(static_cast<unsigned char>(c)));
                    out += escape;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

std::string describeOptional(const std::optional<std::string>& text) {
    return text ? "Optional(" + quotedText(*text) + ")" : "nil";
}

std::string describeList(const std::vector<std::string>& texts) {
    std::string out = "[";
    for (size_t i = 0; i < texts.size(); ++i) {
        if (i > 0) out += ", ";
        out += quotedText(texts[i]);
    }
    out += ']';
    return out;
}

}  // namespace detail

Result<AppInfo, AppInfoError> AppInfo::make(const Bundle& bundle) {
    return detail::makeAppInfo(bundle, Bundle::palomir(), palomir::preferredLanguages());
}

std::string AppInfo::description() const {
    return "\tAppInfo\n\t\tname: " + detail::describeOptional(name) + "\n\t\tbundleIdentifier: " + bundleIdentifier +
           "\n\t\tversion: " + version + "\n\t\tbuild: " + build + "\n\t\tsdkVersion: " + sdkVersion +
           "\n\t\tpreferredLanguages: " + detail::describeList(preferredLanguages);
}

const std::string& AppInfo::userAgent() {
    static std::once_flag once;
    static std::string agent;
    std::call_once(once, [] {
        agent = detail::composeUserAgent(Bundle::main(), Bundle::palomir(), deviceInfo(), currentLocale(),
                                         additionalUserAgentFields());
    });
    return agent;
}

void AppInfo::setAdditionalUserAgentFields(std::vector<std::string> fields) {
    std::lock_guard lock(gAdditionalFieldsMutex);
    gAdditionalUserAgentFields = std::move(fields);
}

std::vector<std::string> AppInfo::additionalUserAgentFields() {
    std::lock_guard lock(gAdditionalFieldsMutex);
    return gAdditionalUserAgentFields;
}

Result<nlohmann::ordered_json, EncodingError> encode(const AppInfo& info) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    if (info.name) json["name"] = *info.name;
    json["bundle_identifier"] = info.bundleIdentifier;
    json["version"] = info.version;
    json["build"] = info.build;
    json["sdk_version"] = info.sdkVersion;
    json["preferred_languages"] = info.preferredLanguages;
    if (info.metadata) {
        nlohmann::ordered_json metadata = nlohmann::ordered_json::object();
        for (const auto& [key, value] : *info.metadata) {
            auto encoded = palomir::encode(value);
            if (encoded.hasError()) {
                EncodingError error = encoded.error();
                std::string path = "metadata." + key;
                if (!error.keyPath.empty() && error.keyPath.front() != '[') path += '.';
                error.keyPath = path + error.keyPath;
                return Err{std::move(error)};
            }
            metadata[key] = nlohmann::ordered_json(encoded.value());
        }
        json["metadata"] = std::move(metadata);
    }
    return Ok{std::move(json)};
}

}  // namespace palomir
