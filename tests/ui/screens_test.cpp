// Notes screen, lockdown screen and note views.

#include <QtTest/QTest>

#include <gtest/gtest.h>

#include <vector>

#include "palomir/environment.hpp"
#include "palomir/qt/feature_view_controller.hpp"
#include "palomir/qt/lockdown_view_controller.hpp"
#include "palomir/qt/ui_support.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

using namespace test;

const std::string kTwoNotes =
    R"([{"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","title":"One","content":"First"},
        {"identifier":"7d444840-9dc0-11d1-b245-5ffdce74fad2","title":"Two","content":"Second"}])";

std::string lockdownJson(const std::string& type, const std::string& notes = kTwoNotes) {
    std::string json = R"({"active":true,"latest_version":"2.0","title":"Update","dismiss_title":"Later")";
    if (!type.empty()) json += R"(,"type":")" + type + "\"";
    if (!notes.empty()) json += R"(,"notes":)" + notes;
    return json + "}";
}

// A hard lockdown hides the close button, a soft one shows it, and one
// without a type leaves it as it was, on both screens.
TEST(CloseButtonTest, FollowsTheLockdownTypeOnBothScreens) {
    // Lockdown type ("" for none), the button's visibility before, and after.
    const std::tuple<std::string, bool, bool> cases[] = {{"hard", true, false}, {"soft", false, true},
                                                         {"", false, false}, {"", true, true}};
    for (const auto& [type, before, after] : cases) {
        FeatureViewController notes;
        LockdownViewController lockdown;
        for (auto* button : {notes.closeButton(), lockdown.closeButton()}) button->setVisible(before);
        notes.setConfig(withLockdown(lockdownJson(type)));
        lockdown.setConfig(withLockdown(lockdownJson(type)));
        for (auto* button : {notes.closeButton(), lockdown.closeButton()})
            EXPECT_EQ(button->isVisible(), after) << "type \"" << type << '"';
    }
}

// Applying the same notes twice shows them once on the theme's background;
// an empty list clears them.
template <class Screen>
void expectNotesShownOnceThenCleared(Screen& screen, int extraItems) {
    const auto config = withLockdown(lockdownJson("soft"));
    screen.setConfig(config);
    screen.setConfig(config);
    EXPECT_EQ(colorOf(screen.view()), QColor(0x33, 0x66, 0x99));
    EXPECT_EQ(screen.noteViews().size(), 2u);
    EXPECT_EQ(screen.stackView()->childItems().size(), 2 + extraItems);
    screen.setConfig(withLockdown(lockdownJson("soft", "[]")));
    EXPECT_TRUE(screen.noteViews().empty());
    EXPECT_EQ(screen.stackView()->childItems().size(), extraItems);
    screen.setConfig(config);
}

TEST(FeatureViewControllerTest, LocalisedCloseTitleAndNothingChangedByALockdownWithoutNotes) {
    setLocaleOverride({"de-CH", "de"}, LocaleInfo{"de_CH", "de", "CH"});
    FeatureViewController screen;
    EXPECT_EQ(text(screen.closeButton()), QStringLiteral("Schließen"));

    // A hard lockdown without notes leaves the close button to the notes shown.
    screen.closeButton()->setVisible(true);
    screen.setConfig(withLockdown(lockdownJson("hard", "")));
    EXPECT_TRUE(screen.closeButton()->isVisible());

    expectNotesShownOnceThenCleared(screen, 0);
}

TEST(LockdownViewControllerTest, NoteViewsPlusSpacerAndAGradientOrTheBackgroundColour) {
    LockdownViewController screen;
    expectNotesShownOnceThenCleared(screen, 1);  // the spacer stays
    // A lockdown without notes keeps the ones shown.
    screen.setConfig(withLockdown(lockdownJson("soft", "")));
    EXPECT_EQ(screen.noteViews().size(), 2u);

    screen.setConfig(withLockdown(lockdownJson("soft"),
                                  R"({"text_color":"#000","background_color":"#123456",
                                      "background_gradient":{"colors":["#000","#fff"],"startPoint":[0,0],"endPoint":[0,1]}})"));
    ASSERT_NE(screen.backgroundGradientLayer(), nullptr);
    EXPECT_EQ(screen.view()->childItems().first(), screen.backgroundGradientLayer());
    screen.view()->setSize(QSizeF(300, 500));
    EXPECT_EQ(screen.backgroundGradientLayer()->size(), QSizeF(300, 500));
    // Re-applying replaces the gradient rather than stacking another.
    QPointer<QQuickItem> first = screen.backgroundGradientLayer();
    screen.setConfig(screen.config());
    EXPECT_NE(screen.backgroundGradientLayer(), first.data());
    EXPECT_EQ(first ? first->parentItem() : nullptr, nullptr);
}

TEST(LockdownViewControllerTest, TextsColoursAndTheActionOpeningItsUrl) {
    UrlSink sink;
    LockdownViewController screen;
    std::vector<DismissAction> reported;
    screen.setDismissCallback([&](DismissAction action) { reported.push_back(action); });
    screen.setConfig(withLockdown(R"({"active":true,"type":"soft","latest_version":"2","title":"T","subtitle":"S",
                                      "action_title":"Go","dismiss_title":"Later","action_url":"https://apps.example/1"})",
                                  R"({"text_color":"#102030","background_color":"#FFFFFF","inner_background_color":"#EEE",
                                      "action_text_color":"#010203","action_button_color":"#A0B0C0"})"));
    // Each outlet, the property the document sets on it, and the value.
    const std::tuple<QQuickItem*, const char*, QVariant> shown[] = {
        {screen.titleLabel(), "text", "T"}, {screen.titleLabel(), "color", QColor(0x10, 0x20, 0x30)},
        {screen.subtitleLabel(), "text", "S"}, {screen.backgroundView(), "color", QColor(0xEE, 0xEE, 0xEE)},
        {screen.actionButton(), "text", "Go"}, {screen.actionButton(), "fillColor", QColor(0xA0, 0xB0, 0xC0)},
        {screen.actionButton(), "titleColor", QColor(0x01, 0x02, 0x03)}, {screen.closeButton(), "text", "Later"}};
    for (const auto& [item, property, value] : shown) EXPECT_EQ(item->property(property), value) << property;

    click(screen.actionButton());
    EXPECT_EQ(sink.opened, std::vector<QUrl>{QUrl(QStringLiteral("https://apps.example/1"))});
    EXPECT_EQ(reported, std::vector<DismissAction>{DismissAction::performAction});
    // Without a URL the action is still reported.
    screen.setConfig(withLockdown(R"({"active":true,"type":"hard","latest_version":"2"})"));
    click(screen.actionButton());
    EXPECT_EQ(reported, (std::vector<DismissAction>{DismissAction::performAction, DismissAction::performAction}));
}

// The image view stays hidden until the image has arrived, then shows.
TEST(NoteViewTest, TheImageShowsOnceItArrives) {
    auto view = createNoteView(NoteStyle::fullscreen);
    Note note;
    note.image = Url::parse(QUrl::fromLocalFile(QStringLiteral(PALOMIR_UI_TEST_IMAGE)).toString().toStdString());
    view->apply(note);
    EXPECT_FALSE(view->imageView()->isVisible());
    ASSERT_TRUE(QTest::qWaitFor([&] { return view->imageView()->property("status").toInt() == 1; }));  // Ready
    EXPECT_TRUE(view->imageView()->isVisible());
}

}  // namespace
}  // namespace palomir::qt
