// Notes screen, lockdown screen and note views.

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtGui/QDesktopServices>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtGui/QImage>
#include <QtCore/QBuffer>
#include <QtTest/QTest>

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <vector>

#include "palomir/bundle.hpp"
#include "palomir/environment.hpp"
#include "palomir/qt/feature_view_controller.hpp"
#include "palomir/qt/lockdown_view_controller.hpp"
#include "palomir/qt/ui_support.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

using test::click;
using test::colorOf;
using test::withLockdown;

const std::string kTwoNotes =
    R"([{"identifier":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","title":"One","content":"First"},
        {"identifier":"7d444840-9dc0-11d1-b245-5ffdce74fad2","title":"Two","content":"Second"}])";

std::string lockdownJson(const std::string& type, const std::string& notes = kTwoNotes) {
    std::string json = R"({"active":true,"latest_version":"2.0","title":"Update","dismiss_title":"Later")";
    if (!type.empty()) json += R"(,"type":")" + type + "\"";
    if (!notes.empty()) json += R"(,"notes":)" + notes;
    return json + "}";
}

// ---------------------------------------------------------------------------
// The close button per lockdown type, on both screens.

struct CloseButtonCase {
    std::string type;     // "" for none
    bool visibleBefore;   // how the button was before this configuration
    bool expectedVisible;
};

class CloseButtonTest : public testing::TestWithParam<CloseButtonCase> {};

template <class Screen>
void expectCloseButton(const CloseButtonCase& row) {
    Screen screen;
    ASSERT_NE(screen.closeButton(), nullptr);
    screen.closeButton()->setVisible(row.visibleBefore);
    screen.setConfig(withLockdown(lockdownJson(row.type)));
    EXPECT_EQ(screen.closeButton()->isVisible(), row.expectedVisible);
}

TEST_P(CloseButtonTest, OnBothScreens) {
    expectCloseButton<FeatureViewController>(GetParam());
    expectCloseButton<LockdownViewController>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Types, CloseButtonTest,
                         testing::Values(CloseButtonCase{"hard", true, false}, CloseButtonCase{"soft", false, true},
                                         CloseButtonCase{"", false, false}, CloseButtonCase{"", true, true}),
                         [](const auto& info) {
                             return (info.param.type.empty() ? std::string("none") : info.param.type) +
                                    (info.param.visibleBefore ? "_wasShown" : "_wasHidden");
                         });

TEST(FeatureViewControllerTest, LockdownWithoutNotesChangesNothing) {
    FeatureViewController screen;
    const QColor before = colorOf(screen.view());
    screen.closeButton()->setVisible(true);
    screen.setConfig(withLockdown(lockdownJson("hard", "")));
    EXPECT_TRUE(screen.closeButton()->isVisible());
    EXPECT_EQ(colorOf(screen.view()), before);
    EXPECT_TRUE(screen.noteViews().empty());
}

TEST(FeatureViewControllerTest, CloseButtonTitleIsLocalised) {
    setLocaleOverride({"de-CH", "de"}, LocaleInfo{"de_CH", "de", "CH"});
    FeatureViewController german;
    EXPECT_EQ(german.closeButton()->property("text").toString(), QStringLiteral("Schließen"));
}

TEST(FeatureViewControllerTest, StackIsOneWindowWidthPerNoteAfterReapplyingAndFollowsResizes) {
    FeatureViewController screen;
    screen.view()->setSize(QSizeF(390, 844));
    const auto config = withLockdown(lockdownJson("soft"));
    screen.setConfig(config);
    screen.setConfig(config);
    EXPECT_EQ(screen.view()->property("color").value<QColor>(), QColor(0x33, 0x66, 0x99));
    ASSERT_EQ(screen.noteViews().size(), 2u);
    EXPECT_EQ(screen.stackView()->childItems().size(), 2);
    EXPECT_EQ(screen.noteViews()[0]->titleLabel()->property("text").toString(), QStringLiteral("One"));
    EXPECT_DOUBLE_EQ(screen.stackView()->width(), 780.0);
    EXPECT_DOUBLE_EQ(screen.noteViews()[1]->view()->width(), 390.0);

    screen.view()->setWidth(500);
    EXPECT_DOUBLE_EQ(screen.stackView()->width(), 1000.0);
    EXPECT_DOUBLE_EQ(screen.noteViews()[0]->view()->width(), 500.0);

    screen.setConfig(withLockdown(lockdownJson("soft", "[]")));
    EXPECT_DOUBLE_EQ(screen.stackView()->width(), 0.0);
    EXPECT_TRUE(screen.noteViews().empty());
    screen.view()->setWidth(600);
    EXPECT_DOUBLE_EQ(screen.stackView()->width(), 0.0);
}

