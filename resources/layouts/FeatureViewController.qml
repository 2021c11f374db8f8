pragma ComponentBehavior: Bound

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

    // The pages' text, the close button and the page dots take their colour
    // from here, so that they stay readable on the theme's background.
    palette.windowText: root.readableOn(root.color)

    // The screen owns the whole window: taps and scrolls on its empty
    // strips must not reach the host's controls beneath.
    MouseArea {
        objectName: "inputBlocker"
        anchors.fill: parent
        acceptedButtons: Qt.AllButtons
        onWheel: function (wheel) { wheel.accepted = true; }
    }

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

        // Pages keep their reading order left to right; the controller
        // places them by index.
        Row {
            id: stackView
            objectName: "stackView"
            LayoutMirroring.enabled: false
            height: scrollView.height
            onChildrenChanged: {
                for (let i = 0; i < children.length; ++i) {
                    if (children[i].sideInset !== undefined)
                        children[i].sideInset = Qt.binding(() => Math.max(root.safeAreaLeft, root.safeAreaRight));
                }
            }
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
        implicitWidth: Math.min(Math.max(44, contentItem.implicitWidth + 28), root.width / 2)
        font.pixelSize: 17
        font.weight: Font.DemiBold
        Accessible.name: text
        contentItem: Text {
            text: closeButton.text
            font: closeButton.font
            color: root.palette.windowText
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
            elide: Text.ElideRight
        }
        background: Rectangle {
            radius: height / 2
            color: root.palette.windowText
            opacity: closeButton.down ? 0.16 : 0.0
        }
    }

    PageIndicator {
        id: pageIndicator
        objectName: "pageIndicator"
        // The dots follow the pages, which keep their order in either direction.
        LayoutMirroring.enabled: false
        LayoutMirroring.childrenInherit: true
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: root.safeAreaBottom + 8
        count: root.pageCount
        visible: count > 1
        currentIndex: Math.round(scrollView.contentX / Math.max(1, scrollView.width))
        Accessible.name: qsTr("Page %1 of %2").arg(currentIndex + 1).arg(count)
        delegate: Rectangle {
            required property int index
            implicitWidth: 8
            implicitHeight: 8
            radius: 4
            color: root.palette.windowText
            opacity: index === pageIndicator.currentIndex ? 1.0 : 0.45
        }
    }
}
