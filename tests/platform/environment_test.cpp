#include "palomir/environment.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

using namespace palomir;

namespace {

void setOrUnset(const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); }

}  // namespace

TEST(LocaleFromEnvironment, ReadsLanguagesAndLocale) {
    const struct {
        const char *language, *lcAll, *lcMessages, *lang;
        std::vector<std::string> languages;
        std::string identifier;
        std::optional<std::string> languageCode, regionCode;
    } cases[] = {
        {"fr:de_DE", nullptr, nullptr, "en_US.UTF-8", {"fr", "de-DE", "en-US"}, "en_US", "en", "US"},
        {"de:de_AT:de", nullptr, nullptr, "de_AT.UTF-8", {"de", "de-AT"}, "de_AT", "de", "AT"},
        {nullptr, "C", nullptr, "de_DE.UTF-8", {"en"}, "C", "en", std::nullopt},
        {nullptr, "", "pt_BR.UTF-8", "en_GB", {"pt-BR"}, "pt_BR", "pt", "BR"},
        {nullptr, nullptr, nullptr, "sr_RS@latin", {"sr-RS"}, "sr_RS", "sr", "RS"},
        {nullptr, nullptr, nullptr, nullptr, {"en"}, "C", "en", std::nullopt}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.identifier);
        setOrUnset("LANGUAGE", c.language);
        setOrUnset("LC_ALL", c.lcAll);
        setOrUnset("LC_MESSAGES", c.lcMessages);
        setOrUnset("LANG", c.lang);
        EXPECT_EQ(preferredLanguages(), c.languages);
        const auto locale = currentLocale();
        EXPECT_EQ(std::tie(locale.identifier, locale.languageCode, locale.regionCode),
                  std::tie(c.identifier, c.languageCode, c.regionCode));
    }

    // An override wins over whatever the environment says; C and POSIX name
    // no language there either.
    setLocaleOverride({"C", "ja-JP", "POSIX"}, LocaleInfo{"ja_JP", "ja", "JP"});
    EXPECT_EQ(preferredLanguages(), (std::vector<std::string>{"ja-JP"}));
    clearLocaleOverride();
    EXPECT_EQ(preferredLanguages(), (std::vector<std::string>{"en"}));
}

// (A directory the host sets is where every suite's logs and caches go.)
TEST(CachesDirectory, ComesFromXdgThenHome) {
    setenv("XDG_CACHE_HOME", "/var/tmp/xdg-cache", 1);
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/var/tmp/xdg-cache"));

    setenv("XDG_CACHE_HOME", "relative/cache", 1);  // invalid under XDG rules
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/home/someone/.cache"));
    unsetenv("XDG_CACHE_HOME");
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/home/someone/.cache"));
}
