#include "palomir/environment.hpp"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string_view>

namespace palomir {

namespace {

std::mutex gEnvironmentMutex;
std::filesystem::path gCachesOverride;
std::optional<std::vector<std::string>> gLanguagesOverride;
std::optional<LocaleInfo> gLocaleOverride;

std::string_view environmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view{} : std::string_view(value);
}

// "de_CH.UTF-8@euro" -> "de_CH"; "C.UTF-8" -> "C".
std::string_view stripCodesetAndModifier(std::string_view name) {
    return name.substr(0, name.find_first_of(".@"));
}

bool isPortableLocale(std::string_view name) { return name == "C" || name == "POSIX"; }

// The locale governing messages, as the C library would pick it.
std::string_view messagesLocaleName() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const auto value = environmentValue(variable);
        if (!value.empty()) return value;
    }
    return {};
}

std::string languageTag(std::string_view name) {
    std::string tag(stripCodesetAndModifier(name));
    std::replace(tag.begin(), tag.end(), '_', '-');
    return tag;
}

}  // namespace

std::filesystem::path cachesDirectory() {
    {
        std::lock_guard lock(gEnvironmentMutex);
        if (!gCachesOverride.empty()) return gCachesOverride;
    }
    const auto xdg = environmentValue("XDG_CACHE_HOME");
    // Relative values are invalid by the XDG rules and must be ignored.
    if (!xdg.empty() && xdg.front() == '/') return std::filesystem::path(xdg);
    const auto home = environmentValue("HOME");
    if (!home.empty()) return std::filesystem::path(home) / ".cache";
    return {};
}

void setCachesDirectory(std::filesystem::path directory) {
    std::lock_guard lock(gEnvironmentMutex);
    gCachesOverride = std::move(directory);
}

std::vector<std::string> preferredLanguages() {
    std::optional<std::vector<std::string>> override;
    {
        std::lock_guard lock(gEnvironmentMutex);
        override = gLanguagesOverride;
    }
    std::vector<std::string> languages;
    const auto add = [&languages](std::string_view name) {
        if (name.empty() || isPortableLocale(stripCodesetAndModifier(name))) return;
        std::string tag = languageTag(name);
        if (tag.empty()) return;
        if (std::find(languages.begin(), languages.end(), tag) == languages.end()) languages.push_back(std::move(tag));
    };
    if (override) {
        // A toolkit's list may name the C locale too (Qt's does).
        for (const auto& name : *override) add(name);
    } else {
        std::string_view list = environmentValue("LANGUAGE");
        while (!list.empty()) {
            const auto colon = list.find(':');
            add(list.substr(0, colon));
            list = colon == std::string_view::npos ? std::string_view{} : list.substr(colon + 1);
        }
        add(messagesLocaleName());
    }
    // C and POSIX name no language; like a phone where the user chose none,
    // the process then asks for English, the C locale's own.
    if (languages.empty()) languages.emplace_back("en");
    return languages;
}

LocaleInfo currentLocale() {
    {
        std::lock_guard lock(gEnvironmentMutex);
        if (gLocaleOverride) return *gLocaleOverride;
    }
    const std::string_view identifier = stripCodesetAndModifier(messagesLocaleName());
    LocaleInfo info;
    if (identifier.empty() || isPortableLocale(identifier)) {
        info.identifier = identifier.empty() ? "C" : std::string(identifier);
        info.languageCode = "en";
        return info;
    }
    info.identifier = std::string(identifier);
    const auto underscore = identifier.find('_');
    info.languageCode = std::string(identifier.substr(0, underscore));
    if (underscore != std::string_view::npos && underscore + 1 < identifier.size()) {
        info.regionCode = std::string(identifier.substr(underscore + 1));
    }
    return info;
}

void setLocaleOverride(std::vector<std::string> languages, LocaleInfo locale) {
    std::lock_guard lock(gEnvironmentMutex);
    gLanguagesOverride = std::move(languages);
    gLocaleOverride = std::move(locale);
}

void clearLocaleOverride() {
    std::lock_guard lock(gEnvironmentMutex);
    gLanguagesOverride.reset();
    gLocaleOverride.reset();
}

const DeviceInfo& deviceInfo() {
    static const DeviceInfo info = [] {
        DeviceInfo result;
        struct utsname name {};
        if (uname(&name) == 0) {
            result.machine = name.machine;
            result.osName = name.sysname;
            result.osRelease = name.release;
        }
        return result;
    }();
    return info;
}

}  // namespace palomir
