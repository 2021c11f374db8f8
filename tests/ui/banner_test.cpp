// The service message banner and its placement.

#include <QtGui/QDesktopServices>

#include <QtCore/QTemporaryDir>
#include <gtest/gtest.h>

#include "palomir/client.hpp"
#include "palomir/environment.hpp"
#include "palomir/qt/message_view_controller.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

using test::click;
using test::colorOf;
using test::text;

ServiceMessage message(std::optional<std::string> light, std::optional<std::string> dark) {
    ServiceMessage m;
    m.title = "Sync is paused";
    m.description = "Changes are kept on this device.";
    m.urlTitle = "Status";
    if (light) m.backgroundColorLight = Color::fromHex(*light);
    if (dark) m.backgroundColorDark = Color::fromHex(*dark);
    return m;
}

// Appearance, light and dark colours of the message, and the card's colour.
using ColourCase = std::tuple<UserInterfaceStyle, std::optional<std::string>, std::optional<std::string>, QColor>;

class BannerColourTest : public testing::TestWithParam<ColourCase> {};

TEST_P(BannerColourTest, CardColourIsChosenForTheAppearance) {
    const auto& [style, light, dark, expected] = GetParam();
    MessageViewController banner;
    banner.setUserInterfaceStyle(style);
    banner.setMessage(message(light, dark));
    EXPECT_EQ(colorOf(banner.roundedCornersView()), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Appearances, BannerColourTest,
    testing::Values(ColourCase{UserInterfaceStyle::light, "#FEF3C7", "#78350F", QColor(0xFE, 0xF3, 0xC7)},
                    ColourCase{UserInterfaceStyle::dark, "#FEF3C7", "#78350F", QColor(0x78, 0x35, 0x0F)},
                    ColourCase{UserInterfaceStyle::light, std::nullopt, std::nullopt, QColor(Qt::white)},
                    ColourCase{UserInterfaceStyle::dark, std::nullopt, std::nullopt, QColor(Qt::white)},
                    ColourCase{UserInterfaceStyle::dark, "#FEF3C7", std::nullopt, QColor(Qt::white)}));

TEST(MessageViewControllerTest, TextsMoreInfoAndTwoPressesRestoringTheStartAtEitherLocation) {
    test::UrlSink sink;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &sink, "open");
    for (auto location : {Palomir::MessageViewLocation::top, Palomir::MessageViewLocation::bottom}) {
        // At the bottom the chevron points up while collapsed.
        const bool collapsedFlipped = location == Palomir::MessageViewLocation::bottom;
        MessageViewController banner;
        banner.setLocation(location);
        auto m = message(std::nullopt, std::nullopt);
        banner.setMessage(m);
        EXPECT_EQ(text(banner.titleLabel()), QStringLiteral("Sync is paused"));
        EXPECT_EQ(text(banner.descriptionLabel()), QStringLiteral("Changes are kept on this device."));
        EXPECT_EQ(text(banner.moreInfoButton()), QStringLiteral("Status"));

        const auto image = [&] { return banner.expandButton()->property("image").toUrl().toString(); };
        const QString startImage = image();
        const auto expectState = [&](bool expanded) {
            EXPECT_EQ(banner.descriptionContainer()->isVisible(), expanded);
            EXPECT_EQ(banner.titleLabel()->property("maximumLineCount").toInt() > 1, expanded);
            EXPECT_EQ(banner.chevronFlipped(), collapsedFlipped != expanded);
            EXPECT_EQ(image() != startImage, expanded);
        };
        expectState(false);
        banner.expandButtonPressed();
        expectState(true);
        click(banner.expandButton());
        expectState(false);

        // More info opens the message's URL, and does nothing without one.
        sink.opened.clear();
        click(banner.moreInfoButton());
        EXPECT_TRUE(sink.opened.empty());
        m.url = Url::parse("https://status.example.com/sync");
        banner.setMessage(m);
        click(banner.moreInfoButton());
        EXPECT_EQ(sink.opened, std::vector<QUrl>{QUrl(QStringLiteral("https://status.example.com/sync"))});
    }
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
}

