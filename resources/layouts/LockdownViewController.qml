import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The lockdown screen: a rounded panel with header, notes and footer over a
// full-screen background.
Rectangle {
    id: root
    objectName: "lockdownView"
    width: 390
    height: 844
    color: "#F2F2F7"

    property real safeAreaTop: 0
    property real safeAreaBottom: 0
    property real safeAreaLeft: 0
    property real safeAreaRight: 0

    // Nothing beneath the screen reacts while it is up.
    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.AllButtons
        onWheel: function (wheel) { wheel.accepted = true; }
    }

    Rectangle {
        id: backgroundView
        objectName: "backgroundView"
        anchors.fill: parent
        anchors.topMargin: root.safeAreaTop + 16
        anchors.bottomMargin: root.safeAreaBottom + 16
        anchors.leftMargin: root.safeAreaLeft + 16
        anchors.rightMargin: root.safeAreaRight + 16
        radius: 5
        color: "#FFFFFF"

        ColumnLayout {
            anchors.fill: parent
            anchors.margins: 24
            spacing: 20

            ColumnLayout {
                id: headerView
                objectName: "headerView"
                Layout.fillWidth: true
                spacing: 8

                Image {
                    id: titleImageView
                    objectName: "titleImageView"
                    Layout.alignment: Qt.AlignHCenter
                    Layout.preferredWidth: 88
                    Layout.preferredHeight: 88
                    Layout.bottomMargin: 8
                    fillMode: Image.PreserveAspectFit
                    Accessible.role: Accessible.Graphic
                    Accessible.name: titleLabel.text
                }

                Text {
                    id: titleLabel
                    objectName: "titleLabel"
                    Layout.fillWidth: true
                    font.pixelSize: 28
                    font.weight: Font.Bold
                    color: "#1C1C1E"
                    wrapMode: Text.WordWrap
                    horizontalAlignment: Text.AlignHCenter
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }

                Text {
                    id: subtitleLabel
                    objectName: "subtitleLabel"
                    Layout.fillWidth: true
                    font.pixelSize: 17
                    lineHeight: 1.2
                    color: "#1C1C1E"
                    opacity: 0.8
                    wrapMode: Text.WordWrap
                    horizontalAlignment: Text.AlignHCenter
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }

            Item {
                id: contentView
                objectName: "contentView"
                Layout.fillWidth: true
                Layout.fillHeight: true
                clip: true
            }

            ColumnLayout {
                id: footerView
                objectName: "footerView"
                Layout.fillWidth: true
                spacing: 4

                Button {
                    id: actionButton
                    objectName: "actionButton"
                    property color fillColor: "#007AFF"
                    property color titleColor: "#FFFFFF"
                    Layout.fillWidth: true
                    implicitHeight: 52
                    font.pixelSize: 17
                    font.weight: Font.DemiBold
                    Accessible.name: text
                    contentItem: Text {
                        text: actionButton.text
                        font: actionButton.font
                        color: actionButton.titleColor
                        horizontalAlignment: Text.AlignHCenter
                        verticalAlignment: Text.AlignVCenter
                        elide: Text.ElideRight
                    }
                    background: Rectangle {
                        color: actionButton.fillColor
                        opacity: actionButton.down ? 0.8 : 1.0
                    }
                }

                Button {
                    id: closeButton
                    objectName: "closeButton"
                    property color titleColor: "#30B0C7"
                    Layout.alignment: Qt.AlignHCenter
                    implicitHeight: 44
                    implicitWidth: Math.max(88, contentItem.implicitWidth + 32)
                    font.pixelSize: 16
                    Accessible.name: text
                    contentItem: Text {
                        text: closeButton.text
                        font: closeButton.font
                        color: closeButton.titleColor
                        horizontalAlignment: Text.AlignHCenter
                        verticalAlignment: Text.AlignVCenter
                    }
                    background: Item {}
                }
            }
        }
    }
}
