import QtQuick 2.0

// The button of the update screen.
Rectangle {
    id: root

    // Deliberate: shadows the item's own property, so a disabled button stays an enabled item and
    // only its mouse area is off. (tst_tqbutton::disabledButtonStaysAnEnabledItem)
    property bool enabled: true
    property alias text: label.text

    signal clicked()

    width: 60
    height: 30
    radius: 5
    color: "#333333"
    opacity: root.enabled ? 1 : 0.5

    Text {
        id: label

        anchors.centerIn: parent
        color: "white"
        font.pixelSize: 20
        text: qsTr("Button")
    }

    MouseArea {
        anchors.fill: parent
        enabled: root.enabled
        // Deliberate: toggles at each change instead of following the mouse.
        // (tst_tqbutton::stateTogglesAtEachChange)
        onContainsMouseChanged: root.state = root.state === "" ? "clicked" : ""
        onClicked: root.clicked()
    }

    states: State {
        name: "clicked"
        PropertyChanges {
            target: root
            color: "#db8420"
        }
    }
}
