#ifndef UPDATESCREENTEST_H
#define UPDATESCREENTEST_H

#include "capture.h"
#include "recordingbridge.h"
#include "updatescreen.h"

#include <QObject>

#include <memory>

/// Colour and texts of the two tip lines.
struct Tips {
    const char *color;
    const char *english;
    const char *chinese;
};

constexpr Tips kNoTips{"white", "", ""};
constexpr Tips kStarted{"white", "device upgrading, please wait ...", "设备升级中,请稍后..."};
constexpr Tips kNoPackage{"yellow", "File ipk does NOT exists", "未找到软件包"};
constexpr Tips kPackageFailed{"red", "Update Fail", "升级失败"};
constexpr Tips kBoardFailed{"red", "Update Control Software Filed,Error Code[-1]",
                            "升级主控板软件失败, 错误码[-1]"};
constexpr Tips kSuccess{"green",
                        "Update Successfully,Please unplug the U-disk,then power off and restart",
                        "升级完成,如果有U盘，请拔掉U盘，然后断电重启"};

/// The command that installs a package.
QString installCommand(const QString &path);

// The calls as the bridge records them.

QString listCall(const char *pattern);
QString exeCall(const char *command);
QString installCall(const QString &path, int index);

constexpr char kStaged[] = "/tmp/ota/*.ipk";
constexpr char kStick[] = "/mnt/nand_disk/update_ipk/*.ipk";
constexpr char kBoardImages[] = "/mnt/update_ipk/*.bin";

/// What every test of the update screen starts and ends with: a fresh bridge, and no message on the
/// console but the two that the screen prints. A QML warning fails the test.
class UpdateScreenTest : public QObject {
    Q_OBJECT

protected:
    /// Paths /tmp/ota/0.ipk, 1.ipk ...
    static QStringList stagedPackages(int count);
    /// Paths /mnt/nand_disk/update_ipk/0.ipk, 1.ipk ...
    static QStringList stickPackages(int count);

    /// Loads the screen with what the bridge answers by now.
    void load();
    /// Loads the screen with `count` staged packages, waits for the first to be handed to the
    /// package manager and forgets the calls up to there.
    void loadInstalling(int count);
    /// The package manager ends with success for packages `first` to `last`.
    void installPackages(int first, int last);
    /// Waits until package `index` was handed to the package manager.
    bool awaitInstall(const QString &path, int index) const;
    void compareTips(const Tips &tips) const;

    std::unique_ptr<RecordingBridge> m_bridge;
    std::unique_ptr<UpdateScreen> m_screen;
    std::unique_ptr<MessageCapture> m_console;

private slots:
    void init();
    void cleanup();
};

#endif // UPDATESCREENTEST_H
