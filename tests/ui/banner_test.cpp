// The service message banner and its placement.

#include <QtCore/QTemporaryDir>
#include <gtest/gtest.h>

#include "palomir/client.hpp"
#include "palomir/environment.hpp"
#include "palomir/qt/message_view_controller.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

using test::text;
using Location = Palomir::MessageViewLocation;

// Appearance, light and dark colours of the message, and the card's colour.
using ColourCase = std::tuple<UserInterfaceStyle, std::optional<std::string>, std::optional<std::string>, QColor>;

TEST(BannerColourTest, CardColourIsChosenForTheAppearance) {
    // The two that tell the appearances apart: each picks its own colour, and
    // a dark appearance without a dark colour falls back to white, not to light.
    const ColourCase cases[] = {{UserInterfaceStyle::light, "#FEF3C7", "#78350F", QColor(0xFE, 0xF3, 0xC7)},
                                {UserInterfaceStyle::dark, "#FEF3C7", std::nullopt, QColor(Qt::white)}};
    for (const auto& [style, light, dark, expected] : cases) {
        ServiceMessage message;
        if (light) message.backgroundColorLight = Color::fromHex(*light);
        if (dark) message.backgroundColorDark = Color::fromHex(*dark);
        MessageViewController banner;
        banner.setUserInterfaceStyle(style);
        banner.setMessage(message);
        EXPECT_EQ(test::colorOf(banner.roundedCornersView()), expected) << light.value_or("-") << " " << dark.value_or("-");
    }
}

// The worst service's message is placed inside the safe area at either
// location, reused while one is due, and taken away (with what the host
// kept) once none is; pressing the chevron twice restores the start. (The
// demo's end-to-end run places one from the configuration the client holds.)
TEST(UpdateMessageViewTest, PlacesTheWorstMessageTogglesItAndRemovesItWhenNoneIsDue) {
    QTemporaryDir caches;
    setCachesDirectory(caches.path().toStdString());
    test::UrlSink sink;
    QObject host;
    QQuickItem view;
    view.setSize(QSizeF(400, 800));
    setSafeAreaMargins(&view, QMarginsF(0, 40, 0, 30));
    const auto withMessage = test::withLockdown(R"({"active":false,"latest_version":"1"})", {}, R"([
        {"name":"A","identifier":"a","is_available":true,"state":"warning","triggers_message":true,"message":{"title":"Slow"}},
        {"name":"B","identifier":"b","is_available":true,"state":"error","triggers_message":true,
         "message":{"title":"Down","description":"Changes are kept.","url_title":"Status","url":"https://status.example.com/sync"}}])");
    auto withoutMessage = withMessage;  // the worst service without its message
    withoutMessage.services->at(1).message.reset();
    auto banner = updateMessageView(&host, &view, Location::top, 10, withMessage);
    ASSERT_FALSE(banner.isNull());
    EXPECT_EQ(text(banner->titleLabel()), QStringLiteral("Down"));
    EXPECT_EQ(text(banner->descriptionLabel()), QStringLiteral("Changes are kept."));
    EXPECT_EQ(text(banner->moreInfoButton()), QStringLiteral("Status"));
    EXPECT_EQ(banner->view()->parentItem(), &view);
    EXPECT_DOUBLE_EQ(banner->view()->y(), 50.0);
    EXPECT_DOUBLE_EQ(banner->view()->x() + banner->view()->width() / 2, 200.0);

    for (const auto location : {Location::top, Location::bottom}) {
        EXPECT_EQ(updateMessageView(&host, &view, location, -10, withMessage), banner);
        // At the bottom the chevron points up while collapsed.
        const bool collapsedFlipped = location == Location::bottom;
        const auto expectState = [&](bool expanded) {
            EXPECT_EQ(banner->descriptionContainer()->isVisible(), expanded);
            EXPECT_EQ(banner->titleLabel()->property("maximumLineCount").toInt() > 1, expanded);
            EXPECT_EQ(banner->chevronFlipped(), collapsedFlipped != expanded);
        };
        expectState(false);
        banner->expandButtonPressed();
        expectState(true);
        test::click(banner->expandButton());
        expectState(false);
    }

    test::click(banner->moreInfoButton());
    EXPECT_EQ(sink.opened, std::vector<QUrl>{QUrl(QStringLiteral("https://status.example.com/sync"))});

    EXPECT_TRUE(updateMessageView(&host, &view, Location::top, 10, withoutMessage).isNull());
    EXPECT_TRUE(view.childItems().isEmpty());
    EXPECT_TRUE(banner.isNull());

    // A new banner at the bottom: a negative distance lifts it above the safe area.
    banner = updateMessageView(&host, &view, Location::bottom, -10, withMessage);
    ASSERT_FALSE(banner.isNull());
    EXPECT_DOUBLE_EQ(banner->view()->y() + banner->view()->height(), 800.0 - 30.0 - 10.0);
}

}  // namespace
}  // namespace palomir::qt
