import QtQuick
import QtQuick.Layouts

// One note as a whole page: picture, then title, subtitle and text.
Item {
    id: root
    objectName: "noteView"
    width: 390
    height: 720
    // The screen's side insets (landscape notches): the page stays a screen
    // wide, its texts keep clear of them.
    property real sideInset: 0

    Rectangle {
        id: backgroundView
        objectName: "backgroundView"
        anchors.fill: parent
        color: "transparent"
    }

    Flickable {
        id: scroller
        anchors.fill: parent
        contentWidth: width
        contentHeight: Math.max(height, column.implicitHeight + 48)
        flickableDirection: Flickable.VerticalFlick
        clip: true

        ColumnLayout {
            id: column
            x: 28 + root.sideInset
            width: scroller.width - 56 - 2 * root.sideInset
            y: Math.max(24, (scroller.height - implicitHeight) / 2)
            spacing: 0

            Image {
                id: imageView
                objectName: "imageView"
                Layout.alignment: Qt.AlignHCenter
                Layout.preferredWidth: Math.min(column.width, 300)
                Layout.preferredHeight: 220
                Layout.bottomMargin: 32
                fillMode: Image.PreserveAspectFit
                Accessible.role: Accessible.Graphic
                Accessible.name: titleLabel.text
            }

            Item {
                id: titleContainer
                objectName: "titleContainer"
                Layout.fillWidth: true
                implicitHeight: (titleLabel.visible ? titleLabel.implicitHeight : 0) + 10
                Text {
                    id: titleLabel
                    objectName: "titleLabel"
                    width: parent.width
                    font.pixelSize: 30
                    font.weight: Font.Bold
                    color: root.palette.windowText
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
            }

            Item {
                id: subtitleContainer
                objectName: "subtitleContainer"
                Layout.fillWidth: true
                implicitHeight: (subtitleLabel.visible ? subtitleLabel.implicitHeight : 0) + 16
                Text {
                    id: subtitleLabel
                    objectName: "subtitleLabel"
                    width: parent.width
                    font.pixelSize: 19
                    font.weight: Font.DemiBold
                    color: root.palette.windowText
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }

            Item {
                id: contentContainer
                objectName: "contentContainer"
                Layout.fillWidth: true
                implicitHeight: contentLabel.visible ? contentLabel.implicitHeight : 0
                Text {
                    id: contentLabel
                    objectName: "contentLabel"
                    width: parent.width
                    font.pixelSize: 17
                    lineHeight: 1.3
                    color: root.palette.windowText
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }
    }
}
