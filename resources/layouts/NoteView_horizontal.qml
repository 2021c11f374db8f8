import QtQuick
import QtQuick.Layouts

// One note as a card in a list: picture beside title, subtitle and text.
Item {
    id: root
    objectName: "noteView"
    width: parent ? parent.width : 343
    implicitHeight: row.implicitHeight + 32
    height: implicitHeight

    Rectangle {
        id: backgroundView
        objectName: "backgroundView"
        anchors.fill: parent
        radius: 12
        color: "#FFFFFF"
        border.color: "#E5E5EA"
        border.width: 1
    }

    RowLayout {
        id: row
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.margins: 16
        spacing: 14

        Image {
            id: imageView
            objectName: "imageView"
            Layout.alignment: Qt.AlignTop
            Layout.preferredWidth: 56
            Layout.preferredHeight: 56
            fillMode: Image.PreserveAspectCrop
            clip: true
            Accessible.role: Accessible.Graphic
            Accessible.name: titleLabel.text
        }

        ColumnLayout {
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignTop
            spacing: 0

            Item {
                id: titleContainer
                objectName: "titleContainer"
                Layout.fillWidth: true
                implicitHeight: (titleLabel.visible ? titleLabel.implicitHeight : 0) + 2
                Text {
                    id: titleLabel
                    objectName: "titleLabel"
                    width: parent.width
                    font.pixelSize: 17
                    font.weight: Font.DemiBold
                    color: "#1C1C1E"
                    wrapMode: Text.Wrap
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
            }

            Item {
                id: subtitleContainer
                objectName: "subtitleContainer"
                Layout.fillWidth: true
                implicitHeight: (subtitleLabel.visible ? subtitleLabel.implicitHeight : 0) + 4
                Text {
                    id: subtitleLabel
                    objectName: "subtitleLabel"
                    width: parent.width
                    font.pixelSize: 15
                    font.weight: Font.Medium
                    color: "#6C6C70"
                    wrapMode: Text.Wrap
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
                    font.pixelSize: 15
                    lineHeight: 1.25
                    color: "#3A3A3C"
                    wrapMode: Text.Wrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }
    }
}