const char* kWithMessage = R"({"version":"1","theme":{"text_color":"#000","background_color":"#fff"},"notes":[],
  "lockdown":{"active":false,"latest_version":"1"},
  "services":[{"name":"A","identifier":"a","is_available":true,"state":"warning","triggers_message":true,
               "message":{"title":"Slow"}},
              {"name":"B","identifier":"b","is_available":true,"state":"error","triggers_message":true,
               "message":{"title":"Down"}}]})";
const char* kWithoutMessage = R"({"version":"1","theme":{"text_color":"#000","background_color":"#fff"},"notes":[],
  "lockdown":{"active":false,"latest_version":"1"},
  "services":[{"name":"B","identifier":"b","is_available":true,"state":"error","triggers_message":true}]})";

TEST(UpdateMessageViewTest, ShowsWorstMessageReusesBannerAndRemovesItWhenNoMessage) {
    QTemporaryDir caches;
    setCachesDirectory(caches.path().toStdString());
    QObject host;
    QQuickItem view;
    view.setSize(QSizeF(400, 800));
    setSafeAreaMargins(&view, QMarginsF(0, 40, 0, 30));
    const auto withMessage = test::configuration(kWithMessage);
    const auto withoutMessage = test::configuration(kWithoutMessage);
    EXPECT_TRUE(updateMessageView(&host, &view, Palomir::MessageViewLocation::top, 10, std::nullopt).isNull());
    // Without a configuration argument the client's counts, and it holds none yet.
    EXPECT_TRUE(updateMessageView(&host, &view, Palomir::MessageViewLocation::top, 10).isNull());
    EXPECT_TRUE(view.childItems().isEmpty());

    auto banner = updateMessageView(&host, &view, Palomir::MessageViewLocation::top, 10, withMessage);
    ASSERT_FALSE(banner.isNull());
    EXPECT_EQ(text(banner->titleLabel()), QStringLiteral("Down"));
    EXPECT_EQ(banner->view()->parentItem(), &view);
    EXPECT_DOUBLE_EQ(banner->view()->y(), 50.0);
    EXPECT_DOUBLE_EQ(banner->view()->x() + banner->view()->width() / 2, 200.0);

    auto again = updateMessageView(&host, &view, Palomir::MessageViewLocation::bottom, -10, withMessage);
    EXPECT_EQ(again, banner);
    EXPECT_EQ(again->location(), Palomir::MessageViewLocation::bottom);
    EXPECT_EQ(host.findChildren<MessageViewController*>().size(), 1);
    EXPECT_TRUE(updateMessageView(&host, &view, Palomir::MessageViewLocation::top, 10, withoutMessage).isNull());
    EXPECT_TRUE(host.findChildren<MessageViewController*>().isEmpty());
    EXPECT_TRUE(view.childItems().isEmpty());
    EXPECT_TRUE(banner.isNull());  // what the host kept tells it is gone

    // A new banner at the bottom, from the configuration the client holds,
    // sits above the safe area.
    Palomir::shared().setConfiguration(withMessage);
    banner = updateMessageView(&host, &view, Palomir::MessageViewLocation::bottom, -10);
    ASSERT_FALSE(banner.isNull());
    EXPECT_EQ(text(banner->titleLabel()), QStringLiteral("Down"));
    EXPECT_DOUBLE_EQ(banner->view()->y() + banner->view()->height(), 800.0 - 30.0 - 10.0);
    EXPECT_TRUE(banner->chevronFlipped());
    Palomir::shared().setConfiguration(withoutMessage);
    EXPECT_TRUE(updateMessageView(&host, &view, Palomir::MessageViewLocation::bottom, -10).isNull());
    EXPECT_TRUE(host.findChildren<MessageViewController*>().isEmpty());
}

}  // namespace
}  // namespace palomir::qt

