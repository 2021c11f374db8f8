#include "palomir/environment.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace palomir;

namespace {

struct LocaleCase {
    const char* language;
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    std::vector<std::string> languages;
    std::string identifier;
    std::optional<std::string> languageCode;
    std::optional<std::string> regionCode;
};

void setOrUnset(const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); }

class LocaleFromEnvironment : public ::testing::TestWithParam<LocaleCase> {};

}  // namespace

TEST_P(LocaleFromEnvironment, ReadsLanguagesAndLocale) {
    const auto& c = GetParam();
    setOrUnset("LANGUAGE", c.language);
    setOrUnset("LC_ALL", c.lcAll);
    setOrUnset("LC_MESSAGES", c.lcMessages);
    setOrUnset("LANG", c.lang);
    EXPECT_EQ(preferredLanguages(), c.languages);
    const auto locale = currentLocale();
    EXPECT_EQ(locale.identifier, c.identifier);
    EXPECT_EQ(locale.languageCode, c.languageCode);
    EXPECT_EQ(locale.regionCode, c.regionCode);

    // An override wins over whatever the environment says; C and POSIX name
    // no language there either.
    setLocaleOverride({"C", "ja-JP", "POSIX"}, LocaleInfo{"ja_JP", "ja", "JP"});
    EXPECT_EQ(preferredLanguages(), (std::vector<std::string>{"ja-JP"}));
    EXPECT_EQ(currentLocale().regionCode, "JP");
    clearLocaleOverride();
    EXPECT_EQ(preferredLanguages(), c.languages);
}

INSTANTIATE_TEST_SUITE_P(
    Variables, LocaleFromEnvironment,
    ::testing::Values(
        LocaleCase{nullptr, nullptr, nullptr, "de_CH.UTF-8", {"de-CH"}, "de_CH", "de", "CH"},
        LocaleCase{"fr:de_DE", nullptr, nullptr, "en_US.UTF-8", {"fr", "de-DE", "en-US"}, "en_US", "en", "US"},
        LocaleCase{"de:de_AT:de", nullptr, nullptr, "de_AT.UTF-8", {"de", "de-AT"}, "de_AT", "de", "AT"},
        LocaleCase{nullptr, "C", nullptr, "de_DE.UTF-8", {"en"}, "C", "en", std::nullopt},
        LocaleCase{nullptr, "", "pt_BR.UTF-8", "en_GB", {"pt-BR"}, "pt_BR", "pt", "BR"},
        LocaleCase{"C:POSIX", nullptr, nullptr, "POSIX", {"en"}, "POSIX", "en", std::nullopt},
        LocaleCase{nullptr, nullptr, nullptr, "sr_RS@latin", {"sr-RS"}, "sr_RS", "sr", "RS"},
        LocaleCase{nullptr, nullptr, nullptr, nullptr, {"en"}, "C", "en", std::nullopt}));

TEST(CachesDirectory, ComesFromXdgThenHomeUnlessSet) {
    setenv("XDG_CACHE_HOME", "/var/tmp/xdg-cache", 1);
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/var/tmp/xdg-cache"));

    setenv("XDG_CACHE_HOME", "relative/cache", 1);  // invalid under XDG rules
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/home/someone/.cache"));
    unsetenv("XDG_CACHE_HOME");
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/home/someone/.cache"));

    setCachesDirectory("/data/app/caches");
    EXPECT_EQ(cachesDirectory(), std::filesystem::path("/data/app/caches"));
    setCachesDirectory({});
    unsetenv("HOME");
    EXPECT_EQ(cachesDirectory(), std::filesystem::path());
}
