import QtQml 2.2
import QtQuick 2.12
import QtQuick.Controls 2.12

// A flat progress bar.
ProgressBar {
    id: root

    property int progress

    value: root.progress / 1000
    padding: 2

    background: Rectangle {
        implicitWidth: 440
        implicitHeight: 20
        color: "#222222"
    }

    contentItem: Item {
        implicitWidth: 440
        implicitHeight: 12

        Rectangle {
            width: root.visualPosition * parent.width
            height: parent.height
            color: "#FFFFFF"
        }
    }
}
