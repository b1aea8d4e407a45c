import QtQuick 2.12
import Qt.labs.settings 1.0
import QtQuick.Window 2.12
import "./"

// The update screen: finds the packages, installs them one after the other, then updates the
// control board. One function a step; `fileIO` is the native bridge.
Window {
    id: root

    property int step: -1       // index of the last package installed
    property var ipkList        // full paths of the packages
    property var ipkPkgName     // their file names, as listed on the screen
    property var ipkListState: new Array // a "wait" for each of them; not shown
    property int thisIndex: 0   // reserved, like isStart
    property bool formOta: false // packages were staged already
    property bool isStart: false

    function showTips(color, english, chinese) {
        tip_en.color = color;
        tip_cn.color = color;
        tip_en.text = english;
        tip_cn.text = chinese;
    }

    function showSuccess() {
        showTips("green",
                 qsTr("Update Successfully,Please unplug the U-disk,then power off and restart"),
                 qsTr("升级完成,如果有U盘，请拔掉U盘，然后断电重启"));
    }

    function getPkgs() {
        ipkPkgName = [];
        ipkList = fileIO.getIpkList("/tmp/ota/*.ipk");
        // Deliberate: formOta, step and progress are never reset. A second start continues from them.
        // (tst_main_start::secondStartGoesOnFromTheFirst)
        if (ipkList.length > 0)
            formOta = true;
        else
            ipkList = fileIO.getIpkList("/mnt/nand_disk/update_ipk/*.ipk");

        ipkListState = new Array;
        var names = [];
        for (var i = 0; i < ipkList.length; ++i) {
            ipkListState[i] = "wait";
            names.push(ipkList[i].substring(ipkList[i].lastIndexOf("/") + 1));
        }
        ipkPkgName = names; // one assignment, so that the list is built once
    }

    function startOta() {
        getPkgs();
        showTips("white",
                 qsTr("device upgrading, please wait ..."),
                 qsTr("设备升级中,请稍后..."));
        if (ipkList.length > 0) {
            progress.to = ipkList.length + 1; // the control board is the last step
            threadTimer.start();
            udisk.enabled = false;
        } else {
            showTips("yellow", qsTr("File ipk does NOT exists"), qsTr("未找到软件包"));
        }
    }

    // Copies the packages from the stick, so that it may be removed, and installs the copies.
    function stageAndInstall() {
        if (!formOta) {
            fileIO.exe("mkdir /tmp/ota");
            fileIO.exe("cp /mnt/nand_disk/update_ipk/*.ipk /tmp/ota/ -rf");
        }
        ipkList = fileIO.getIpkList("/tmp/ota/*.ipk");
        // Deliberate: no check for an empty list. The command then names "undefined", the package
        // manager fails, and the red texts appear.
        // (tst_main::failedCopyInstallsUndefined)
        upgradeIpk(ipkList[0], 0);
        progress.value = 0;
    }

    function upgradeIpk(dir_file_name, idx) {
        fileIO.threadExe("opkg install --force-downgrade --force-reinstall --force-overwrite "
                         + dir_file_name, idx);
    }

    function onPackageDone(result, index) {
        console.log("result:", result, "   index:", index, " ipkList.length:", ipkList.length);
        if (result !== 0) {
            showTips("red", qsTr("Update Fail"), qsTr("升级失败"));
            return;
        }
        step = index;
        progress.value = index + 1;
        if (index + 1 === ipkList.length) {
            if (upgradeCtrlUnit()) {
                progress.value = progress.to;
                updateFinish();
            }
            return;
        }
        fileIO.exe("sync");
        upgradeIpk(ipkList[index + 1], index + 1);
    }

    // Returns whether the update of the control board counts as successful. A board without a
    // version text leaves the tips as they are.
    function upgradeCtrlUnit() {
        var version = fileIO.getMcuVersion();
        if (version === "")
            return false;

        var ret;
        if (version.indexOf("V4") !== -1) {
            fileIO.exe("rm /root/*.txt");
            // Deliberate: the result is ignored; only that of the transfer is shown.
            // (tst_main_board::startResultIsIgnored)
            fileIO.startMcuSoftwareUpdate();
            ret = fileIO.updateMcu();
        } else {
            ret = fileIO.exe("/root/Hmi -path=/root");
        }
        // Deliberate: a positive status of the hand-over counts as success.
        // (tst_main_board::positiveStatusIsSuccess)
        if (ret < 0) {
            showTips("red",
                     qsTr("Update Control Software Filed,Error Code[%1]").arg(ret),
                     qsTr("升级主控板软件失败, 错误码[%1]").arg(ret));
            return false;
        }
        showSuccess();
        return true;
    }

    function updateFinish() {
        tip_en.font.pixelSize = 16;
        tip_cn.font.pixelSize = 16;
        showSuccess();
        udisk.enabled = false;
        fileIO.exe("rm /root/mcu/*");
        successTip.visible = true;
    }

    function updateFromStick() {
        startOta();
        var ret = fileIO.getIpkList("/mnt/update_ipk/*.bin");
        if (ret.length > 0) {
            fileIO.exe("mkdir -p /root/ota");
            fileIO.exe("cp /mnt/update_ipk/app.bin /root/ota/app.bin");
            fileIO.exe("sync");
            // Deliberate: the control board is updated now and again after the last package.
            // (tst_main_board::controlBoardRunsTwice)
            upgradeCtrlUnit();
        }
    }

    visible: true
    width: 600
    height: 600
    color: "#000000"
    title: qsTr("Update Assistant")

    Component.onCompleted: {
        // Not a Connections element: its handlers are written differently before and after 5.15.
        fileIO.threadExeFinish.connect(onPackageDone);
        ipkPkgName = [];
        udisk.enabled = false;
        getPkgs();
        udisk.enabled = true;
        console.log("ota=================", formOta);
        if (formOta)
            startOta();
    }

    Text {
        id: successTip

        // A text without width that may be elided is not laid out. This saves a fortieth of the start.
        width: visible ? undefined : 0 // undefined: as wide as the text
        elide: visible ? Text.ElideNone : Text.ElideRight
        // Deliberate: top and vertical centre together fix the height to twice their distance.
        // (tst_main_look::placesOnTheScreen)
        height: 50
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.top: parent.top
        anchors.topMargin: 240
        anchors.verticalCenter: parent.verticalCenter
        visible: false
        color: "green"
        font.pixelSize: 24
        text: qsTr("Update success please restart machine By Switch Power(升级成功,请切关背后翘班开关重启咖啡机)")
    }

    TqButton {
        id: udisk

        width: 280
        height: 50
        anchors.centerIn: parent
        text: qsTr("U Disk Update(U盘升级)")
        onClicked: updateFromStick()
    }

    Text {
        id: title

        anchors.horizontalCenter: parent.horizontalCenter
        anchors.top: parent.top
        anchors.topMargin: 20
        color: "white"
        font.pixelSize: 24
        text: qsTr("Update Assistant(升级助手V2.3.3)")
    }

    Text {
        id: kernelInfo

        width: contentWidth
        height: 20
        anchors.top: title.bottom
        anchors.topMargin: 10
        anchors.left: parent.left
        anchors.leftMargin: 20
        color: "white"
        font.pixelSize: 20
        text: qsTr("Kernel Data:") + fileIO.kernelData
    }

    Text {
        id: tip

        height: 20
        anchors.top: title.bottom
        anchors.topMargin: 40
        anchors.left: parent.left
        anchors.leftMargin: 20
        color: "white"
        font.pixelSize: 20
        text: qsTr("Upgrade information(升级信息):")
    }

    Text {
        id: tip_en

        height: tip.height
        anchors.top: tip.bottom
        anchors.topMargin: 11
        anchors.left: tip.left
        anchors.leftMargin: 24
        color: "white"
        font.pixelSize: 14
    }

    Text {
        id: tip_cn

        anchors.top: tip_en.bottom
        anchors.topMargin: -2
        anchors.left: tip.left
        anchors.leftMargin: 24
        color: "white"
        font.pixelSize: 14
    }

    // Scrolls and clips the rows when they do not fit above the progress bar.
    Flickable {
        id: packageView

        readonly property int rowHeight: 14
        readonly property int pitch: rowHeight + packageList.spacing
        // A text is higher than its row: as high as the label, which has the same font size.
        readonly property int overhang: Math.max(0, Math.ceil(label.height) - rowHeight)
        readonly property int current: Math.min(root.step + 1, rows.count - 1)
        property bool isLate: false

        // Brings the row that is being installed to the middle.
        function follow() {
            isLate = moving; // the user is dragging the list
            if (isLate)
                return;
            var middle = overhang + current * pitch - (height - rowHeight) / 2;
            contentY = Math.max(0, Math.min(Math.round(middle), contentHeight - height));
        }

        anchors.top: udisk.bottom
        anchors.topMargin: 20 - overhang
        anchors.bottom: label.top
        anchors.left: parent.left
        anchors.right: parent.right
        contentHeight: rows.count * pitch - packageList.spacing + 2 * overhang
        interactive: contentHeight > height
        clip: interactive
        boundsBehavior: Flickable.StopAtBounds
        pixelAligned: true
        onCurrentChanged: follow()
        onContentHeightChanged: follow()
        onHeightChanged: follow()
        onMovementEnded: if (isLate) follow()

        Column {
            id: packageList

            height: 180
            anchors.top: parent.top
            anchors.topMargin: packageView.overhang
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 5

            Repeater {
                id: rows

                model: ipkPkgName

                Rectangle {
                    width: 350
                    height: packageView.rowHeight
                    color: "transparent"

                    Text {
                        anchors.left: parent.left
                        color: "white"
                        font.pixelSize: 14
                        text: ipkPkgName[index]
                    }

                    Text {
                        anchors.right: parent.right
                        anchors.rightMargin: 10
                        color: text === "wait" ? "yellow" : text === "ok" ? "green" : "red"
                        font.pixelSize: 14
                        text: root.step < index ? "wait" : "ok"
                    }
                }
            }
        }
    }

    // Shows which part of the list is visible. On the left, since long names end anywhere on the right.
    Rectangle {
        id: scrollTrack

        readonly property real hidden: Math.max(1, packageView.contentHeight - packageView.height)

        width: 4
        anchors.top: udisk.bottom
        anchors.topMargin: 20
        anchors.bottom: label.top
        anchors.right: udisk.horizontalCenter
        anchors.rightMargin: 190
        visible: packageView.interactive
        color: "#333333"

        Rectangle {
            readonly property real part: packageView.height / packageView.contentHeight

            y: Math.round(packageView.contentY / scrollTrack.hidden * (parent.height - height))
            width: parent.width
            height: Math.max(20, Math.round(part * parent.height))
            color: "#db8420"
        }
    }

    Text {
        id: label

        anchors.bottom: parent.bottom
        anchors.bottomMargin: 40
        anchors.left: parent.left
        anchors.leftMargin: 10
        color: "white"
        font.pixelSize: 14
        text: qsTr("Progress(进度):")
    }

    RectangleProgress {
        id: progress

        height: 14
        anchors.verticalCenter: label.verticalCenter
        anchors.left: label.right
        anchors.right: parent.right
        anchors.rightMargin: 10
        from: 0
        progress: 0
    }

    Timer {
        id: threadTimer

        interval: 500
        onTriggered: stageAndInstall()
    }
}
