import QtQuick

Rectangle {
    color: "#F2F2F7"
    Text {
        anchors.centerIn: parent
        text: "Hello from the host"
        font.pixelSize: 22
        color: "#1C1C1E"
    }
}