TEST(LockdownViewControllerTest, OneNoteViewPerNotePlusSpacerKeptWhenLockdownHasNone) {
    LockdownViewController screen;
    const auto config = withLockdown(lockdownJson("soft"));
    screen.setConfig(config);
    screen.setConfig(config);
    ASSERT_NE(screen.stackView(), nullptr);
    EXPECT_EQ(screen.noteViews().size(), 2u);
    EXPECT_EQ(screen.stackView()->childItems().size(), 3);  // two notes and the spacer
    EXPECT_EQ(screen.scrollView()->parentItem(), screen.contentView());

    QQuickItem* stack = screen.stackView();
    screen.setConfig(withLockdown(lockdownJson("soft", "")));
    EXPECT_EQ(screen.stackView(), stack);
    EXPECT_EQ(screen.noteViews().size(), 2u);

    screen.setConfig(withLockdown(lockdownJson("soft", "[]")));
    EXPECT_TRUE(screen.noteViews().empty());
    ASSERT_EQ(screen.stackView()->childItems().size(), 1);
    EXPECT_EQ(screen.stackView()->childItems()[0]->objectName(), QStringLiteral("spacer"));
}

TEST(LockdownViewControllerTest, TextsColoursAndFixedTealCloseLink) {
    LockdownViewController screen;
    // Colours the theme leaves out keep the layout's own.
    const QColor fill = colorOf(screen.actionButton(), "fillColor");
    screen.setConfig(withLockdown(lockdownJson("soft")));
    EXPECT_EQ(colorOf(screen.actionButton(), "fillColor"), fill);

    screen.setConfig(withLockdown(
        R"({"active":true,"type":"soft","latest_version":"2","title":"T","subtitle":"S","action_title":"Go","dismiss_title":"Later"})",
        R"({"text_color":"#102030","background_color":"#FFFFFF","inner_background_color":"#EEEEEE",
            "action_text_color":"#010203","action_button_color":"#A0B0C0"})"));
    EXPECT_EQ(screen.titleLabel()->property("text").toString(), QStringLiteral("T"));
    EXPECT_EQ(colorOf(screen.titleLabel()), QColor(0x10, 0x20, 0x30));
    EXPECT_EQ(screen.subtitleLabel()->property("text").toString(), QStringLiteral("S"));
    EXPECT_EQ(colorOf(screen.subtitleLabel()), QColor(0x10, 0x20, 0x30));
    EXPECT_EQ(colorOf(screen.backgroundView()), QColor(0xEE, 0xEE, 0xEE));
    EXPECT_DOUBLE_EQ(screen.backgroundView()->property("radius").toDouble(), 5.0);
    EXPECT_EQ(screen.actionButton()->property("text").toString(), QStringLiteral("Go"));
    EXPECT_EQ(colorOf(screen.actionButton(), "fillColor"), QColor(0xA0, 0xB0, 0xC0));
    EXPECT_EQ(colorOf(screen.actionButton(), "titleColor"), QColor(0x01, 0x02, 0x03));
    EXPECT_EQ(screen.closeButton()->property("text").toString(), QStringLiteral("Later"));
    EXPECT_TRUE(screen.closeButton()->property("font").value<QFont>().underline());
    EXPECT_EQ(colorOf(screen.closeButton(), "titleColor"), QColor(48, 176, 199));
    EXPECT_FALSE(screen.titleImageView()->isVisible());
}

