// Renders the stress set and the example documents into the build tree
// (tests/ui/screenshots) for people to look at, and checks the geometry of
// every picture: texts stay inside the window and their panel, do not overlap,
// read at 4.5:1 where the layout chose a colour, and taps stop at the screen.

#include <QtCore/QFileInfo>
#include <QtQuick/QQuickWindow>
#include <QtTest/QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "render.hpp"
#include "support.hpp"

namespace palomir::qt {
namespace {

using preview::StressCase;

double contrast(const QColor& a, const QColor& b) {
    const auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
    const auto luminance = [&](const QColor& c) {
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const auto [dark, light] = std::minmax(luminance(a), luminance(b));
    return (light + 0.05) / (dark + 0.05);
}

QColor over(const QColor& top, double alpha, const QColor& below) {
    const auto mix = [&](double t, double b) { return t * alpha + b * (1.0 - alpha); };
    return QColor::fromRgbF(mix(top.redF(), below.redF()), mix(top.greenF(), below.greenF()),
                            mix(top.blueF(), below.blueF()));
}

// The items drawn under `item`, in paint order; screens and notes are owned
// by their controllers, so the object tree does not tell.
QList<QQuickItem*> drawnUnder(QQuickItem* item) {
    QList<QQuickItem*> items;
    for (QQuickItem* child : item->childItems()) items << child << drawnUnder(child);
    return items;
}

QQuickItem* find(QQuickItem* item, const char* name) {
    const auto items = drawnUnder(item);
    const auto it = std::find_if(items.begin(), items.end(), [&](auto* i) { return i->objectName() == QLatin1String(name); });
    return it == items.end() ? nullptr : *it;
}

QRectF sceneRect(const QQuickItem* item) { return item->mapRectToScene(QRectF(0, 0, item->width(), item->height())); }

bool named(const QQuickItem* item, const char* name) {
    return item && (item->objectName() == QLatin1String(name) || named(item->parentItem(), name));
}

// What the layout puts beneath `text` at `centre`, one colour per stop of
// the theme's gradient when that lies beneath (else the window's colour),
// with every translucent rectangle above it composited on.
std::vector<QColor> backgrounds(const QQuickItem* text, const QPointF centre, const QQuickWindow& window,
                                const Configuration& configuration) {
    std::vector<std::pair<QColor, double>> layers;  // innermost first; alpha -1 marks the gradient
    for (const QQuickItem* child = text; child->parentItem(); child = child->parentItem()) {
        const QQuickItem* parent = child->parentItem();
        const auto siblings = parent->childItems();
        const auto at = siblings.indexOf(const_cast<QQuickItem*>(child));
        for (auto i = siblings.size() - 1; i >= 0; --i) {
            const QQuickItem* r = siblings[i];
            const bool before = r->z() < child->z() || (r->z() == child->z() && i < at);
            if (!before || !r->isVisible() || r->opacity() <= 0 || !sceneRect(r).contains(centre)) continue;
            if (r->objectName() == QLatin1String("backgroundGradientLayer") && configuration.theme.backgroundGradient) {
                layers.emplace_back(QColor(), -1.0);
            } else if (r->inherits("QQuickRectangle") && test::colorOf(r).alpha() > 0) {
                layers.emplace_back(test::colorOf(r), test::colorOf(r).alphaF() * r->opacity());
            }
        }
        if (parent->inherits("QQuickRectangle") && test::colorOf(parent).alpha() > 0)
            layers.emplace_back(test::colorOf(parent), test::colorOf(parent).alphaF() * parent->opacity());
    }
    // Composite from the first opaque layer (or the gradient) inwards.
    const auto start = std::find_if(layers.begin(), layers.end(), [](const auto& l) { return l.second < 0 || l.second >= 1; });
    std::vector<QColor> bases{start == layers.end() ? window.color() : start->first};
    if (start != layers.end() && start->second < 0) {
        bases.clear();
        for (const auto& stop : configuration.theme.backgroundGradient->colors)
            bases.push_back(QColor::fromRgbF(static_cast<float>(stop.red), static_cast<float>(stop.green),
                                             static_cast<float>(stop.blue)));
    }
    for (QColor& base : bases) {
        for (auto it = std::make_reverse_iterator(start); it != layers.rend(); ++it) base = over(it->first, it->second, base);
    }
    return bases;
}

// Colours the backend's theme or the screen's fixed design name for both text
// and background are the backend's business; every other pair is ours.
bool themeChosen(const QQuickItem* text, const Configuration& configuration) {
    if (!named(text, "lockdownView") || named(text, "noteView")) return false;
    const auto& theme = configuration.theme;
    if (named(text, "closeButton")) return true;  // the fixed teal link
    if (named(text, "actionButton")) return theme.actionTextColor && theme.actionButtonColor;
    return theme.innerBackgroundColor.has_value();
}

// The texts shown on `screen` stay inside `bounds` and apart, and read well
// on every colour the layout puts beneath them.
void checkTexts(QQuickWindow& window, QQuickItem* screen, const QRectF& bounds, const Configuration& configuration) {
    std::vector<std::pair<QRectF, std::string>> shown;  // what is seen of each text, and its name
    for (QQuickItem* text : drawnUnder(screen)) {
        if (!text->inherits("QQuickText") || !text->isVisible() || test::text(text).isEmpty()) continue;
        QRectF rect = sceneRect(text), seen = rect;
        bool scrolls = false;
        double opacity = 1;
        for (const QQuickItem* a = text; a; a = a->parentItem()) {
            if (a->clip()) seen &= sceneRect(a);
            if (a->inherits("QQuickFlickable") && a->property("contentHeight").toReal() > a->height() + 1)
                scrolls = true;
            opacity *= a->opacity();
        }
        if (seen.isEmpty() || opacity <= 0) continue;  // scrolled away, or a page off screen
        const auto name = (text->parentItem()->objectName() + "/" + text->objectName() + " \"" +
                           test::text(text).left(24) + "\"").toStdString();
        EXPECT_LE(text->property("paintedWidth").toReal(), text->width() + 1) << name << " does not wrap";
        EXPECT_TRUE(rect.left() >= bounds.left() - 0.5 && rect.right() <= bounds.right() + 0.5)
            << name << " runs out sideways: " << rect.left() << ".." << rect.right();
        if (!scrolls) {
            EXPECT_TRUE(rect.top() >= bounds.top() - 0.5 && rect.bottom() <= bounds.bottom() + 0.5)
                << name << " runs out vertically: " << rect.top() << ".." << rect.bottom();
        }
        for (const auto& [otherSeen, otherName] : shown) {
            const QRectF both = seen & otherSeen;
            EXPECT_TRUE(both.width() < 1 || both.height() < 1) << name << " overlaps " << otherName;
        }
        shown.emplace_back(seen, name);
        if (themeChosen(text, configuration)) continue;
        for (const QColor& background : backgrounds(text, seen.center(), window, configuration)) {
            const QColor ink = over(test::colorOf(text), test::colorOf(text).alphaF() * opacity, background);
            EXPECT_GE(contrast(ink, background), 4.5)
                << name << ": " << ink.name().toStdString() << " on " << background.name().toStdString();
        }
    }
}

// Texts must also keep clear of the status bar, the home indicator and a
// landscape notch, where the phone draws over them.
void checkGeometry(QQuickWindow& window, const QString& file, const Configuration& configuration,
                   const QMarginsF& safeArea) {
    SCOPED_TRACE(file.toStdString());
    const QRectF windowRect = QRectF(QPointF(0, 0), window.size()).marginsRemoved(safeArea);
    for (QQuickItem* screen : drawnUnder(window.contentItem())) {
        const QString kind = screen->objectName();
        if (!screen->isVisible() || (kind != "featureView" && kind != "lockdownView" && kind != "messageView")) continue;
        const QQuickItem* panel = kind == "lockdownView"  ? find(screen, "backgroundView")
                                  : kind == "messageView" ? find(screen, "roundedCornersView")
                                                          : screen;
        const QRectF bounds = windowRect & sceneRect(panel);
        // Texts are checked at rest, then once more with every scroller at
        // its end, where a long footer hides; the picture keeps the rest.
        checkTexts(window, screen, bounds, configuration);
        std::vector<std::pair<QQuickItem*, qreal>> scrolled;
        for (QQuickItem* flickable : drawnUnder(screen)) {
            if (!flickable->inherits("QQuickFlickable")) continue;
            scrolled.emplace_back(flickable, flickable->property("contentY").toReal());
            const qreal end = flickable->property("contentHeight").toReal() - flickable->height();
            flickable->setProperty("contentY", std::max<qreal>(0, end));
        }
        checkTexts(window, screen, bounds, configuration);
        for (const auto& [flickable, y] : scrolled) flickable->setProperty("contentY", y);
        // Note views hide the labels of empty texts, but never their containers,
        // whose margins keep the note's shape.
        for (QQuickItem* note : drawnUnder(screen)) {
            if (note->objectName() != QLatin1String("noteView")) continue;
            for (const char* label : {"titleLabel", "subtitleLabel", "contentLabel"})
                EXPECT_EQ(find(note, label)->isVisible(), !test::text(find(note, label)).isEmpty()) << label;
            for (const char* container : {"titleContainer", "subtitleContainer", "contentContainer"})
                EXPECT_TRUE(find(note, container)->isVisible()) << container;
        }
        // The notes screen pages one screen width per note, also when the
        // window was sized after the notes were set.
        if (kind == "featureView") {
            const QQuickItem* stack = find(screen, "stackView");
            EXPECT_DOUBLE_EQ(stack->width(), stack->childItems().size() * screen->width()) << "the row of notes";
            for (const QQuickItem* note : stack->childItems()) EXPECT_DOUBLE_EQ(note->width(), screen->width());
        }
        // A tap on the screen's own empty area, or on the banner's title (its
        // buttons move to the left edge in right-to-left), must not reach the host.
        if (kind == "lockdownView") continue;
        const QPointF tap = kind == "featureView"
                                ? QPointF(safeArea.left() + 16, window.height() - safeArea.bottom() - 16)
                                : QPointF(sceneRect(panel).center().x(), sceneRect(panel).top() + 20);
        const auto* host = find(window.contentItem(), "hostScreen");
        ASSERT_NE(host, nullptr);
        const int before = host->property("taps").toInt();
        QTest::mouseClick(&window, Qt::LeftButton, {}, tap.toPoint());
        EXPECT_EQ(host->property("taps").toInt(), before) << "a tap at " << tap.x() << "," << tap.y()
                                                          << " on the " << kind.toStdString() << " reached the host";
    }
}

class ScreenshotTest : public testing::TestWithParam<StressCase> {};

TEST_P(ScreenshotTest, TextsStayInsideReadableAndApartAndTapsStopAtTheScreen) {
    QString error;
    const auto configuration = preview::readDocument(GetParam().document, &error);
    ASSERT_TRUE(configuration) << error.toStdString();
    auto options = GetParam().options;
    options.settleMilliseconds = 50;
    options.inspect = [&](QQuickWindow& window, const QString& file) { checkGeometry(window, file, *configuration, options.safeArea); };
    const auto files = preview::renderConfiguration(*configuration, QStringLiteral(PALOMIR_UI_TEST_OUTPUT),
                                                    GetParam().prefix, GetParam().appearance, options, &error);
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    const auto worst = configuration->worstService();
    EXPECT_EQ(files.size(), worst && worst->message ? 6 : 2);
}

QList<StressCase> documents() {
    auto cases = preview::stressSet(QStringLiteral(PALOMIR_UI_TEST_SCENARIOS "/stress"));
    for (const char* path : {PALOMIR_UI_TEST_MODEL_DATA "/configuration.json",
                             PALOMIR_UI_TEST_MODEL_DATA "/configuration_lockdown.json", PALOMIR_UI_TEST_DATA "/banner_dark.json",
                             PALOMIR_UI_TEST_SCENARIOS "/notes-only.json", PALOMIR_UI_TEST_SCENARIOS "/soft-lockdown.json",
                             PALOMIR_UI_TEST_SCENARIOS "/hard-lockdown.json", PALOMIR_UI_TEST_SCENARIOS "/outage.json"}) {
        for (auto appearance : {preview::Appearance::light, preview::Appearance::dark}) {
            cases << StressCase{QString::fromUtf8(path), QFileInfo(QString::fromUtf8(path)).completeBaseName(), appearance, {}};
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Documents, ScreenshotTest, testing::ValuesIn(documents()), [](const auto& info) {
    std::string name = info.param.prefix.toStdString() +
                       (info.param.appearance == preview::Appearance::dark ? "_dark" : "_light");
    std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
});

}  // namespace
}  // namespace palomir::qt
