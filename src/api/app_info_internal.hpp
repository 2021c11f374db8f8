#pragma once

// Pieces of AppInfo that take their inputs explicitly, so that they can be
// exercised without the process-wide bundles, locale and once-only cache.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "palomir/app_info.hpp"
#include "palomir/bundle.hpp"
#include "palomir/environment.hpp"

namespace palomir::detail {

Result<AppInfo, AppInfoError> makeAppInfo(const Bundle& bundle, const Bundle& sdkBundle,
                                          std::vector<std::string> preferredLanguages);

std::string composeUserAgent(const Bundle& mainBundle, const Bundle& sdkBundle, const DeviceInfo& device,
                             const LocaleInfo& locale, const std::vector<std::string>& additionalFields);

/// A text as logs show it: in double quotes, with quotes, backslashes and
/// control characters escaped ("a\"b").
std::string quotedText(std::string_view text);
/// Optional("x") or nil.
std::string describeOptional(const std::optional<std::string>& text);
/// ["a", "b"]; [] when empty.
std::string describeList(const std::vector<std::string>& texts);

}  // namespace palomir::detail
