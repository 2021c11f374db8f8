#pragma once

/// @file

#include <QtCore/QFlags>
#include <QtCore/QMarginsF>
#include <QtCore/QObject>
#include <QtCore/QPointer>

#include "palomir/qt/export.hpp"

class QQuickItem;

namespace palomir::qt {

/// Edges of an item, as bits that can be combined: 15 is all four, 10 is
/// leading and trailing.
enum class Edge : unsigned { top = 1, left = 2, bottom = 4, right = 8 };
Q_DECLARE_FLAGS(Edges, Edge)
Q_DECLARE_OPERATORS_FOR_FLAGS(Edges)

/// Anchors each named edge of `item` to the same edge of `other` (its parent
/// or a sibling). The offsets are taken as given, in the coordinate direction
/// of the window: a positive bottom offset puts the item's bottom edge below
/// the other's, a positive right offset puts its right edge to the right.
/// No edges: nothing changes.
PALOMIR_QT_API void pinEdges(QQuickItem* item, Edges edges, QQuickItem* other, QMarginsF offset = {});

/// A button of a layout whose background corners are rounded. The radius is
/// 5.0 until set otherwise and is applied to the button's background at once.
class PALOMIR_QT_API RoundButton : public QObject {
    Q_OBJECT
    /// The corner radius, in pixels.
    Q_PROPERTY(qreal cornerRadius READ cornerRadius WRITE setCornerRadius)
public:
    /// Adopts `button` (a QtQuick.Controls button, or any item with a
    /// `background` item or a `radius` of its own). Owned by the button.
    explicit RoundButton(QQuickItem* button);

    /// @{
    /// The corner radius, in pixels; setting it applies it at once.
    qreal cornerRadius() const { return _cornerRadius; }
    void setCornerRadius(qreal radius);
    /// @}
    /// The adopted button.
    QQuickItem* button() const { return _button; }

private:
    void applyRadius();
    qreal _cornerRadius = 5.0;
    QPointer<QQuickItem> _button;
};

/// Kept for hosts that refer to it; it does nothing.
class PALOMIR_QT_API ImageLoader {
public:
    ImageLoader() = default;
};

}  // namespace palomir::qt
