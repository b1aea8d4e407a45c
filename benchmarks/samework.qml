import QtQml 2.2
import QtQuick 2.12
import QtQuick.Controls 2.12
import QtQuick.Window 2.12
import Qt.labs.settings 1.0
import "./"

// The visible items of the waiting update screen, with its imports and its component.
Window {
    visible: true
    width: 600
    height: 600
    color: "#000000"
    title: qsTr("Update Assistant")

    Text {
        x: 130
        y: 20
        color: "white"
        font.pixelSize: 24
        text: qsTr("Update Assistant(升级助手V2.3.3)")
    }

    Text {
        x: 20
        y: 60
        color: "white"
        font.pixelSize: 20
        text: qsTr("Kernel Data:") + "2020-09-01 12:00"
    }

    Text {
        x: 20
        y: 90
        color: "white"
        font.pixelSize: 20
        text: qsTr("Upgrade information(升级信息):")
    }

    Rectangle {
        anchors.centerIn: parent
        width: 280
        height: 50
        radius: 5
        color: "#333333"

        Text {
            anchors.centerIn: parent
            color: "white"
            font.pixelSize: 20
            text: qsTr("U Disk Update(U盘升级)")
        }

        MouseArea {
            anchors.fill: parent
        }
    }

    Column {
        x: 125
        y: 345
        spacing: 5

        Repeater {
            model: packages

            Text {
                color: "white"
                font.pixelSize: 14
                text: modelData
            }
        }
    }

    Text {
        x: 10
        y: 543
        color: "white"
        font.pixelSize: 14
        text: qsTr("Progress(进度):")
    }

    ProgressBar {
        x: 120
        y: 545
        width: 470
        height: 14

        background: Rectangle {
            color: "#222222"
        }
        contentItem: Item {
        }
    }
}