TEST(LockdownViewControllerTest, GradientGoesBehindEverythingOrRootTakesBackgroundColour) {
    LockdownViewController screen;
    screen.setConfig(withLockdown(lockdownJson("soft")));
    EXPECT_EQ(screen.backgroundGradientLayer(), nullptr);
    EXPECT_EQ(colorOf(screen.view()), QColor(0x33, 0x66, 0x99));
    screen.setConfig(std::nullopt);
    EXPECT_EQ(colorOf(screen.view()).alpha(), 0);

    const QColor layoutColour = colorOf(screen.view());
    screen.setConfig(withLockdown(lockdownJson("soft"),
                                  R"({"text_color":"#000","background_color":"#123456",
                                      "background_gradient":{"colors":["#000","#fff"],"startPoint":[0,0],"endPoint":[0,1]}})"));
    ASSERT_NE(screen.backgroundGradientLayer(), nullptr);
    EXPECT_EQ(screen.view()->childItems().first(), screen.backgroundGradientLayer());
    EXPECT_EQ(colorOf(screen.view()), layoutColour);
    screen.view()->setSize(QSizeF(300, 500));
    EXPECT_EQ(screen.backgroundGradientLayer()->size(), QSizeF(300, 500));

    // Re-applying replaces the gradient rather than stacking another.
    QPointer<QQuickItem> first = screen.backgroundGradientLayer();
    screen.setConfig(screen.config());
    EXPECT_NE(screen.backgroundGradientLayer(), first.data());
    EXPECT_EQ(first ? first->parentItem() : nullptr, nullptr);
}

TEST(LockdownViewControllerTest, ActionOpensUrlThenReportsPerformActionAndStays) {
    test::UrlSink sink;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &sink, "open");
    LockdownViewController screen;
    std::vector<DismissAction> reported;
    screen.setDismissCallback([&](DismissAction action) { reported.push_back(action); });
    screen.setConfig(withLockdown(
        R"({"active":true,"type":"hard","latest_version":"2","action_url":"https://apps.example.com/app/1"})"));
    click(screen.actionButton());
    ASSERT_EQ(sink.opened.size(), 1u);
    EXPECT_EQ(sink.opened[0], QUrl(QStringLiteral("https://apps.example.com/app/1")));
    EXPECT_EQ(reported, std::vector<DismissAction>{DismissAction::performAction});

    screen.setConfig(withLockdown(R"({"active":true,"type":"hard","latest_version":"2"})"));
    click(screen.actionButton());
    EXPECT_EQ(sink.opened.size(), 1u);
    EXPECT_EQ(reported, (std::vector<DismissAction>{DismissAction::performAction, DismissAction::performAction}));
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
}

TEST(LockdownViewControllerDeathTest, LayoutWithoutRequiredOutletStopsAtFirstApply) {
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    QDir(directory.path()).mkpath(QStringLiteral("layouts"));
    std::ofstream(QDir(directory.path()).filePath(QStringLiteral("layouts/LockdownViewController.qml")).toStdString())
        << "import QtQuick\nRectangle {\n"
           "  Rectangle { objectName: \"backgroundView\" }\n"
           "  Item { objectName: \"contentView\" }\n"
           "  Image { objectName: \"titleImageView\" }\n"
           "  Text { objectName: \"subtitleLabel\" }\n"
           "  Item { objectName: \"actionButton\" }\n"
           "  Item { objectName: \"closeButton\" }\n"
           "}\n";
    Bundle::setPalomirResourceDirectory(directory.path().toStdString());
    LockdownViewController screen;  // loading alone is fine
    EXPECT_DEATH(screen.setConfig(withLockdown(lockdownJson("soft"))),
                 "LockdownViewController: the layout has no item with objectName \"titleLabel\"");
    Bundle::setPalomirResourceDirectory({});
}

// ---------------------------------------------------------------------------
// Note views

TEST(NoteViewTest, LabelsForEmptyTextsAreHiddenButNotTheirContainers) {
    for (auto style : {NoteStyle::horizontal, NoteStyle::fullscreen}) {
        auto view = createNoteView(style);
        ASSERT_NE(view, nullptr);
        Note note;
        note.title = "Title";
        note.subtitle = "Sub";
        note.content = "Body";
        view->apply(note);
        EXPECT_TRUE(view->titleLabel()->isVisible());
        EXPECT_TRUE(view->subtitleLabel()->isVisible());
        EXPECT_EQ(view->contentLabel()->property("text").toString(), QStringLiteral("Body"));
        EXPECT_FALSE(view->imageView()->isVisible());

        Note blank;
        blank.subtitle = "";
        auto empty = createNoteView(style);
        empty->apply(blank);
        EXPECT_FALSE(empty->titleLabel()->isVisible());
        EXPECT_FALSE(empty->subtitleLabel()->isVisible());
        EXPECT_FALSE(empty->contentLabel()->isVisible());
        EXPECT_TRUE(empty->titleContainer()->isVisible());
        EXPECT_TRUE(empty->subtitleContainer()->isVisible());
        EXPECT_TRUE(empty->contentContainer()->isVisible());
    }
}

// Serves one HTTP response to every connection.
class OneShotServer : public QTcpServer {
public:
    explicit OneShotServer(QByteArray response) : _response(std::move(response)) {
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (auto* socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    socket->readAll();
                    socket->write(_response);
                    socket->disconnectFromHost();
                });
            }
        });
        listen(QHostAddress::LocalHost);
    }
    QString url(const char* path) const {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(QLatin1String(path));
    }

