#ifndef FILEIO_H
#define FILEIO_H

#include "protocol.h"

#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QQmlParserStatus>
#include <QString>
#include <QStringList>
#include <QUrl>

class QSaveFile;
class SerialPort;

/// The bridge between the update screen and the machine: QML reaches it as the context property
/// "fileIO". It lives in the GUI thread and everything runs there, blocking, except `exe2`.
///
///   construction, flags           fileio.cpp
///   download                      fileio_download.cpp
///   blocking HTTP requests        fileio_http.cpp
///   files and packages            fileio_files.cpp
///   shell commands                fileio_shell.cpp
///   kernel build date             fileio_kernel.cpp
///   control board                 fileio_board.cpp
///   boot-loader commands          fileio_bootloader.cpp
///   machine protocol              fileio_protocol.cpp
///   handshake                     fileio_handshake.cpp
///
/// The order of properties, signals, slots and invokables is the contract with QML: a script may
/// hold their indices. tst_metaobject pins it.
class FileIO : public QObject, public QQmlParserStatus {
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)

    Q_PROPERTY(QUrl url READ url WRITE setUrl NOTIFY urlChanged)
    Q_PROPERTY(bool running READ running WRITE setRunning NOTIFY runningChanged)
    Q_PROPERTY(double progress READ progress NOTIFY progressChanged)
    Q_PROPERTY(QUrl destination READ destination WRITE setDestination NOTIFY destinationChanged)
    Q_PROPERTY(bool followRedirects READ followRedirects WRITE setFollowRedirects NOTIFY
                   followRedirectsChanged)
    Q_PROPERTY(bool overwrite READ overwrite WRITE setOverwrite NOTIFY overwriteChanged)
    Q_PROPERTY(bool isNewKernel READ isNewKernel NOTIFY isNewKernelChanged)
    Q_PROPERTY(QString kernelData READ readKernelData NOTIFY kernelDataChanged)

