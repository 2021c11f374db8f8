#include "palomir/qt/lockdown_view_controller.hpp"

#include <QtGui/QDesktopServices>

#include <algorithm>
#include <cmath>

#include "layout.hpp"

namespace palomir::qt {

using detail::outlet;
using detail::toQColor;
using detail::toQString;
using detail::write;

namespace {

// The fixed teal of the close link; deliberately not taken from the theme.
const QColor kSystemTeal = QColor::fromRgb(48, 176, 199);

// WCAG contrast of two opaque colours, 1 to 21.
double contrast(const QColor& a, const QColor& b) {
    const auto luminance = [](const QColor& c) {
        const auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const auto [dark, light] = std::minmax(luminance(a), luminance(b));
    return (light + 0.05) / (dark + 0.05);
}

// A vertically scrolling list; its column is exactly as wide as the scroll
// view, so it never scrolls sideways.
constexpr char kNotesList[] = R"(
import QtQuick
Flickable {
    objectName: "scrollView"
    clip: true
    flickableDirection: Flickable.VerticalFlick
    boundsBehavior: Flickable.DragAndOvershootBounds
    contentWidth: width
    contentHeight: stack.height
    Column { id: stack; objectName: "stackView"; width: parent.width }
}
)";

QByteArray gradientSource(const ColorGradient& gradient) {
    // Start and end points are unit coordinates of the area, as the theme
    // gives them; the shape follows the area's size.
    QString stops;
    const auto count = gradient.colors.size();
    for (std::size_t i = 0; i < count; ++i) {
        const qreal position = count > 1 ? static_cast<qreal>(i) / static_cast<qreal>(count - 1) : 0.0;
        stops += QStringLiteral("GradientStop { position: %1; color: \"%2\" }\n")
                     .arg(position)
                     .arg(toQColor(gradient.colors[i]).name(QColor::HexArgb));
    }
    const QString source = QStringLiteral(R"(
import QtQuick
import QtQuick.Shapes
Shape {
    id: layer
    objectName: "backgroundGradientLayer"
    anchors.fill: parent
    ShapePath {
        strokeWidth: -1
        fillGradient: LinearGradient {
            x1: layer.width * %1; y1: layer.height * %2
            x2: layer.width * %3; y2: layer.height * %4
            %5
        }
        PathLine { x: layer.width; y: 0 }
        PathLine { x: layer.width; y: layer.height }
        PathLine { x: 0; y: layer.height }
        PathLine { x: 0; y: 0 }
    }
}
)")
                               .arg(gradient.startPoint.x)
                               .arg(gradient.startPoint.y)
                               .arg(gradient.endPoint.x)
                               .arg(gradient.endPoint.y)
                               .arg(stops);
    return source.toUtf8();
}

}  // namespace

LockdownViewController::LockdownViewController() {
    _root = detail::loadLayout(QStringLiteral("LockdownViewController"), this);
    if (!_root) _root = new QQuickItem;
    _root->setParent(this);
    _backgroundView = outlet(_root, {"backgroundView", "background"});
    _headerView = outlet(_root, {"headerView", "header"});
    _contentView = outlet(_root, {"contentView", "content"});
    _footerView = outlet(_root, {"footerView", "footer"});
    _titleLabel = outlet(_root, {"titleLabel"});
    _subtitleLabel = outlet(_root, {"subtitleLabel"});
    _titleImageView = outlet(_root, {"titleImageView", "titleImage"});
    _actionButton = outlet(_root, {"actionButton"});
    _closeButton = outlet(_root, {"closeButton"});
    if (_actionButton) {
        _roundActionButton = new RoundButton(_actionButton);
        connect(_actionButton, SIGNAL(clicked()), this, SLOT(didPressActionButton()));
    }
    if (_closeButton) connect(_closeButton, SIGNAL(clicked()), this, SLOT(didPressCloseButton()));
}

LockdownViewController::~LockdownViewController() {
    detail::releaseImage(_titleImageId);
    _noteViews.clear();
}

void LockdownViewController::setConfig(std::optional<Configuration> config) {
    _config = std::move(config);
    if (_config) {
        apply(*_config);
    } else {
        write(_root, "color", QColor(Qt::transparent));
    }
}

void LockdownViewController::dismiss(bool animated, std::function<void()> completion) {
    dismissFromPresenter(animated, std::move(completion));
}

void LockdownViewController::setDismissCallback(std::function<void(DismissAction)> callback) {
    _dismissCallback = std::move(callback);
}

void LockdownViewController::didPressCloseButton() {
    dismiss(true, {});
    if (_dismissCallback) _dismissCallback(DismissAction::close);
}

void LockdownViewController::didPressActionButton() {
    if (_config && _config->lockdown.actionURL) {
        QDesktopServices::openUrl(QUrl(QString::fromStdString(_config->lockdown.actionURL->absoluteString())));
    }
    if (_dismissCallback) _dismissCallback(DismissAction::performAction);
}

void LockdownViewController::apply(const Configuration& configuration) {
    static constexpr const char* kScreen = "LockdownViewController";
    if (!_backgroundView) detail::missingOutlet(kScreen, "backgroundView");
    if (!_titleLabel) detail::missingOutlet(kScreen, "titleLabel");
    if (!_subtitleLabel) detail::missingOutlet(kScreen, "subtitleLabel");
    if (!_titleImageView) detail::missingOutlet(kScreen, "titleImageView");
    if (!_actionButton) detail::missingOutlet(kScreen, "actionButton");
    if (!_closeButton) detail::missingOutlet(kScreen, "closeButton");
    if (!_contentView) detail::missingOutlet(kScreen, "contentView");

    const auto& theme = configuration.theme;
    const auto& lockdown = configuration.lockdown;

    write(_backgroundView, "radius", 5.0);
    if (theme.innerBackgroundColor) write(_backgroundView, "color", toQColor(*theme.innerBackgroundColor));

    if (theme.backgroundGradient) {
        insertBackgroundGradient(*theme.backgroundGradient);
    } else {
        write(_root, "color", toQColor(theme.backgroundColor));
    }

    write(_titleLabel, "text", toQString(lockdown.title));
    write(_titleLabel, "color", toQColor(theme.textColor));
    write(_subtitleLabel, "text", toQString(lockdown.subtitle));
    write(_subtitleLabel, "color", toQColor(theme.textColor));

    _titleImageView->setVisible(false);
    loadTitleImage(lockdown.titleImage);

    write(_actionButton, "text", toQString(lockdown.actionTitle));
    if (theme.actionButtonColor) write(_actionButton, "fillColor", toQColor(*theme.actionButtonColor));
    if (theme.actionTextColor) write(_actionButton, "titleColor", toQColor(*theme.actionTextColor));
    if (theme.actionTextColor && !theme.actionButtonColor) {
        // The fill is ours here: keep the layout's blue when the theme's
        // title reads on it, else the better of white and near-black.
        const QColor title = toQColor(*theme.actionTextColor);
        if (contrast(title, _actionButton->property("fillColor").value<QColor>()) < 4.5) {
            const QColor white(Qt::white), nearBlack(0x1C, 0x1C, 0x1E);
            write(_actionButton, "fillColor", contrast(title, white) >= contrast(title, nearBlack) ? white : nearBlack);
        }
    }

    write(_closeButton, "text", toQString(lockdown.dismissTitle));
    write(_closeButton, "font.underline", true);
    write(_closeButton, "titleColor", kSystemTeal);

    if (lockdown.type) _closeButton->setVisible(*lockdown.type == LockdownType::soft);

    if (lockdown.notes) {
        if (_scrollView) {
            _scrollView->setParentItem(nullptr);
            _scrollView->deleteLater();
        }
        auto* scrollView = detail::createItem(kNotesList, this);
        if (!scrollView) return;
        scrollView->setParentItem(_contentView);
        pinEdges(scrollView, Edge::top | Edge::left | Edge::bottom | Edge::right, _contentView);
        auto* stackView = outlet(scrollView, {"stackView"});
        write(stackView, "spacing", 16.0);
        _scrollView = scrollView;
        _stackView = stackView;
        setup(*lockdown.notes);
    }
}

void LockdownViewController::setup(const std::vector<Note>& notes) {
    for (auto& noteView : _noteViews) {
        if (noteView->view()) noteView->view()->setParentItem(nullptr);
    }
    _noteViews.clear();
    for (const auto& note : notes) {
        auto noteView = createNoteView(NoteStyle::horizontal);
        if (!noteView) continue;
        noteView->note = note;
        noteView->apply(note);
        noteView->view()->setParentItem(_stackView);
        _noteViews.push_back(std::move(noteView));
    }
    auto* spacer = new QQuickItem;
    spacer->setParent(_stackView);
    spacer->setObjectName(QStringLiteral("spacer"));
    spacer->setParentItem(_stackView);
}

void LockdownViewController::insertBackgroundGradient(const ColorGradient& gradient) {
    if (_backgroundGradientLayer) {
        _backgroundGradientLayer->setParentItem(nullptr);
        _backgroundGradientLayer->deleteLater();
    }
    auto* layer = detail::createItem(gradientSource(gradient), this);
    if (!layer) return;
    const auto children = _root->childItems();
    layer->setParentItem(_root);
    if (!children.isEmpty()) layer->stackBefore(children.first());
    _backgroundGradientLayer = layer;
}

void LockdownViewController::loadTitleImage(const std::optional<Url>& url) {
    if (!url) return;
    detail::fetchImage(*url, this, [this](QImage image) {
        if (!_titleImageView) return;
        _titleImageView->setVisible(true);
        if (image.isNull()) return;
        detail::releaseImage(_titleImageId);
        _titleImageId = detail::storeImage(image);
        write(_titleImageView, "source", detail::storedImageUrl(_titleImageId));
    });
}

}  // namespace palomir::qt
