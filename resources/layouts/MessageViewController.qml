pragma ComponentBehavior: Bound

import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The service message banner: a card with a title row, and a description
// with a more-info link that expands below it.
Item {
    id: root
    objectName: "messageView"
    width: parent ? Math.min(parent.width - 32, 560) : 358
    height: roundedCornersView.height
    implicitHeight: roundedCornersView.height

    property color shadowColor: "#000000"
    property real shadowOpacity: 0.5
    property point shadowOffset: Qt.point(0, 0)
    property real shadowRadius: 10
    property int toggleDuration: 100
    // An expanded description scrolls beyond this, so the card never runs
    // down the host's screen.
    property real maximumDescriptionHeight: parent ? Math.max(96, parent.height * 0.35) : 240

    LayoutMirroring.enabled: Qt.locale().textDirection === Qt.RightToLeft
    LayoutMirroring.childrenInherit: true

    // Relative luminance and the better of white and near-black on a colour,
    // so that the texts keep 4.5:1 on whatever colour the message gives.
    function luminance(c) {
        const ch = v => v <= 0.03928 ? v / 12.92 : Math.pow((v + 0.055) / 1.055, 2.4);
        return 0.2126 * ch(c.r) + 0.7152 * ch(c.g) + 0.0722 * ch(c.b);
    }
    function readableOn(c) {
        const l = luminance(c);
        return 1.05 / (l + 0.05) >= (l + 0.05) / 0.0617 ? "#FFFFFF" : "#1C1C1E";
    }

    readonly property color textColor: readableOn(roundedCornersView.color)

    // A soft shadow made of rings that fade outwards.
    Repeater {
        model: Math.max(1, Math.round(root.shadowRadius / 2))
        delegate: Rectangle {
            required property int index
            readonly property real spread: (index + 1) * root.shadowRadius / Math.max(1, Math.round(root.shadowRadius / 2))
            x: root.shadowOffset.x - spread
            y: root.shadowOffset.y - spread
            width: roundedCornersView.width + 2 * spread
            height: roundedCornersView.height + 2 * spread
            radius: roundedCornersView.radius + spread
            color: root.shadowColor
            opacity: root.shadowOpacity * 0.06
        }
    }

    Rectangle {
        id: roundedCornersView
        objectName: "roundedCornersView"
        width: root.width
        height: expandingStackView.implicitHeight + 8
        radius: 8
        color: "#FFFFFF"
        clip: true

        // The card owns its area: a tap between its buttons must not reach
        // the host's controls beneath. Outside the card the host stays live.
        MouseArea {
            objectName: "inputBlocker"
            anchors.fill: parent
            acceptedButtons: Qt.AllButtons
            onWheel: function (wheel) { wheel.accepted = true; }
        }

        Behavior on height {
            NumberAnimation { duration: root.toggleDuration; easing.type: Easing.InOutQuad }
        }

        ColumnLayout {
            id: expandingStackView
            objectName: "expandingStackView"
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: parent.top
            anchors.leftMargin: 16
            anchors.rightMargin: 4
            anchors.topMargin: 4
            spacing: 0

            RowLayout {
                Layout.fillWidth: true
                spacing: 4

                Text {
                    id: titleLabel
                    objectName: "titleLabel"
                    Layout.fillWidth: true
                    Layout.topMargin: 12
                    Layout.bottomMargin: 12
                    Layout.alignment: Qt.AlignTop
                    font.pixelSize: 16
                    font.weight: Font.DemiBold
                    color: root.textColor
                    wrapMode: Text.Wrap
                    maximumLineCount: 1
                    elide: Text.ElideRight
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }

                Button {
                    id: expandButton
                    objectName: "expandButton"
                    property url image
                    Layout.alignment: Qt.AlignTop
                    implicitWidth: 44
                    implicitHeight: 44
                    Accessible.name: descriptionContainer.visible ? qsTr("Hide details") : qsTr("Show details")
                    contentItem: Image {
                        source: expandButton.image
                        sourceSize.width: 24
                        sourceSize.height: 24
                        fillMode: Image.Pad
                    }
                    background: Rectangle {
                        radius: width / 2
                        color: root.textColor
                        opacity: expandButton.down ? 0.12 : 0.0
                    }
                }
            }

            ColumnLayout {
                id: descriptionContainer
                objectName: "descriptionContainer"
                visible: false
                Layout.fillWidth: true
                Layout.rightMargin: 12
                spacing: 0

                Flickable {
                    id: descriptionScroller
                    objectName: "descriptionScroller"
                    Layout.fillWidth: true
                    Layout.preferredHeight: Math.min(descriptionLabel.implicitHeight, root.maximumDescriptionHeight)
                    contentWidth: width
                    contentHeight: descriptionLabel.implicitHeight
                    flickableDirection: Flickable.VerticalFlick
                    boundsBehavior: Flickable.StopAtBounds
                    interactive: contentHeight > height
                    clip: true

                    Text {
                        id: descriptionLabel
                        objectName: "descriptionLabel"
                        width: descriptionScroller.width
                        font.pixelSize: 15
                        lineHeight: 1.25
                        color: root.textColor
                        wrapMode: Text.Wrap
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                    }
                }

                Button {
                    id: moreInfoButton
                    objectName: "moreInfoButton"
                    visible: text.length > 0
                    Layout.leftMargin: -8
                    Layout.maximumWidth: descriptionContainer.width + 8
                    implicitHeight: 44
                    implicitWidth: Math.max(44, contentItem.implicitWidth + 16)
                    font.pixelSize: 15
                    font.weight: Font.DemiBold
                    font.underline: true
                    Accessible.name: text
                    contentItem: Text {
                        text: moreInfoButton.text
                        font: moreInfoButton.font
                        color: root.textColor
                        verticalAlignment: Text.AlignVCenter
                        elide: Text.ElideRight
                    }
                    background: Item {}
                }
            }
        }
    }
}
