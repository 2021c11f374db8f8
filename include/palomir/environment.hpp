#pragma once

/// @file
/// Where the library keeps files, and what it learns of the user's locale and
/// the device.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "palomir/export.hpp"

namespace palomir {

/// Where Palomir keeps its files (log files): $XDG_CACHE_HOME, else ~/.cache.
/// Empty when neither can be found.
PALOMIR_API std::filesystem::path cachesDirectory();
/// Sets another caches directory. Mobile hosts must call this before
/// Palomir is first used, since the default does not exist there.
PALOMIR_API void setCachesDirectory(std::filesystem::path directory);

/// A locale as the library reports it to the backend.
struct LocaleInfo {
    /// The POSIX form, as in the environment.
    std::string identifier;                 // "de_CH", "en", "C"
    /// The ISO 639 language, when the identifier names one.
    std::optional<std::string> languageCode;  // "de"
    /// The ISO 3166 region, when the identifier names one.
    std::optional<std::string> regionCode;    // "CH"
};

/// The user's languages in order of preference ("de-CH", "en"), from
/// LANGUAGE, LC_ALL, LC_MESSAGES and LANG.
PALOMIR_API std::vector<std::string> preferredLanguages();
/// The current locale from LC_ALL, LC_MESSAGES and LANG.
PALOMIR_API LocaleInfo currentLocale();
/// Lets a host (or the Qt module) supply the languages and locale itself.
PALOMIR_API void setLocaleOverride(std::vector<std::string> languages, LocaleInfo locale);
/// Goes back to reading the languages and locale from the environment.
PALOMIR_API void clearLocaleOverride();

/// The machine and system, as named in the user agent.
struct DeviceInfo {
    /// The hardware name.
    std::string machine;    // uname machine, "x86_64"
    /// The system's name.
    std::string osName;     // uname sysname, "Linux"
    /// The system's release.
    std::string osRelease;  // uname release, "6.1.0-18-amd64"
};
/// Read once, then fixed for the process; the reference stays valid forever.
PALOMIR_API const DeviceInfo& deviceInfo();

}  // namespace palomir
