#pragma once

/// @file

#include <QtCore/QMarginsF>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtQuick/QQuickItem>

#include <optional>

#include "palomir/client.hpp"
#include "palomir/model.hpp"
#include "palomir/qt/export.hpp"

namespace palomir::qt {

/// The appearance the banner colours itself for.
enum class UserInterfaceStyle { unspecified = 0, light = 1, dark = 2 };

/// The service message banner: a card with a one-line title, a description
/// that expands and collapses, and a more-info button. Layout
/// "MessageViewController"; the outlets roundedCornersView,
/// expandingStackView, titleLabel, expandButton, descriptionLabel,
/// moreInfoButton and descriptionContainer are required (a layout without
/// one stops the process when a message is assigned).
class PALOMIR_QT_API MessageViewController : public QObject {
    Q_OBJECT
public:
    /// Duration of the expand and collapse animation, in milliseconds.
    static constexpr int toggleDuration = 100;

    /// A banner owned by `parent` (as a QObject child). Use on the GUI thread
    /// only.
    explicit MessageViewController(QObject* parent = nullptr);
    ~MessageViewController() override;

    /// The banner's root item; owned by the controller.
    QQuickItem* view() const { return _root; }

    /// The message shown, if any.
    const std::optional<ServiceMessage>& message() const { return _message; }
    /// Renders the message; the card's colour is chosen now, for the
    /// appearance in effect now.
    void setMessage(ServiceMessage message);

    /// @{
    /// Whether the banner sits at the top or the bottom of its view; setting
    /// it re-anchors the banner.
    Palomir::MessageViewLocation location() const { return _location; }
    void setLocation(Palomir::MessageViewLocation location);
    /// @}

    /// The appearance to colour for; `unspecified` (the default) follows the
    /// application's palette.
    void setUserInterfaceStyle(UserInterfaceStyle style) { _style = style; }
    /// The appearance in effect: never `unspecified`.
    UserInterfaceStyle userInterfaceStyle() const;

    /// @{
    /// The banner's items, for hosts that restyle them or look inside;
    /// owned by the banner's item tree and valid while the banner exists.
    QQuickItem* roundedCornersView() const { return _roundedCornersView; }
    QQuickItem* expandingStackView() const { return _expandingStackView; }
    QQuickItem* titleLabel() const { return _titleLabel; }
    QQuickItem* expandButton() const { return _expandButton; }
    QQuickItem* descriptionLabel() const { return _descriptionLabel; }
    QQuickItem* moreInfoButton() const { return _moreInfoButton; }
    QQuickItem* descriptionContainer() const { return _descriptionContainer; }
    /// @}
    /// Whether the chevron currently points up.
    bool chevronFlipped() const { return _chevronFlipped; }

public Q_SLOTS:
    /// Expands or collapses the description, animated.
    void expandButtonPressed();
    /// Opens the message's URL, if any; the banner stays.
    void moreInfosButtonPressed();

private:
    void apply(const ServiceMessage& message);
    void setChevron(bool flipped);
    void requireOutlets() const;

    QPointer<QQuickItem> _root;
    QPointer<QQuickItem> _roundedCornersView, _expandingStackView, _titleLabel, _expandButton;
    QPointer<QQuickItem> _descriptionLabel, _moreInfoButton, _descriptionContainer;
    std::optional<ServiceMessage> _message;
    Palomir::MessageViewLocation _location = Palomir::MessageViewLocation::top;
    UserInterfaceStyle _style = UserInterfaceStyle::unspecified;
    bool _chevronFlipped = false;
};

/// Shows the message of the configuration's worst service in a banner on
/// `view`, anchored to the top or bottom of its safe area (see
/// setSafeAreaMargins) and centred horizontally. With no configuration
/// nothing changes; with no message every banner of `host` is removed.
///
/// `yDistance` is signed and measured downwards from the safe area's edge,
/// for both locations: at `top` a positive value moves the banner down into
/// the screen; at `bottom` a positive value moves it down past the safe area
/// (into the home indicator), so pass a negative one to lift it clear.
///
/// Ownership: the banner controller is a QObject child of `host` and the
/// banner's item a child of `view`; the last banner found under `host` is
/// reused. A call that finds no message deletes every banner of `host`, and
/// destroying `host` does too. Keep the returned QPointer, never a raw copy:
/// it becomes null once its banner is gone. Returns the banner shown, or null.
PALOMIR_QT_API QPointer<MessageViewController> updateMessageView(QObject* host, QQuickItem* view,
                                                        Palomir::MessageViewLocation location, qreal yDistance,
                                                        const std::optional<Configuration>& configuration);

/// As above with the configuration the shared client holds. Call on the GUI
/// thread.
PALOMIR_QT_API QPointer<MessageViewController> updateMessageView(QObject* host, QQuickItem* view,
                                                        Palomir::MessageViewLocation location, qreal yDistance);

/// Records the insets of `view` that banners keep clear of.
PALOMIR_QT_API void setSafeAreaMargins(QQuickItem* view, QMarginsF margins);

}  // namespace palomir::qt
