#include "fileio.h"

#include "boardframes.h"
#include "cymodem.h"
#include "paths.h"
#include "serialport.h"
#include "shelloutput.h"
#include "ymodemtransfer.h"

#include <QDebug>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr useconds_t kAnswerPauseUs = 25000;
constexpr int kListingLineSize = 100;

} // namespace

void FileIO::openBoardLine()
{
    // Deliberate: no error result when the port does not open; every Read on it returns -1.
    // (tst_mcuversion::missingLineIsEmpty)
    static_cast<void>(m_serialPort->Open(kBoardDevice, kBoardBaud));
    static_cast<void>(m_serialPort->SetTimeout(kBoardTimeoutMs));
}

QString FileIO::getMcuVersion()
{
    openBoardLine();
    // If the write fails, no reply comes, and the loop below waits as for a silent board.
    static_cast<void>(m_serialPort->Write(kVersionQuery.data(), kVersionQuery.size()));
    unsigned char reply[kVersionReplySize] = {};
    constexpr int wanted = sizeof reply;
    int count = 0;
    // Deliberate: no overall time-out. While the serial line is open, the loop waits for a silent
    // board, and each attempt fills the buffer from its start.
    // (tst_mcuversion::silentBoardIsWaitedFor)
    do {
        count = m_serialPort->Read(reply, wanted);
    } while (count < wanted && count != -1);
    reply[kVersionReplySize - 1] = 0;
    m_serialPort->Close();
    return QString::fromLatin1(reinterpret_cast<const char *>(reply + kVersionTextOffset));
}

int FileIO::startMcuSoftwareUpdate()
{
    openBoardLine();
    auto command = kUpdateStart;
    unsigned char reply[kBoardReplySize] = {};
    const int count = serialIoctl(command.data(), command.size(), reply);
    m_serialPort->Close();

    const StartReply result = judgeStartReply(reply, count);
    switch (result) {
    case START_ACCEPTED:
        std::printf("[info]: MCU response successfully.\n");
        break;
    case START_NO_REPLY:
        std::printf("[error]: update command no response (len = %d).\n", count);
        break;
    case START_MALFORMED:
        std::printf("[error]: response format error(1).\n");
        break;
    case START_SUM_BAD:
        std::printf("[error]: response format error(2).\n");
        break;
    }
    return result;
}

int FileIO::updateMcu()
{
    // Deliberate: neither the sender nor its file is released. No test can check that: the leak
    // sanitizer is told to ignore both (tests/lsan.supp).
    auto *const sender = new CYModem();
    openBoardLine();
    if (sender->load_file(QString::fromLatin1(kFirmwareFile)) < 1) {
        // Deliberate: the serial line stays open; the next Open replaces the descriptor.
        // (tst_transfer::missingFirmwareLeavesTheLineOpen)
        std::printf("[error]: Ymodem loading file failed.\n");
        return -1;
    }
    std::printf("[info]: Ymodem loading file successfully, waiting for updating...\n");

    const bool answered = runYModemTransfer(*sender, *m_serialPort);
    m_serialPort->Close();
    // Deliberate: any byte counts as success; a NAK or a missing last ACK is no error.
    // (tst_transfer::anyByteCountsAsSuccess)
    return answered ? 0 : -1;
}

QStringList FileIO::getMcuBin()
{
    FILE *const listing = popen("ls /root/mcu/*.bin", "r");
    if (!listing) {
        const int cause = errno;
        std::perror("popen fail");
        std::printf("popen error: %s\n", std::strerror(cause));
        return {};
    }
    QStringList images;
    for (const QByteArray &line : readLinePieces(listing, kListingLineSize))
        images.append(QString::fromUtf8(line));
    for (int i = 0; i < images.size(); ++i)
        qDebug() << i << " :"
                 << "new mcuVersion:" << images.at(i);
    return images;
}

void FileIO::closeSerial()
{
    m_serialPort->Close();
}

int FileIO::serialIoctl(unsigned char *command, unsigned char length, unsigned char *reply)
{
    // If the write fails, no reply comes, and callers get the result for that.
    static_cast<void>(m_serialPort->Write(command, length));
    usleep(kAnswerPauseUs);
    return m_serialPort->Read(reply, kBoardReplySize);
}
