#include "palomir/qt/message_view_controller.hpp"

#include "palomir/client.hpp"

#include <QtGui/QDesktopServices>
#include <QtGui/QGuiApplication>
#include <QtGui/QPalette>
#include <QtQml/QQmlProperty>

#include "layout.hpp"
#include "palomir/qt/ui_support.hpp"

namespace palomir::qt {

using detail::outlet;
using detail::toQColor;
using detail::toQString;
using detail::write;

namespace {
const QString kChevron = QStringLiteral("images/chevron-down-small.png");
constexpr char kSafeAreaProperty[] = "palomirSafeAreaMargins";
}  // namespace

MessageViewController::MessageViewController(QObject* parent) : QObject(parent) {
    _root = detail::loadLayout(QStringLiteral("MessageViewController"), this);
    if (!_root) _root = new QQuickItem;
    _root->setParent(this);
    _roundedCornersView = outlet(_root, {"roundedCornersView", "roundedCorners"});
    _expandingStackView = outlet(_root, {"expandingStackView", "expandingStack"});
    _titleLabel = outlet(_root, {"titleLabel"});
    _expandButton = outlet(_root, {"expandButton"});
    _descriptionLabel = outlet(_root, {"descriptionLabel"});
    _moreInfoButton = outlet(_root, {"moreInfoButton"});
    _descriptionContainer = outlet(_root, {"descriptionContainer"});

    write(_roundedCornersView, "radius", 8.0);
    write(_root, "shadowColor", QColor(Qt::black));
    write(_root, "shadowOpacity", 0.5);
    write(_root, "shadowOffset", QPointF(0, 0));
    write(_root, "shadowRadius", 10.0);
    write(_root, "toggleDuration", toggleDuration);

    if (_expandButton) connect(_expandButton, SIGNAL(clicked()), this, SLOT(expandButtonPressed()));
    if (_moreInfoButton) connect(_moreInfoButton, SIGNAL(clicked()), this, SLOT(moreInfosButtonPressed()));
    setLocation(Palomir::MessageViewLocation::top);
}

MessageViewController::~MessageViewController() {
    if (_root) {
        _root->setParentItem(nullptr);
        delete _root.data();
    }
}

UserInterfaceStyle MessageViewController::userInterfaceStyle() const {
    if (_style != UserInterfaceStyle::unspecified) return _style;
    // Qt 6.4 has no colour-scheme hint; a dark window colour is what a dark
    // appearance looks like to an application.
    const QColor window = QGuiApplication::palette().color(QPalette::Window);
    return window.lightness() < 128 ? UserInterfaceStyle::dark : UserInterfaceStyle::light;
}

void MessageViewController::requireOutlets() const {
    static constexpr const char* kScreen = "MessageViewController";
    if (!_roundedCornersView) detail::missingOutlet(kScreen, "roundedCornersView");
    if (!_expandingStackView) detail::missingOutlet(kScreen, "expandingStackView");
    if (!_titleLabel) detail::missingOutlet(kScreen, "titleLabel");
    if (!_expandButton) detail::missingOutlet(kScreen, "expandButton");
    if (!_descriptionLabel) detail::missingOutlet(kScreen, "descriptionLabel");
    if (!_moreInfoButton) detail::missingOutlet(kScreen, "moreInfoButton");
    if (!_descriptionContainer) detail::missingOutlet(kScreen, "descriptionContainer");
}

void MessageViewController::setMessage(ServiceMessage message) {
    _message = std::move(message);
    apply(*_message);
}

void MessageViewController::apply(const ServiceMessage& message) {
    requireOutlets();
    // White also in dark mode when the message has no colour for it.
    const auto& chosen =
        userInterfaceStyle() == UserInterfaceStyle::dark ? message.backgroundColorDark : message.backgroundColorLight;
    write(_roundedCornersView, "color", chosen ? toQColor(*chosen) : QColor(Qt::white));
    write(_titleLabel, "text", toQString(message.title));
    write(_descriptionLabel, "text", toQString(message.description));
    write(_moreInfoButton, "text", toQString(message.urlTitle));
}

void MessageViewController::setLocation(Palomir::MessageViewLocation location) {
    _location = location;
    setChevron(location == Palomir::MessageViewLocation::bottom);
}

void MessageViewController::setChevron(bool flipped) {
    _chevronFlipped = flipped;
    write(_expandButton, "image", detail::bundleImageUrl(kChevron, flipped));
}

void MessageViewController::expandButtonPressed() {
    requireOutlets();
    const bool hidden = _descriptionContainer->isVisible();
    _descriptionContainer->setVisible(!hidden);
    if (hidden) {
        write(_titleLabel, "maximumLineCount", 1);
    } else {
        QQmlProperty(_titleLabel, QStringLiteral("maximumLineCount")).reset();
    }
    // The chevron points the way the card will move next.
    setChevron(static_cast<int>(hidden) == static_cast<int>(_location));
    // The card's height follows with an animation of toggleDuration.
    _root->polish();
}

void MessageViewController::moreInfosButtonPressed() {
    if (_message && _message->url) {
        QDesktopServices::openUrl(QUrl(QString::fromStdString(_message->url->absoluteString())));
    }
}

QPointer<MessageViewController> updateMessageView(QObject* host, QQuickItem* view, Palomir::MessageViewLocation location,
                                         qreal yDistance) {
    return updateMessageView(host, view, location, yDistance, Palomir::shared().configuration());
}

void setSafeAreaMargins(QQuickItem* view, QMarginsF margins) {
    if (view) view->setProperty(kSafeAreaProperty, QVariant::fromValue(margins));
}

QPointer<MessageViewController> updateMessageView(QObject* host, QQuickItem* view, Palomir::MessageViewLocation location,
                                         qreal yDistance, const std::optional<Configuration>& configuration) {
    if (!configuration || !host || !view) return nullptr;
    const auto worst = configuration->worstService();
    const auto message = worst ? worst->message : std::nullopt;
    const auto banners = host->findChildren<MessageViewController*>(Qt::FindDirectChildrenOnly);
    if (!message) {
        for (auto* banner : banners) {
            if (banner->view()) banner->view()->setParentItem(nullptr);
            delete banner;
        }
        return nullptr;
    }
    MessageViewController* banner = banners.isEmpty() ? new MessageViewController(host) : banners.last();
    QQuickItem* item = banner->view();
    if (item && !item->parentItem()) {
        const auto safe = view->property(kSafeAreaProperty).value<QMarginsF>();
        item->setParentItem(view);
        item->setZ(900.0);
        if (location == Palomir::MessageViewLocation::top) {
            pinEdges(item, Edge::top, view, QMarginsF(0, safe.top() + yDistance, 0, 0));
        } else {
            pinEdges(item, Edge::bottom, view, QMarginsF(0, 0, 0, yDistance - safe.bottom()));
        }
        auto* anchors = item->property("anchors").value<QObject*>();
        if (anchors) anchors->setProperty("horizontalCenter", view->property("horizontalCenter"));
    }
    banner->setLocation(location);
    banner->setMessage(*message);
    return banner;
}

}  // namespace palomir::qt
