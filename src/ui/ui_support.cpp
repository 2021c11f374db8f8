#include "palomir/qt/ui_support.hpp"

#include <QtCore/QVariant>
#include <QtQuick/QQuickItem>

namespace palomir::qt {
namespace {

// QQuickItem's anchor lines and its `anchors` group are QML API only; they
// are reached through the meta-object so that no private header is needed.
void anchor(QQuickItem* item, const char* line, QQuickItem* other, const char* marginName, qreal margin) {
    auto* anchors = item->property("anchors").value<QObject*>();
    if (!anchors) return;
    anchors->setProperty(line, other->property(line));
    anchors->setProperty(marginName, margin);
}

}  // namespace

void pinEdges(QQuickItem* item, Edges edges, QQuickItem* other, QMarginsF offset) {
    if (!item || !other) return;
    // Anchor margins push inwards; the offsets are signed coordinates, so the
    // bottom and right ones change sign.
    if (edges.testFlag(Edge::top)) anchor(item, "top", other, "topMargin", offset.top());
    if (edges.testFlag(Edge::left)) anchor(item, "left", other, "leftMargin", offset.left());
    if (edges.testFlag(Edge::bottom)) anchor(item, "bottom", other, "bottomMargin", -offset.bottom());
    if (edges.testFlag(Edge::right)) anchor(item, "right", other, "rightMargin", -offset.right());
}

RoundButton::RoundButton(QQuickItem* button) : QObject(button), _button(button) { applyRadius(); }

void RoundButton::setCornerRadius(qreal radius) {
    _cornerRadius = radius;
    applyRadius();
}

void RoundButton::applyRadius() {
    if (!_button) return;
    auto* background = _button->property("background").value<QQuickItem*>();
    QObject* target = background ? static_cast<QObject*>(background) : _button.data();
    target->setProperty("radius", _cornerRadius);
}

}  // namespace palomir::qt
