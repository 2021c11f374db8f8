#include "palomir/app_info.hpp"

#include <gtest/gtest.h>

#include <tuple>

#include "api/app_info_internal.hpp"

namespace palomir {
namespace {

Bundle bundle(nlohmann::json info) { return Bundle(std::move(info), std::nullopt); }

nlohmann::json hostInfo() {
    return {{"CFBundleIdentifier", "com.example.app"},
            {"CFBundleDisplayName", "Example"},
            {"CFBundleVersion", "42"},
            {"CFBundleShortVersionString", "1.2"}};
}

const Bundle kSdk = Bundle(nlohmann::json{{"CFBundleIdentifier", "io.palomir.sdk"},
                                          {"CFBundleVersion", "5"},
                                          {"CFBundleShortVersionString", "0.1.0"}},
                           std::nullopt);

// The description shows every field read; a display name that is not text
// is no name.
TEST(AppInfo, ReadsTheHostBundleAndSdkVersionAndDescribesThem) {
    auto result = detail::makeAppInfo(bundle(hostInfo()), kSdk, {"de-CH", "en"});
    ASSERT_TRUE(result.hasValue());
    EXPECT_EQ(result.value().description(),
              "\tAppInfo\n\t\tname: Optional(\"Example\")\n\t\tbundleIdentifier: com.example.app\n\t\tversion: 1.2"
              "\n\t\tbuild: 42\n\t\tsdkVersion: 5\n\t\tpreferredLanguages: [\"de-CH\", \"en\"]");

    auto nameless = hostInfo();
    nameless["CFBundleDisplayName"] = 3;
    const std::string text = detail::makeAppInfo(bundle(nameless), kSdk, {}).value().description();
    EXPECT_NE(text.find("\t\tname: nil\n"), std::string::npos) << text;
    EXPECT_EQ(detail::describeOptional(std::string("a\"b\\c\nd\x01")), "Optional(\"a\\\"b\\\\c\\nd\\u{1}\")");

    // The SDK's version comes from the library's own bundle.
    auto made = AppInfo::make(bundle(hostInfo()));
    ASSERT_TRUE(made.hasValue());
    EXPECT_EQ(made.value().sdkVersion, Bundle::palomir().string("CFBundleVersion"));
}

// Each case changes one key of the host's bundle (null: removes it), may take
// the version out of the SDK's own, and names the error. A build number that
// is no text stands for a missing one.
TEST(AppInfo, ReportsTheMissingPiece) {
    const std::tuple<std::string, nlohmann::json, bool, AppInfoError> cases[] = {
        {"CFBundleIdentifier", nullptr, false, AppInfoError::missingBundleIdentifier},
        {"CFBundleShortVersionString", nullptr, false, AppInfoError::missingBundleVersion},
        {"CFBundleVersion", 42, false, AppInfoError::missingBundleVersion},
        {"CFBundleDisplayName", nullptr, true, AppInfoError::missingSDKBundleVersion}};
    for (const auto& [key, replacement, sdkWithoutVersion, expected] : cases) {
        SCOPED_TRACE(key + " " + replacement.dump());
        auto info = hostInfo();
        if (replacement.is_null())
            info.erase(key);
        else
            info[key] = replacement;
        auto sdkInfo = kSdk.info();
        if (sdkWithoutVersion) sdkInfo.erase("CFBundleVersion");
        auto result = detail::makeAppInfo(bundle(info), bundle(sdkInfo), {});
        ASSERT_TRUE(result.hasError());
        EXPECT_EQ(toString(result.error()), toString(expected));
    }
}

TEST(AppInfoJson, KeysInOrderWithAbsentMembersLeftOut) {
    auto info = hostInfo();
    info.erase("CFBundleDisplayName");
    AppInfo app = detail::makeAppInfo(bundle(info), kSdk, {"en"}).value();
    EXPECT_EQ(encode(app).value().dump(),
              R"({"bundle_identifier":"com.example.app","version":"1.2","build":"42","sdk_version":"5",)"
              R"("preferred_languages":["en"]})");

    app.name = "Example";
    app.metadata = std::map<std::string, AnyEncodable>{{"tags", AnyEncodable::list({AnyEncodable::null()})}};
    EXPECT_EQ(encode(app).value().dump(),
              R"({"name":"Example","bundle_identifier":"com.example.app","version":"1.2","build":"42",)"
              R"("sdk_version":"5","preferred_languages":["en"],"metadata":{"tags":[null]}})");
}

// Each case gives the host's bundle, its locale, the host's extra fields and
// the agent. The extra fields are composed in the process's own agent below.
TEST(UserAgent, Composes) {
    const std::tuple<nlohmann::json, LocaleInfo, std::vector<std::string>, std::string> cases[] = {
        {{{"CFBundleIdentifier", "com.example.app"},
          {"CFBundleVersion", 42},
          {"CFBundleShortVersionString", "1.2"},
          {"EQBuildSubversion", 7}},
         {"en_US", "en", "US"}, {},
         "com.example.app/42/1.2/7 (x86_64; Unknown; Linux; 6.1.0-18-amd64; en; US) io.palomir.sdk/5/0.1.0"},
        {nlohmann::json::object(), {"C", std::nullopt, std::nullopt}, {},
         "__/__/__ (x86_64; Unknown; Linux; 6.1.0-18-amd64; __; __) io.palomir.sdk/5/0.1.0"}};
    const DeviceInfo device{"x86_64", "Linux", "6.1.0-18-amd64"};
    for (const auto& [mainInfo, locale, additional, expected] : cases)
        EXPECT_EQ(detail::composeUserAgent(bundle(mainInfo), kSdk, device, locale, additional), expected);
}

// The fields set before the first use count, after the locale; later
// changes do not.
TEST(UserAgent, ComputedOnceFromTheProcessEnvironment) {
    AppInfo::setAdditionalUserAgentFields({"Qt 6.4", "beta"});
    const std::string agent = AppInfo::userAgent();
    EXPECT_NE(agent.find("; Unknown; " + deviceInfo().osName + "; " + deviceInfo().osRelease + "; "),
              std::string::npos) << agent;
    EXPECT_NE(agent.find("; Qt 6.4; beta) "), std::string::npos) << agent;
    AppInfo::setAdditionalUserAgentFields({"second"});
    EXPECT_EQ(AppInfo::userAgent(), agent);
}

}  // namespace
}  // namespace palomir
