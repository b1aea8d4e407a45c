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
    // Deliberate: a line that does not open is not reported here; every Read on it returns -1.
    // (tst_mcuversion::missingLineIsEmpty)
    static_cast<void>(m_serialPort->Open(kBoardDevice, kBoardBaud));
    static_cast<void>(m_serialPort->SetTimeout(kBoardTimeoutMs));
}

QString FileIO::getMcuVersion()
{
    openBoardLine();
    // A query that was not written has no answer, which is waited for like that of a silent board.
    static_cast<void>(m_serialPort->Write(kVersionQuery.data(), kVersionQuery.size()));
    unsigned char reply[kVersionReplySize] = {};
    constexpr int wanted = sizeof reply;
    int count = 0;
    // Deliberate: no limit in all. While the line is open, a silent board is waited for, and every
    // attempt starts over at the head of the buffer. (tst_mcuversion::silentBoardIsWaitedFor)
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
    // Deliberate: never released, nor is its file. No test can hold that: the sanitizer's
    // suppressions name both.
    auto *const sender = new CYModem();
    openBoardLine();
    if (sender->load_file(QString::fromLatin1(kFirmwareFile)) < 1) {
        // Deliberate: the line stays open; the next operation's Open replaces the descriptor.
        // (tst_transfer::missingFirmwareLeavesTheLineOpen)
        std::printf("[error]: Ymodem loading file failed.\n");
        return -1;
    }
    std::printf("[info]: Ymodem loading file successfully, waiting for updating...\n");

    const bool answered = runYModemTransfer(*sender, *m_serialPort);
    m_serialPort->Close();
    // Deliberate: any byte counts as success; a refusal or a missing last ACK is no error.
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
    // A command that was not written has no answer, and that is what callers are told.
    static_cast<void>(m_serialPort->Write(command, length));
    usleep(kAnswerPauseUs);
    return m_serialPort->Read(reply, kBoardReplySize);
}