private:
    QByteArray _response;
};

QByteArray pngResponse() {
    QImage image(8, 8, QImage::Format_ARGB32);
    image.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return "HTTP/1.1 200 OK\r\nContent-Type: image/png\r\nContent-Length: " + QByteArray::number(png.size()) +
           "\r\nConnection: close\r\n\r\n" + png;
}

// The image view shows once the image arrives; a failed load is only printed.
TEST(NoteViewTest, ImageViewShownOnceTheImageArrivesAndAFailedLoadIsPrinted) {
    OneShotServer server(pngResponse());
    OneShotServer missing("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    auto view = createNoteView(NoteStyle::fullscreen);
    auto failing = createNoteView(NoteStyle::horizontal);
    Note note;
    note.title = "T";
    note.content = "C";
    note.image = Url::parse(server.url("/note.png").toStdString());
    ASSERT_TRUE(note.image.has_value());
    testing::internal::CaptureStdout();
    view->apply(note);
    note.image = Url::parse(missing.url("/missing.png").toStdString());
    failing->apply(note);
    EXPECT_FALSE(view->imageView()->isVisible());
    EXPECT_TRUE(test::waitUntil([&] { return view->imageView()->property("status").toInt() == 1; }));  // Image.Ready
    // A local answer arrives well within this.
    QTest::qWait(500);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(view->imageView()->isVisible());
    EXPECT_TRUE(view->imageView()->property("source").toUrl().toString().startsWith(QStringLiteral("image://palomir/")));
    EXPECT_NE(printed.find("Error while loading note image: "), std::string::npos) << printed;
    EXPECT_NE(printed.find("Not Found"), std::string::npos) << printed;
    EXPECT_FALSE(failing->imageView()->isVisible());
}

// ---------------------------------------------------------------------------
// Shared pieces

TEST(RoundButtonTest, RadiusIsFiveUntilSetAndAppliedAtOnce) {
    LockdownViewController screen;  // its action button is a RoundButton
    auto* background = screen.actionButton()->property("background").value<QQuickItem*>();
    ASSERT_NE(background, nullptr);
    EXPECT_DOUBLE_EQ(background->property("radius").toDouble(), 5.0);
    auto* round = screen.actionButton()->findChild<RoundButton*>();
    ASSERT_NE(round, nullptr);
    EXPECT_DOUBLE_EQ(round->cornerRadius(), 5.0);
    round->setCornerRadius(14.0);
    EXPECT_DOUBLE_EQ(background->property("radius").toDouble(), 14.0);
}

TEST(PinEdgesTest, PinsNamedEdgesWithOffsetsAsGiven) {
    QQuickItem parent;
    parent.setSize(QSizeF(200, 100));
    QQuickItem child;
    child.setParentItem(&parent);
    child.setSize(QSizeF(10, 10));
    pinEdges(&child, {}, &parent);
    EXPECT_EQ(child.position(), QPointF(0, 0));
    EXPECT_EQ(child.size(), QSizeF(10, 10));

    pinEdges(&child, Edge::top | Edge::left | Edge::bottom | Edge::right, &parent, QMarginsF(5, 6, -7, -8));
    EXPECT_EQ(child.position(), QPointF(5, 6));
    EXPECT_EQ(child.size(), QSizeF(200 - 5 - 7, 100 - 6 - 8));
    parent.setSize(QSizeF(300, 200));
    EXPECT_EQ(child.size(), QSizeF(300 - 5 - 7, 200 - 6 - 8));
}

}  // namespace
}  // namespace palomir::qt