public:
    /// Codes of the signal error().
    enum Error {
        ErrorUnknown = 0,
        ErrorUrl = 1,
        ErrorDestination = 2,
        ErrorNetwork = 3,
    };
    Q_ENUM(Error)

    // Construction, parser status - fileio.cpp

    explicit FileIO(QObject *parent = nullptr);
    /// Aborts a running transfer, discards its partial file and closes the serial line.
    ~FileIO() override;

    /// Called by the engine, like the next, only for an object that the engine itself makes.
    void classBegin() override;
    /// Allows downloads, and starts one if `running` was set before.
    void componentComplete() override;

    // Download - fileio_download.cpp

    /// What start() downloads.
    QUrl url() const;
    void setUrl(const QUrl &url);
    bool running() const;
    /// Starts or stops the transfer on a change; runningChanged() comes last.
    void setRunning(bool running);
    /// Bytes received divided by bytes expected; not a fraction where the total is unknown.
    double progress() const;
    void setProgress(double progress);
    /// The local file that a download replaces.
    QUrl destination() const;
    void setDestination(const QUrl &destination);
    /// Whether a redirect is followed (default: no); otherwise it ends the download with error().
    bool followRedirects() const;
    void setFollowRedirects(bool followRedirects);
    /// Whether a download may replace an existing file (default: yes).
    bool overwrite() const;
    void setOverwrite(bool overwrite);
    /// Disconnects the reply and leaves it to the event loop to delete; it is not aborted.
    void shutdownNetworkReply();
    /// Commits the save file, unless its writing was cancelled or the disk did not take all of it,
    /// and deletes it.
    void shutdownSaveFile();

    // Blocking HTTP requests - fileio_http.cpp

    /// Processes events for `ms` milliseconds by the wall clock; ends early across midnight.
    void delay_ms(int ms);

    // Kernel build date - fileio_kernel.cpp

    /// True when the text stored by the last readKernelData() is that of the reference build.
    bool isNewKernel() const;
    /// The running kernel's build date, "2021-09-16 19:25:17", or "Invalid".
    QString readKernelData();
    /// Stores the date of a build stamp such as "Thu Sep 16 19:25:17 CST 2021".
    /// `stamp` is not null.
    void ConvKernelCompileDate(char *stamp);

    // Shell commands - fileio_shell.cpp

    /// The worker's body: runs `cmd` and emits threadExeFinish() from the calling thread.
    void exe2(QString cmd, int index);

    // Control board - fileio_board.cpp

    /// Writes `length` bytes, waits 25 ms and reads up to 64 bytes into `reply`. Returns the port's
    /// read count: 0 without a reply, -1 on a closed port.
    [[nodiscard]] int serialIoctl(unsigned char *command, unsigned char length,
                                  unsigned char *reply);

    // Boot-loader commands - fileio_bootloader.cpp

    /// Connects to the board's boot loader and reads its device id and configuration, on the open
    /// serial line. Returns 1 when the board has replied to every packet, -1 otherwise.
    ///
    /// Blocks up to 13 s with a silent board: 11 connect attempts of 1 s, with pauses. Blocks up to
    /// 24 s when each reply begins late and is too short, since Read waits another second after the
    /// first byte. Blocks up to 30 s when the last attempt succeeds and every later reply is late.
    [[nodiscard]] int sendCmdFromConnect2Config();

    // Machine protocol - fileio_protocol.cpp

    /// Write the version's layout into its descriptor; the constructor has done so.
    void initProtocolV3();
    void initProtocolV4();

    /// Copies `param` to its place in `buf`, which holds a frame. Nothing else is written. Returns
    /// the status of the last frame.
    int setMachineParam(MachineParam param, unsigned char *buf, Protocol protocol);
    /// Checks head, length and foot of the frame in `buf` and writes its checksum. Returns FRAME_OK
    /// or, with `buf` untouched, FRAME_BAD. `buf` holds as many bytes as its length byte says.
    [[nodiscard]] int setCrc(unsigned char *buf, Protocol protocol);

    /// Checks the received frame in `buf` and stores it in the version's record. Returns a
    /// `FrameStatus`. FRAME_BAD leaves the record unchanged; FRAME_SUM_BAD has replaced its head,
    /// length and foot. A length byte above `frame_max_len` is FRAME_BAD, so at most that many
    /// bytes are read. V3 first prints six output lines; it prints 0 for the foot when the length
    /// byte is 0 or above `frame_max_len`.
    [[nodiscard]] int analyzeV3(unsigned char *buf, Protocol protocol);
    [[nodiscard]] int analyzeV4(unsigned char *buf, Protocol protocol);

    /// Copies as many bytes as the version's last frame had from `src` to `dst`; returns the count.
    unsigned getSourceFrameBufV3(unsigned char *dst, unsigned char *src) const;
    unsigned getSourceFrameBufV4(unsigned char *dst, unsigned char *src) const;

    /// Copies the parameters of the version's last frame to `out`, up to 80 bytes in V3 and 166 in
    /// V4; returns the count.
    unsigned getParamV3(unsigned char *out, Protocol protocol) const;
    unsigned getParamV4(unsigned char *out, Protocol protocol) const;

    // Handshake - fileio_handshake.cpp (the spelling is interface and kept)

    /// Sends one request to the board's application and reads the reply, on the open serial line.
    /// Returns the port's read count, or -1 when the frame checked at the end is bad. On success
    /// `mcuVersion` holds the version text.
    [[nodiscard]] int handsharkeV3();
    [[nodiscard]] int handsharkeV4();
    /// Writes `len` bytes and reads up to 100 bytes into `rx`. `wait` is ignored. Returns the
    /// port's read count.
    [[nodiscard]] int serialIoctl(unsigned char *tx, unsigned char len, unsigned char *rx,
                                  int wait);
    /// Collects a block of 64 bytes into `buf`, which holds 128 bytes. Each piece is stored at the
    /// offset that equals the total before it; bytes outside `buf` are dropped. Returns the total
    /// when it is exactly 64, or after about 1 ms of processor time. A failed wait adds -1 to the
    /// total, a failed read 65535.
    [[nodiscard]] int RcvData(unsigned char *buf);
    /// Stores the text that localVersion() returns; nothing else uses it.
    void setLocalVersion(QString version);

    // State, for native callers - fileio.cpp

    /// The serial line to the control board; owned by this object, never null.
    SerialPort *serialPort() const;
    const Protocol &protocolV3() const;
    const Protocol &protocolV4() const;
    const FrameRecordV3 &frameRecordV3() const;
    const FrameRecordV4 &frameRecordV4() const;
    /// A `FrameStatus`, or 0 before the first frame.
    int frameStatus() const;
    /// The version text of the last successful handshake; empty before the first.
    QString mcuVersion() const;
    QString localVersion() const;

signals:
    // Download - fileio_download.cpp

    void urlChanged();
    void cancelChanged(); ///< never emitted
    void runningChanged();
    void progressChanged();
    void destinationChanged();
    void followRedirectsChanged();
    void overwriteChanged();
    void started();  ///< twice for one start() when `running` was false
    void finished(); ///< the destination is complete; not emitted after a failure
    /// `redirectUrl` is absolute. Emitted whether or not the redirect is followed.
    void redirected(QUrl redirectUrl);
    /// Kilobytes of 1000 bytes.
    void update(int kiloBytesReceived, int kiloBytesTotal);
    /// `errorCode` is an `Error`.
    void error(int errorCode, QString errorString);
    void networkAccessManagerChanged(); ///< never emitted

    // Kernel build date - fileio_kernel.cpp

    void isNewKernelChanged(); ///< never emitted
    void kernelDataChanged();  ///< never emitted

    // Shell commands - fileio_shell.cpp

    /// `result` is the raw wait status, -1 when no shell could be started. Emitted from the worker
    /// thread.
    void threadExeFinish(int result, int index);

