#include "palomir/bundle.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "palomir/environment.hpp"
#include "palomir_build_info.hpp"
#include "palomir_test/tls.hpp"

using namespace palomir;
namespace fs = std::filesystem;

namespace {

// A Palomir.bundle stand-in, removed again when the test ends.
class ResourceDirectory : public ::testing::Test {
protected:
    void TearDown() override {
        Bundle::setPalomirResourceDirectory({});
        clearLocaleOverride();
    }
    void write(const std::string& name, const std::string& content) {
        const auto path = _directory / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    palomir_test::TempDir _temp;
    const fs::path _directory = _temp.path();
};

}  // namespace

TEST_F(ResourceDirectory, OverrideDirectoryIsLookedInFirstAndCompiledInResourcesSecond) {
    auto bundle = Bundle::palomir();
    EXPECT_EQ(bundle.identifier(), "io.palomir.sdk");
    EXPECT_EQ(bundle.string("CFBundleVersion"), PALOMIR_VERSION_STRING);
    EXPECT_EQ(bundle.string("CFBundleShortVersionString"), PALOMIR_VERSION_STRING);
    EXPECT_EQ(bundle.resourceDirectory(), std::nullopt);  // no Palomir.bundle beside the test program
    EXPECT_EQ(bundle.resourceFile("en.lproj/Localizable.json"), std::nullopt);
    EXPECT_EQ(bundle.resourceData("no/such/resource.qml"), std::nullopt);

    write("en.lproj/Localizable.json", R"({"PalomirCloseButtonTitle": "Shut"})");
    write("layouts/Extra.qml", "Item {}");
    Bundle::setPalomirResourceDirectory(_directory);
    bundle = Bundle::palomir();
    EXPECT_EQ(bundle.resourceDirectory(), _directory);
    EXPECT_EQ(bundle.resourceText("en.lproj/Localizable.json"), R"({"PalomirCloseButtonTitle": "Shut"})");
    EXPECT_EQ(bundle.resourceFile("en.lproj/Localizable.json"), _directory / "en.lproj/Localizable.json");
    EXPECT_EQ(bundle.resourceText("layouts/Extra.qml"), "Item {}");
    // What the directory lacks still comes from the library.
    ASSERT_TRUE(bundle.resourceText("de.lproj/Localizable.json").has_value());
    EXPECT_NE(bundle.resourceText("de.lproj/Localizable.json")->find("Schließen"), std::string::npos);
    // Names may not reach outside the directory.
    write("../outside.txt", "x");
    EXPECT_EQ(bundle.resourceText("../outside.txt"), std::nullopt);
    fs::remove(_directory.parent_path() / "outside.txt");

    Bundle::setPalomirResourceDirectory({});
    EXPECT_EQ(Bundle::palomir().resourceText("layouts/Extra.qml"), std::nullopt);
}

TEST_F(ResourceDirectory, LocalizedStringsFollowThePreferredLanguages) {
    const auto bundle = Bundle::palomir();
    setLocaleOverride({"de-CH", "en"}, LocaleInfo{"de_CH", "de", "CH"});
    EXPECT_EQ(bundle.localizedString("PalomirCloseButtonTitle"), "Schließen");
    // A language the library carries no table for falls back to English.
    setLocaleOverride({"tlh-QO"}, LocaleInfo{"tlh_QO", "tlh", "QO"});
    EXPECT_EQ(bundle.localizedString("PalomirCloseButtonTitle"), "Close");

    // A table in the override directory wins for its keys only.
    write("tlh.lproj/Localizable.json", R"({"PalomirCloseButtonTitle": "SoQmoH"})");
    write("de.lproj/Localizable.json", R"({"Other": "Anderes"})");
    Bundle::setPalomirResourceDirectory(_directory);
    EXPECT_EQ(Bundle::palomir().localizedString("PalomirCloseButtonTitle"), "SoQmoH");
    setLocaleOverride({"de"}, LocaleInfo{"de", "de", std::nullopt});
    EXPECT_EQ(Bundle::palomir().localizedString("PalomirCloseButtonTitle"), "Schließen");
    EXPECT_EQ(Bundle::palomir().localizedString("Other"), "Anderes");

    const Bundle bare(nlohmann::json::object(), std::nullopt);
    EXPECT_EQ(bare.localizedString("PalomirCloseButtonTitle", "Close?"), "Close?");
}

TEST(MainBundle, DefaultsToTheExecutableNameAndCanBeReplaced) {
    ASSERT_FALSE(Bundle::hasCustomMain());
    const auto fallback = Bundle::main();
    EXPECT_EQ(fallback.identifier(), fs::read_symlink("/proc/self/exe").filename().string());
    EXPECT_EQ(fallback.string("CFBundleVersion"), std::nullopt);

    Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "com.example.host"}, {"CFBundleVersion", 12}},
                           std::nullopt));
    EXPECT_TRUE(Bundle::hasCustomMain());
    EXPECT_EQ(Bundle::main().identifier(), "com.example.host");
    EXPECT_EQ(Bundle::main().string("CFBundleVersion"), std::nullopt);  // a number is not text
}
