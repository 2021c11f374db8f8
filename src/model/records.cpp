#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "palomir/model.hpp"

namespace palomir {

std::string_view toString(CheckinEvent event) {
    switch (event) {
        case CheckinEvent::launch: return "launch";
        case CheckinEvent::foreground: return "foreground";
    }
    return "launch";
}

std::optional<CheckinEvent> checkinEventFromString(std::string_view text) {
    if (text == "launch") return CheckinEvent::launch;
    if (text == "foreground") return CheckinEvent::foreground;
    return std::nullopt;
}

std::string_view toString(LockdownType type) {
    switch (type) {
        case LockdownType::hard: return "hard";
        case LockdownType::soft: return "soft";
    }
    return "soft";
}

std::optional<LockdownType> lockdownTypeFromString(std::string_view text) {
    if (text == "hard") return LockdownType::hard;
    if (text == "soft") return LockdownType::soft;
    return std::nullopt;
}

LockdownResult evaluate(const Lockdown& lockdown) {
    if (!lockdown.active) return LockdownResult::open();
    return LockdownResult::lockedDown(lockdown.type.value_or(LockdownType::soft));
}

namespace {

// Severity, best first. Deliberately disabled and unknown rank below error.
constexpr std::array<ServiceState, 5> sortOrder{ServiceState::ok, ServiceState::warning, ServiceState::error,
                                                 ServiceState::disabled, ServiceState::unknown};

std::size_t severity(ServiceState state) {
    return static_cast<std::size_t>(std::find(sortOrder.begin(), sortOrder.end(), state) - sortOrder.begin());
}

}  // namespace

std::string_view toString(ServiceState state) {
    switch (state) {
        case ServiceState::ok: return "ok";
        case ServiceState::warning: return "warning";
        case ServiceState::error: return "error";
        case ServiceState::disabled: return "disabled";
        case ServiceState::unknown: return "unknown";
    }
    return "unknown";
}

std::optional<ServiceState> serviceStateFromString(std::string_view text) {
    for (ServiceState state : sortOrder)
        if (toString(state) == text) return state;
    return std::nullopt;
}

bool operator<(ServiceState a, ServiceState b) { return severity(a) < severity(b); }
bool operator<=(ServiceState a, ServiceState b) { return severity(a) <= severity(b); }
bool operator>(ServiceState a, ServiceState b) { return severity(a) > severity(b); }
bool operator>=(ServiceState a, ServiceState b) { return severity(a) >= severity(b); }

std::vector<Service> Configuration::messageServices() const {
    std::vector<Service> out;
    if (!services) return out;
    std::copy_if(services->begin(), services->end(), std::back_inserter(out),
                 [](const Service& service) { return service.triggersMessage; });
    return out;
}

std::optional<Service> Configuration::worstService() const {
    std::vector<Service> candidates = messageServices();
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Service& a, const Service& b) { return a.state > b.state; });
    if (candidates.empty()) return std::nullopt;
    return candidates.front();
}

std::string Note::description() const {
    // The unpaired closing quote is part of the log format that tools match.
    std::string out = "\tNote\n\t\ttitle: " + title;
    out += "\n\t\tsubtitle: " + subtitle.value_or("");
    out += "\n\t\tcontent: " + content;
    out += "\n\t\timage: " + (image ? image->absoluteString() : std::string());
    out += '"';
    return out;
}

Attachment Attachment::fromData(std::string filename, std::optional<std::string> contentType,
                                std::vector<std::uint8_t> data) {
    std::string type;
    if (contentType) {
        type = std::move(*contentType);
    } else {
        const auto dot = filename.rfind('.');
        type = dot == std::string::npos || dot == 0 ? std::string() : mimeTypeForExtension(std::string_view(filename).substr(dot + 1));
    }
    return Attachment{std::move(filename), std::move(type), std::move(data)};
}

Attachment Attachment::fromText(std::string filename, std::optional<std::string> contentType, std::string_view text) {
    return fromData(std::move(filename), std::move(contentType), std::vector<std::uint8_t>(text.begin(), text.end()));
}

Result<Attachment, std::error_code> Attachment::fromFile(const std::filesystem::path& path) {
    const auto failure = [](int code) { return Err{std::error_code(code, std::system_category())}; };
    // stdio rather than a stream: a stream loses errno, and "is a directory"
    // only shows up as a failed read.
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) return failure(errno);
    std::vector<std::uint8_t> data;
    std::uint8_t buffer[16384];
    for (;;) {
        errno = 0;
        const std::size_t read = std::fread(buffer, 1, sizeof buffer, file.get());
        data.insert(data.end(), buffer, buffer + read);
        if (read == sizeof buffer) continue;
        if (std::ferror(file.get())) return failure(errno ? errno : EIO);
        break;
    }
    return Ok{fromData(path.filename().string(), std::nullopt, std::move(data))};
}

AttachmentProvider::~AttachmentProvider() = default;

}  // namespace palomir
