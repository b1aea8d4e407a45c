import QtQuick 2.0

Text {
    property string mode: "no mode"

    objectName: "otherTip"
    text: "waiting, " + mode
}
