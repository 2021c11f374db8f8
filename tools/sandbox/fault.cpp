#include <charconv>

#include "sandbox.hpp"

namespace palomir::sandbox {

namespace {

constexpr std::pair<Route, std::string_view> kRouteNames[] = {
    {Route::checkin, "checkin"},          {Route::services, "services"}, {Route::service, "service"},
    {Route::directUploads, "direct_uploads"}, {Route::upload, "upload"},     {Route::feedback, "feedback"},
    {Route::any, "*"},
};

constexpr std::pair<Fault::Kind, std::string_view> kKindNames[] = {
    {Fault::Kind::delay, "delay"},
    {Fault::Kind::stall, "stall"},
    {Fault::Kind::drip, "drip"},
    {Fault::Kind::status, "status"},
    {Fault::Kind::malformed, "malformed"},
    {Fault::Kind::truncated, "truncated"},
    {Fault::Kind::empty, "empty"},
    {Fault::Kind::drop, "drop"},
    {Fault::Kind::wrongCacheControl, "cache-control"},
    {Fault::Kind::oversized, "oversized"},
    {Fault::Kind::redirect, "redirect"},
};

template <class T>
std::optional<T> number(std::string_view text) {
    T value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::string_view toString(Route route) {
    for (const auto& [value, name] : kRouteNames)
        if (value == route) return name;
    return "*";
}

std::optional<Route> routeFromString(std::string_view text) {
    for (const auto& [value, name] : kRouteNames)
        if (name == text) return value;
    return std::nullopt;
}

Result<Fault, std::string> Fault::parse(std::string_view text) {
    const std::string given(text);
    Fault fault;
    // A trailing "*N" limits the fault to N requests; a '*' elsewhere (in a
    // status body) is left alone.
    if (auto star = text.rfind('*'); star != std::string_view::npos && star + 1 < text.size() &&
                                     text.find_first_not_of("0123456789", star + 1) == std::string_view::npos) {
        auto count = number<int>(text.substr(star + 1));
        if (!count || *count < 1) return Err{"fault " + given + ": the count after '*' must be a positive number"};
        fault.remaining = *count;
        text = text.substr(0, star);
    }
    std::string_view kindName = text.substr(0, text.find(':'));
    std::optional<std::string_view> argument;
    if (kindName.size() < text.size()) argument = text.substr(kindName.size() + 1);

    bool known = false;
    for (const auto& [value, name] : kKindNames)
        if (name == kindName) {
            fault.kind = value;
            known = true;
        }
    if (!known) return Err{"unknown fault kind: " + std::string(kindName)};

    auto milliseconds = [&](std::int64_t fallback, bool required) -> Result<std::int64_t, std::string> {
        if (!argument) {
            if (required) return Err{"fault " + given + ": needs milliseconds, as in " + std::string(kindName) + ":500"};
            return Ok{fallback};
        }
        auto value = number<std::int64_t>(*argument);
        if (!value || *value < 0) return Err{"fault " + given + ": milliseconds must be a whole number"};
        return Ok{*value};
    };
    auto noArgument = [&]() -> Result<Fault, std::string> {
        if (argument) return Err{"fault " + given + ": takes no argument"};
        return Ok{fault};
    };

    switch (fault.kind) {
    case Kind::delay:
    case Kind::stall:
    case Kind::drip: {
        std::int64_t fallback = fault.kind == Kind::stall ? 120000 : 100;
        auto value = milliseconds(fallback, fault.kind == Kind::delay);
        if (value.hasError()) return Err{value.error()};
        fault.milliseconds = value.value();
        if (fault.kind == Kind::drip && fault.milliseconds == 0)
            return Err{"fault " + given + ": the drip interval must be at least 1 ms"};
        return Ok{fault};
    }
    case Kind::status: {
        if (!argument) return Err{"fault " + given + ": needs a status code, as in status:503"};
        std::string_view code = argument->substr(0, argument->find(':'));
        auto value = number<int>(code);
        if (!value || *value < 100 || *value > 599)
            return Err{"fault " + given + ": the status code must be from 100 to 599"};
        fault.status = *value;
        if (code.size() < argument->size()) fault.body = std::string(argument->substr(code.size() + 1));
        return Ok{fault};
    }
    case Kind::wrongCacheControl:
        fault.body = argument ? std::string(*argument) : "max-age=soon";
        return Ok{fault};
    case Kind::redirect:
        if (!argument || argument->empty())
            return Err{"fault " + given + ": needs the address to send the client to, as in redirect:http://example.com/"};
        fault.body = std::string(*argument);
        return Ok{fault};
    case Kind::oversized: {
        fault.megabytes = 8;
        if (argument) {
            auto value = number<std::size_t>(*argument);
            if (!value || *value < 1 || *value > 1024)
                return Err{"fault " + given + ": the size must be from 1 to 1024 MB"};
            fault.megabytes = *value;
        }
        return Ok{fault};
    }
    case Kind::malformed:
    case Kind::truncated:
    case Kind::empty:
    case Kind::drop:
        return noArgument();
    }
    return Ok{fault};
}

std::string Fault::description() const {
    std::string text;
    for (const auto& [value, name] : kKindNames)
        if (value == kind) text = name;
    switch (kind) {
    case Kind::delay:
    case Kind::stall:
    case Kind::drip:
        text += ":" + std::to_string(milliseconds);
        break;
    case Kind::status:
        text += ":" + std::to_string(status);
        if (!body.empty()) text += ":" + body;
        break;
    case Kind::wrongCacheControl:
    case Kind::redirect:
        text += ":" + body;
        break;
    case Kind::oversized:
        text += ":" + std::to_string(megabytes);
        break;
    default:
        break;
    }
    if (remaining) text += "*" + std::to_string(*remaining);
    return text;
}

Result<std::pair<Route, Fault>, std::string> parseFaultSetting(std::string_view text) {
    auto equals = text.find('=');
    if (equals == std::string_view::npos)
        return Err{"fault " + std::string(text) + ": expected route=kind[:argument], as in checkin=delay:500"};
    auto route = routeFromString(text.substr(0, equals));
    if (!route) return Err{"unknown fault route: " + std::string(text.substr(0, equals))};
    auto fault = Fault::parse(text.substr(equals + 1));
    if (fault.hasError()) return Err{fault.error()};
    return Ok{std::make_pair(*route, fault.value())};
}

}  // namespace palomir::sandbox
