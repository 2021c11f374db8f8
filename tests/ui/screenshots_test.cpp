// Renders every screen for a few configurations, light and dark, into the
// build tree (tests/ui/screenshots) for people to look at, and checks that
// each picture shows something.

#include <QtCore/QDir>
#include <QtGui/QImage>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "render.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

struct Document {
    const char* folder;
    const char* name;
    int expectedFiles;  // per appearance
};

class ScreenshotTest : public testing::TestWithParam<Document> {};

// Distinct colours in a coarse sample: a blank picture has one or two.
int distinctColours(const QImage& image) {
    std::set<QRgb> colours;
    for (int y = 0; y < image.height(); y += 4) {
        for (int x = 0; x < image.width(); x += 4) colours.insert(image.pixel(x, y));
    }
    return static_cast<int>(colours.size());
}

TEST_P(ScreenshotTest, RendersEveryScreenInLightAndDark) {
    const QString path = QDir(QString::fromUtf8(GetParam().folder)).filePath(QString::fromUtf8(GetParam().name) + ".json");
    const auto configuration = test::configurationFile(path);
    for (auto appearance : {preview::Appearance::light, preview::Appearance::dark}) {
        QString error;
        preview::RenderOptions options;
        options.settleMilliseconds = 50;
        const auto files = preview::renderConfiguration(configuration, QStringLiteral(PALOMIR_UI_TEST_OUTPUT),
                                                        QString::fromUtf8(GetParam().name), appearance, options, &error);
        EXPECT_TRUE(error.isEmpty()) << error.toStdString();
        EXPECT_EQ(files.size(), GetParam().expectedFiles);
        for (const auto& file : files) {
            const QImage image(file);
            ASSERT_FALSE(image.isNull()) << file.toStdString();
            EXPECT_EQ(image.size(), options.size) << file.toStdString();
            // An inactive lockdown without texts is never shown; its picture
            // is rightly empty.
            if (file.contains(QStringLiteral("-lockdown-")) && !configuration.lockdown.active) continue;
            EXPECT_GT(distinctColours(image), 8) << file.toStdString() << " looks blank";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Documents, ScreenshotTest,
                         testing::Values(Document{PALOMIR_UI_TEST_MODEL_DATA, "configuration", 6},
                                         Document{PALOMIR_UI_TEST_MODEL_DATA, "configuration_lockdown", 2},
                                         Document{PALOMIR_UI_TEST_DATA, "banner_dark", 6},
                                         Document{PALOMIR_UI_TEST_SCENARIOS, "notes-only", 2},
                                         Document{PALOMIR_UI_TEST_SCENARIOS, "soft-lockdown", 2},
                                         Document{PALOMIR_UI_TEST_SCENARIOS, "hard-lockdown", 2},
                                         Document{PALOMIR_UI_TEST_SCENARIOS, "outage", 6}),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
}  // namespace palomir::qt
