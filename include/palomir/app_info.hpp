#pragma once

/// @file
/// The description of the host application, the library and the device that
/// travels with every check-in and feedback.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/any_codable.hpp"
#include "palomir/bundle.hpp"
#include "palomir/decoding.hpp"
#include "palomir/export.hpp"
#include "palomir/result.hpp"

namespace palomir {

/// Why an AppInfo could not be made from a bundle.
enum class AppInfoError {
    /// The bundle has no "CFBundleIdentifier" text.
    missingBundleIdentifier,
    /// The bundle has no "CFBundleShortVersionString" or "CFBundleVersion" text.
    missingBundleVersion,
    /// Reserved: Palomir's own bundle is always found.
    missingFrameworkBundle,
    /// The library's own bundle has no "CFBundleVersion" (a broken build).
    missingSDKBundleVersion,
};

/// The case name ("missingBundleVersion").
PALOMIR_API std::string_view toString(AppInfoError error);

/// The host app, Palomir and the device, as sent with every check-in and
/// feedback entry.
struct PALOMIR_API AppInfo {
    /// "CFBundleDisplayName" of the host app.
    std::optional<std::string> name;
    /// "CFBundleIdentifier" of the host app.
    std::string bundleIdentifier;
    /// "CFBundleShortVersionString".
    std::string version;
    /// "CFBundleVersion".
    std::string build;
    /// "CFBundleVersion" of Palomir's own bundle.
    std::string sdkVersion;
    /// The user's languages, most preferred first, as BCP 47 tags.
    std::vector<std::string> preferredLanguages;
    /// Free-form values the host wants the backend to see.
    std::optional<std::map<std::string, AnyEncodable>> metadata;

    /// Reads the host app's description from `bundle` (normally Bundle::main()),
    /// Palomir's version from Bundle::palomir() and the user's languages.
    static Result<AppInfo, AppInfoError> make(const Bundle& bundle);

    /// A multi-line text for logs.
    std::string description() const;

    /// The "User-Agent" of every request: host app, device, locale and
    /// Palomir. Computed on the first call and then fixed for the process.
    static const std::string& userAgent();

    /// Extra fields for the user agent, after the device and locale fields.
    /// They must be set before the first request (or userAgent() call): the
    /// user agent is computed once, and later changes do not reach it.
    static void setAdditionalUserAgentFields(std::vector<std::string> fields);
    /// The fields set by setAdditionalUserAgentFields(); callable from any thread.
    static std::vector<std::string> additionalUserAgentFields();

    /// Field by field.
    friend bool operator==(const AppInfo&, const AppInfo&) = default;
};

/// The JSON object: "name" (only when present), "bundle_identifier",
/// "version", "build", "sdk_version", "preferred_languages", "metadata" (only
/// when present), in that order. Fails only when a metadata value has no JSON
/// form.
PALOMIR_API Result<nlohmann::ordered_json, EncodingError> encode(const AppInfo& info);

}  // namespace palomir
