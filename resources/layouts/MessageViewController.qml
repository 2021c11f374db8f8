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

    // Text stays readable on whatever colour the message gives the card.
    readonly property bool onDark: roundedCornersView.color.hslLightness < 0.5

    // A soft shadow made of rings that fade outwards.
    Repeater {
        model: Math.max(1, Math.round(root.shadowRadius / 2))
        delegate: Rectangle {
            required property int index
            readonly property real spread: (index + 1) * root.shadowRadius / Math.max(1, Math.round(root.shadowRadius / 2))
            x: root.shadowOffset.x - spread
            y: root.shadowOffset.y - spread + 2
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
                    color: root.onDark ? "#FFFFFF" : "#1C1C1E"
                    wrapMode: Text.WordWrap
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
                        color: root.onDark ? "#FFFFFF" : "#000000"
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

                Text {
                    id: descriptionLabel
                    objectName: "descriptionLabel"
                    Layout.fillWidth: true
                    font.pixelSize: 15
                    lineHeight: 1.25
                    color: root.onDark ? "#EBEBF5" : "#3A3A3C"
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }

                Button {
                    id: moreInfoButton
                    objectName: "moreInfoButton"
                    visible: text.length > 0
                    Layout.leftMargin: -8
                    implicitHeight: 44
                    implicitWidth: Math.max(44, contentItem.implicitWidth + 16)
                    font.pixelSize: 15
                    font.weight: Font.DemiBold
                    Accessible.name: text
                    contentItem: Text {
                        text: moreInfoButton.text
                        font: moreInfoButton.font
                        color: root.onDark ? "#64D2FF" : "#007AFF"
                        verticalAlignment: Text.AlignVCenter
                    }
                    background: Item {}
                }
            }
        }
    }
}
