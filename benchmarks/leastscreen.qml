import QtQml 2.2
import QtQuick 2.12
import QtQuick.Controls 2.12
import QtQuick.Window 2.12
import Qt.labs.settings 1.0
import "./"

// The imports of the update screen and of its component, a bar and a bilingual text.
Window {
    visible: true
    width: 600
    height: 600
    color: "#000000"

    Text {
        anchors.centerIn: parent
        color: "white"
        font.pixelSize: 24
        text: qsTr("Update Assistant(升级助手V2.3.3)")
    }

    ProgressBar {
        width: parent.width
    }
}
