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

    LayoutMirroring.enabled: Qt.locale().textDirection === Qt.RightToLeft
    LayoutMirroring.childrenInherit: true

    // Relative luminance and the better of white and near-black on a colour,
    // so that colours we choose keep 4.5:1 against whatever the theme gives.
    function luminance(c) {
        const ch = v => v <= 0.03928 ? v / 12.92 : Math.pow((v + 0.055) / 1.055, 2.4);
        return 0.2126 * ch(c.r) + 0.7152 * ch(c.g) + 0.0722 * ch(c.b);
    }
    function readableOn(c) {
        const l = luminance(c);
        return 1.05 / (l + 0.05) >= (l + 0.05) / 0.0617 ? "#FFFFFF" : "#1C1C1E";
    }

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
        // Without an inner colour from the theme, the panel takes whichever
        // of white and near-black the theme's text colour reads on.
        color: root.readableOn(titleLabel.color)

        // When header, notes and footer do not fit (a phone held sideways),
        // the whole panel scrolls rather than squeezing the notes away.
        Flickable {
            id: panelScroller
            objectName: "panelScroller"
            anchors.fill: parent
            contentWidth: width
            contentHeight: panelColumn.height + 48
            flickableDirection: Flickable.VerticalFlick
            boundsBehavior: Flickable.StopAtBounds
            interactive: contentHeight > height
            clip: true

            ColumnLayout {
                id: panelColumn
                x: 24
                y: 24
                width: panelScroller.width - 48
                height: Math.max(panelScroller.height - 48, implicitHeight)
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
                        wrapMode: Text.Wrap
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
                        wrapMode: Text.Wrap
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
                    // The notes keep room for a few cards; beyond that the panel scrolls.
                    Layout.minimumHeight: Math.min(notesHeight, 220)
                    readonly property real notesHeight: children.length > 0 && children[0].contentHeight !== undefined
                                                        ? children[0].contentHeight : 0
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
                        property color fillColor: "#0060DF"
                        property color titleColor: root.readableOn(fillColor)
                        Layout.fillWidth: true
                        implicitHeight: Math.max(52, contentItem.implicitHeight + 16)
                        font.pixelSize: 17
                        font.weight: Font.DemiBold
                        Accessible.name: text
                        contentItem: Text {
                            text: actionButton.text
                            font: actionButton.font
                            color: actionButton.titleColor
                            horizontalAlignment: Text.AlignHCenter
                            verticalAlignment: Text.AlignVCenter
                            wrapMode: Text.Wrap
                            maximumLineCount: 2
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
                        // A long dismiss title wraps inside the panel instead of widening it.
                        Layout.maximumWidth: footerView.width
                        implicitHeight: Math.max(44, contentItem.implicitHeight + 12)
                        implicitWidth: Math.max(88, contentItem.implicitWidth + 32)
                        font.pixelSize: 16
                        Accessible.name: text
                        contentItem: Text {
                            text: closeButton.text
                            font: closeButton.font
                            color: closeButton.titleColor
                            horizontalAlignment: Text.AlignHCenter
                            verticalAlignment: Text.AlignVCenter
                            wrapMode: Text.Wrap
                            maximumLineCount: 3
                            elide: Text.ElideRight
                        }
                        background: Item {}
                    }
                }
            }
        }
    }
}
