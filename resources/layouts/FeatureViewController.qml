import QtQuick
import QtQuick.Controls

// The notes screen: one page per note in a horizontally paging row.
Rectangle {
    id: root
    objectName: "featureView"
    width: 390
    height: 844
    color: "#FFFFFF"

    property real safeAreaTop: 0
    property real safeAreaBottom: 0
    property real safeAreaLeft: 0
    property real safeAreaRight: 0
    property int pageCount: 0

    // The pages' text takes its colour from here, so that it stays readable
    // on whatever background the theme gives the screen.
    palette.windowText: root.color.hslLightness < 0.5 ? "#FFFFFF" : "#1C1C1E"

    Flickable {
        id: scrollView
        objectName: "scrollView"
        anchors.fill: parent
        anchors.topMargin: root.safeAreaTop + 56
        anchors.bottomMargin: root.safeAreaBottom + 40
        contentWidth: stackView.width
        contentHeight: height
        flickableDirection: Flickable.HorizontalFlick
        boundsBehavior: Flickable.StopAtBounds
        clip: true

        // Pages: a flick always comes to rest on a whole page.
        onMovementEnded: {
            settle.to = Math.max(0, Math.min(contentWidth - width, Math.round(contentX / width) * width));
            settle.start();
        }

        NumberAnimation {
            id: settle
            target: scrollView
            property: "contentX"
            duration: 220
            easing.type: Easing.OutCubic
        }

        Row {
            id: stackView
            objectName: "stackView"
            height: scrollView.height
        }
    }

    Button {
        id: closeButton
        objectName: "closeButton"
        anchors.top: parent.top
        anchors.right: parent.right
        anchors.topMargin: root.safeAreaTop + 6
        anchors.rightMargin: root.safeAreaRight + 12
        implicitHeight: 44
        implicitWidth: Math.max(44, contentItem.implicitWidth + 28)
        font.pixelSize: 17
        font.weight: Font.DemiBold
        Accessible.name: text
        contentItem: Text {
            text: closeButton.text
            font: closeButton.font
            color: "#007AFF"
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            radius: height / 2
            color: closeButton.down ? "#1F007AFF" : "#0F007AFF"
        }
    }

    PageIndicator {
        id: pageIndicator
        objectName: "pageIndicator"
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: root.safeAreaBottom + 8
        count: root.pageCount
        visible: count > 1
        currentIndex: Math.round(scrollView.contentX / Math.max(1, scrollView.width))
        Accessible.name: qsTr("Page %1 of %2").arg(currentIndex + 1).arg(count)
    }
}
