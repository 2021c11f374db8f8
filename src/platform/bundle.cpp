#include "palomir/bundle.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>

#include "palomir/environment.hpp"
#include "palomir_build_info.hpp"

namespace palomir::detail {
// Generated from resources/ at build time.
struct EmbeddedResource {
    std::string_view name;
    const unsigned char* data;
    std::size_t size;
};
extern const EmbeddedResource kEmbeddedResources[];
extern const std::size_t kEmbeddedResourceCount;
}  // namespace palomir::detail

namespace palomir {

namespace {

namespace fs = std::filesystem;

std::mutex gBundleMutex;
std::optional<Bundle> gCustomMain;
std::optional<Bundle> gDefaultMain;
fs::path gPalomirResourceOverride;

fs::path executablePath() {
    std::error_code error;
    auto path = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::path() : path;
}

// The file holding this code: the shared library when Palomir is one, else
// the executable it was linked into.
fs::path codeImagePath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&codeImagePath), &info) != 0 && info.dli_fname != nullptr &&
        info.dli_fname[0] != '\0') {
        std::error_code error;
        auto path = fs::canonical(info.dli_fname, error);
        if (!error) return path;
    }
    return executablePath();
}

std::optional<fs::path> defaultPalomirResourceDirectory() {
    static const std::optional<fs::path> directory = []() -> std::optional<fs::path> {
        const auto image = codeImagePath();
        if (image.empty()) return std::nullopt;
        auto candidate = image.parent_path() / "Palomir.bundle";
        std::error_code error;
        if (fs::is_directory(candidate, error)) return candidate;
        return std::nullopt;
    }();
    return directory;
}

std::optional<std::vector<std::uint8_t>> readFile(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) return std::nullopt;
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    if (stream.bad()) return std::nullopt;
    return bytes;
}

// Resource names are relative paths inside the bundle; nothing may escape it.
bool isSafeResourceName(std::string_view name) {
    if (name.empty() || name.front() == '/') return false;
    for (const auto& component : fs::path(name)) {
        if (component == "..") return false;
    }
    return true;
}

const detail::EmbeddedResource* findEmbedded(std::string_view name) {
    for (std::size_t i = 0; i < detail::kEmbeddedResourceCount; ++i) {
        if (detail::kEmbeddedResources[i].name == name) return &detail::kEmbeddedResources[i];
    }
    return nullptr;
}

Bundle loadDefaultMain() {
    const auto executable = executablePath();
    if (!executable.empty()) {
        const auto directory = executable.parent_path();
        if (auto bytes = readFile(directory / "Info.json")) {
            auto info = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
            if (info.is_object()) return Bundle(std::move(info), directory);
        }
    }
    // An undescribed program: known by its name only, so that building an app
    // description from it fails for want of a version.
    nlohmann::json info = nlohmann::json::object();
    info["CFBundleIdentifier"] = executable.filename().string();
    return Bundle(std::move(info), std::nullopt);
}

std::vector<std::string> localizationCandidates() {
    std::vector<std::string> candidates;
    const auto add = [&candidates](std::string language) {
        if (language.empty()) return;
        if (std::find(candidates.begin(), candidates.end(), language) == candidates.end()) {
            candidates.push_back(std::move(language));
        }
    };
    for (const auto& tag : preferredLanguages()) {
        add(tag);
        add(tag.substr(0, tag.find_first_of("-_")));
    }
    add("en");
    return candidates;
}

std::optional<std::string> lookUp(const std::optional<std::vector<std::uint8_t>>& table, std::string_view key) {
    if (!table) return std::nullopt;
    const auto json = nlohmann::json::parse(table->begin(), table->end(), nullptr, false);
    if (!json.is_object()) return std::nullopt;
    const auto it = json.find(key);
    if (it == json.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

Bundle::Bundle(nlohmann::json info, std::optional<std::filesystem::path> resourceDirectory, bool withEmbedded)
    : _info(std::move(info)), _resourceDirectory(std::move(resourceDirectory)), _withEmbedded(withEmbedded) {}

Bundle Bundle::main() {
    std::lock_guard lock(gBundleMutex);
    if (gCustomMain) return *gCustomMain;
    if (!gDefaultMain) gDefaultMain = loadDefaultMain();
    return *gDefaultMain;
}

void Bundle::setMain(Bundle bundle) {
    std::lock_guard lock(gBundleMutex);
    gCustomMain = std::move(bundle);
}

bool Bundle::hasCustomMain() {
    std::lock_guard lock(gBundleMutex);
    return gCustomMain.has_value();
}

Bundle Bundle::palomir() {
    nlohmann::json info = nlohmann::json::object();
    info["CFBundleIdentifier"] = PALOMIR_BUNDLE_IDENTIFIER;
    info["CFBundleVersion"] = PALOMIR_BUILD_NUMBER;
    info["CFBundleShortVersionString"] = PALOMIR_VERSION_STRING;
    std::optional<fs::path> directory;
    {
        std::lock_guard lock(gBundleMutex);
        if (!gPalomirResourceOverride.empty()) directory = gPalomirResourceOverride;
    }
    if (!directory) directory = defaultPalomirResourceDirectory();
    return Bundle(std::move(info), std::move(directory), true);
}

void Bundle::setPalomirResourceDirectory(std::filesystem::path directory) {
    std::lock_guard lock(gBundleMutex);
    gPalomirResourceOverride = std::move(directory);
}

std::optional<std::string> Bundle::identifier() const { return string("CFBundleIdentifier"); }

std::optional<std::string> Bundle::string(std::string_view key) const {
    if (!_info.is_object()) return std::nullopt;
    const auto it = _info.find(key);
    if (it == _info.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<std::filesystem::path> Bundle::resourceFile(std::string_view name) const {
    if (!_resourceDirectory || !isSafeResourceName(name)) return std::nullopt;
    auto path = *_resourceDirectory / fs::path(name);
    std::error_code error;
    if (fs::is_regular_file(path, error)) return path;
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> Bundle::resourceData(std::string_view name) const {
    if (auto file = resourceFile(name)) {
        if (auto bytes = readFile(*file)) return bytes;
    }
    if (_withEmbedded) {
        if (const auto* resource = findEmbedded(name)) {
            return std::vector<std::uint8_t>(resource->data, resource->data + resource->size);
        }
    }
    return std::nullopt;
}

std::optional<std::string> Bundle::resourceText(std::string_view name) const {
    auto bytes = resourceData(name);
    if (!bytes) return std::nullopt;
    return std::string(bytes->begin(), bytes->end());
}

std::string Bundle::localizedString(std::string_view key, std::string_view defaultValue) const {
    for (const auto& language : localizationCandidates()) {
        const std::string table = language + ".lproj/Localizable.json";
        // An overriding table need not repeat every key of the built-in one.
        if (auto file = resourceFile(table)) {
            if (auto value = lookUp(readFile(*file), key)) return *value;
        }
        if (_withEmbedded) {
            if (const auto* resource = findEmbedded(table)) {
                if (auto value = lookUp(std::vector<std::uint8_t>(resource->data, resource->data + resource->size), key)) {
                    return *value;
                }
            }
        }
    }
    return std::string(defaultValue);
}

}  // namespace palomir
