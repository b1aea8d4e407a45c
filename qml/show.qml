import QtQuick 2.0
import QtQuick.Window 2.12

// The passive status screen: a waiting text, or the success text once the mode is "2".
Item {
    id: root

    visible: true
    width: 1280
    height: 800

    Rectangle {
        anchors.fill: parent
        color: "#000"
    }

    Text {
        id: cnTip

        property string mode: "0"

        objectName: "infoTip"
        anchors.centerIn: parent
        color: "#FFF"
        font.pixelSize: 24
        text: qsTr("升级中，请稍后")

        // Deliberate: no way back; any other mode leaves the texts unchanged.
        // (tst_show::successStays)
        onModeChanged: {
            if (mode !== "2")
                return;
            cnTip.text = qsTr("升级成功，请关闭电源开关重启机器");
            cnTip.color = "green";
            engTip.text = qsTr("update successed. please restart machine by power off.");
            engTip.color = "green";
        }
    }

    Text {
        id: engTip

        anchors.horizontalCenter: parent.horizontalCenter
        anchors.top: cnTip.bottom
        anchors.topMargin: 24
        color: "#FFF"
        font.pixelSize: 24
        text: qsTr("updating please waiting....")
    }
}
