#pragma once

/// @file
/// Bundles: the host application's description and the library's resources.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/export.hpp"

namespace palomir {

/// An information dictionary plus resources.
///
/// The main bundle describes the host application: it is read from an
/// "Info.json" beside the executable, unless the host (or the Qt module)
/// sets one. The Palomir bundle is the library's own: its information is
/// compiled in, and its resources are looked up first in a "Palomir.bundle"
/// directory (beside the library, or one the host names), then among the
/// resources compiled into the library.
class PALOMIR_API Bundle {
public:
    /// An empty bundle: no information, no resources.
    Bundle() = default;
    /// A bundle described by `info` (a JSON object) whose resources are read
    /// from `resourceDirectory` when given, then, with `withEmbedded`, from
    /// the resources compiled into the library.
    Bundle(nlohmann::json info, std::optional<std::filesystem::path> resourceDirectory, bool withEmbedded = false);

    /// The host application's bundle.
    static Bundle main();
    /// Replaces the main bundle's description. Call before Palomir is first used.
    static void setMain(Bundle bundle);
    /// Whether the host or a module has set the main bundle.
    static bool hasCustomMain();

    /// The library's own bundle.
    static Bundle palomir();
    /// Names a directory to look in before the compiled-in resources.
    /// An empty path restores the default (Palomir.bundle beside the library).
    static void setPalomirResourceDirectory(std::filesystem::path directory);

    /// The information dictionary; borrowed from the bundle.
    const nlohmann::json& info() const { return _info; }
    /// "CFBundleIdentifier" of the info dictionary, when it is text.
    std::optional<std::string> identifier() const;
    /// The entry when present and text.
    std::optional<std::string> string(std::string_view key) const;

    /// The bytes of a resource (a path relative to the bundle, such as
    /// "layouts/NoteView_fullscreen.qml"), or nothing.
    std::optional<std::vector<std::uint8_t>> resourceData(std::string_view name) const;
    /// The resource as text (UTF-8), or nothing.
    std::optional<std::string> resourceText(std::string_view name) const;
    /// Where an overriding file for the resource lies on disk, if one does.
    std::optional<std::filesystem::path> resourceFile(std::string_view name) const;

    /// A localised string from "<lang>.lproj/Localizable.json" (a flat JSON
    /// object), trying the preferred languages in order, then "en"; else
    /// `defaultValue`.
    std::string localizedString(std::string_view key, std::string_view defaultValue = {}) const;

    /// The directory resources are read from before the compiled-in ones, if any.
    const std::optional<std::filesystem::path>& resourceDirectory() const { return _resourceDirectory; }

private:
    nlohmann::json _info = nlohmann::json::object();
    std::optional<std::filesystem::path> _resourceDirectory;
    bool _withEmbedded = false;
};

}  // namespace palomir
