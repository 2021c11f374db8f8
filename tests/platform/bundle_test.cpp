#include "palomir/bundle.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "palomir/environment.hpp"
#include "palomir_test/temp_dir.hpp"

using namespace palomir;
namespace fs = std::filesystem;

namespace {

// A Palomir.bundle stand-in, removed again when the test ends. (A main
// bundle the host sets, and the compiled-in German table, are proven by the
// screens' tests; a version that is no text by the app-info table.)
class ResourceDirectory : public ::testing::Test {
protected:
    void TearDown() override {
        Bundle::setPalomirResourceDirectory({});
        clearLocaleOverride();
    }
    void write(const std::string& name, const std::string& content) {
        const auto path = _temp / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    palomir_test::TempDir _temp;
};

}  // namespace

TEST_F(ResourceDirectory, OverrideDirectoryIsLookedInFirstAndCompiledInResourcesSecond) {
    EXPECT_EQ(Bundle::main().identifier(), fs::read_symlink("/proc/self/exe").filename().string());
    EXPECT_EQ(Bundle::palomir().resourceDirectory(), std::nullopt);  // no Palomir.bundle beside the test program

    write("layouts/Extra.qml", "Item {}");
    write("../outside.txt", "x");
    Bundle::setPalomirResourceDirectory(_temp.path());
    const auto bundle = Bundle::palomir();
    EXPECT_EQ(bundle.resourceFile("layouts/Extra.qml"), _temp / "layouts/Extra.qml");
    EXPECT_EQ(bundle.resourceText("layouts/Extra.qml"), "Item {}");
    // What the directory lacks still comes from the library.
    EXPECT_NE(bundle.resourceText("de.lproj/Localizable.json").value_or("").find("Schließen"), std::string::npos);
    // Names may not reach outside the directory.
    EXPECT_EQ(bundle.resourceText("../outside.txt"), std::nullopt);
    fs::remove(_temp.path().parent_path() / "outside.txt");
}

TEST_F(ResourceDirectory, LocalizedStringsFallBackToEnglishAndAnOverrideTableWinsForItsKeysOnly) {
    // A language the library carries no table for falls back to English.
    setLocaleOverride({"tlh-QO"}, LocaleInfo{"tlh_QO", "tlh", "QO"});
    EXPECT_EQ(Bundle::palomir().localizedString("PalomirCloseButtonTitle"), "Close");

    write("tlh.lproj/Localizable.json", R"({"PalomirCloseButtonTitle": "SoQmoH"})");
    write("de.lproj/Localizable.json", R"({"Other": "Anderes"})");
    Bundle::setPalomirResourceDirectory(_temp.path());
    EXPECT_EQ(Bundle::palomir().localizedString("PalomirCloseButtonTitle"), "SoQmoH");
    setLocaleOverride({"de"}, LocaleInfo{"de", "de", std::nullopt});
    EXPECT_EQ(Bundle::palomir().localizedString("PalomirCloseButtonTitle"), "Schließen");
    EXPECT_EQ(Bundle::palomir().localizedString("Other"), "Anderes");
    EXPECT_EQ(Bundle(nlohmann::json::object(), std::nullopt).localizedString("Other", "Other?"), "Other?");
}