public slots:
    // Download - fileio_download.cpp

    /// Sets `url` and downloads it to `destination`; returns at once. error() reports a failure.
    /// Does nothing before componentComplete().
    void start(QUrl url);
    /// The same with the current `url`.
    void start();
    /// Aborts the download and discards what it has received.
    void stop();

private slots:
    // Blocking HTTP requests - fileio_http.cpp

    void onReadyReadReply();

    // Download - fileio_download.cpp

    void onReadyRead();
    void onFinished();
    void onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);

public:
    // Blocking HTTP requests - fileio_http.cpp

    /// Sends the request and waits up to about 0.9 s for the first piece of the reply's body; the
    /// event loop runs meanwhile. Returns the piece read last (UTF-8, up to its first NUL). Returns
    /// an empty text when none came, or when `running` is true.
    Q_INVOKABLE QString httpGet(QString url);
    Q_INVOKABLE QString httpPost(QString url, QString data);

    // Files and packages - fileio_files.cpp

    /// MD5 of the joined strings, 32 lower-case hexadecimal digits. Up to 255 strings; with more
    /// it never returns.
    Q_INVOKABLE QString md5(QStringList);
    /// The output of `ls` for the shell pattern `dir`, one entry per output line; a line of more
    /// than 199 characters makes several. Empty when nothing matches or no shell could be started.
    Q_INVOKABLE QStringList getIpkList(QString dir);
    /// True for a file or a directory.
    Q_INVOKABLE bool exists(QString file) const;
    /// Replaces `dest_file` with a copy of `src_file`. A failed copy leaves no file there.
    Q_INVOKABLE bool copy(QString dest_file, QString src_file) const;

    // Shell commands - fileio_shell.cpp

    /// Runs `cmd` with the shell, however long it takes. Returns the raw wait status (the exit
    /// code times 256, or the signal), -1 when no shell could be started.
    Q_INVOKABLE int exe(QString cmd) const;
    /// Runs `cmd` on a detached thread of its own; threadExeFinish() reports the result.
    Q_INVOKABLE void threadExe(QString cmd, int index);

    // Control board - fileio_board.cpp

    /// Tells the board to enter its boot loader. Returns 0 when the reply is accepted, -1 without a
    /// reply, -2 for a malformed one, -3 for a wrong sum.
    Q_INVOKABLE int startMcuSoftwareUpdate();
    /// Sends the firmware to the board's boot loader. Returns 0 when the board has sent at least
    /// one byte, -1 when it has sent none or there is no firmware. Takes about a second per frame.
    Q_INVOKABLE int updateMcu();
    /// The board's version text, empty when the serial line cannot be opened. Waits for a silent
    /// board without a time-out.
    Q_INVOKABLE QString getMcuVersion();
    /// Full paths of the firmware images on the machine.
    Q_INVOKABLE QStringList getMcuBin();
    /// Closes the serial line to the board; nothing happens on a closed one.
    Q_INVOKABLE void closeSerial();

private:
    // Download - fileio_download.cpp

    [[nodiscard]] bool openSaveFile(const QString &path);
    [[nodiscard]] bool commitSaveFile();
    void cancelSaveFile();
    void discardSaveFile();
    void discardTransfer();

    // Blocking HTTP requests - fileio_http.cpp

    QString awaitReplyText(QNetworkReply *reply);

    // Control board - fileio_board.cpp

    void openBoardLine();

    // Handshake - fileio_handshake.cpp

    [[nodiscard]] bool concludeHandshake() const;
    void takeVersion(const unsigned char *params, unsigned count);

    // Download
    QUrl m_url;
    bool m_running = false;
    double m_progress = 0.0;
    QUrl m_destination;
    bool m_followRedirects = false;
    bool m_overwrite = true;

    // Kernel build date
    QString m_kernelDate;

    // Download, blocking requests
    QPointer<QNetworkReply> m_reply;         // released with deleteLater()
    QString m_replyText = QLatin1String(""); // empty, not null
    QSaveFile *m_saveFile = nullptr;         // owned

    // Control board
    SerialPort *m_serialPort; // owned

    bool m_complete = false;
    QStringList m_spareList; // reserved

    // Machine protocol
    QString m_mcuVersion;
    QString m_localVersion;
    Protocol m_protocolV3 = protocolDefaults();
    Protocol m_protocolV4 = protocolDefaults();
    FrameRecordV3 m_frameRecordV3 = {};
    FrameRecordV4 m_frameRecordV4 = {};
    int m_frameStatus = 0;
};

#endif // FILEIO_H
