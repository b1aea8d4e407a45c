#include "fileio.h"

#include "serialport.h"

FileIO::FileIO(QObject *parent)
    : QObject(parent)
    , m_serialPort(new SerialPort)
{
    initProtocolV3();
    initProtocolV4();
}

FileIO::~FileIO()
{
    m_complete = false; // discarding emits error(), and no handler of it may start a transfer now
    discardTransfer();
    delete m_serialPort;
}

void FileIO::classBegin() { }

void FileIO::componentComplete()
{
    m_complete = true;
    if (m_running)
        start();
}

SerialPort *FileIO::serialPort() const
{
    return m_serialPort;
}

const Protocol &FileIO::protocolV3() const
{
    return m_protocolV3;
}

const Protocol &FileIO::protocolV4() const
{
    return m_protocolV4;
}

const FrameRecordV3 &FileIO::frameRecordV3() const
{
    return m_frameRecordV3;
}

const FrameRecordV4 &FileIO::frameRecordV4() const
{
    return m_frameRecordV4;
}

int FileIO::frameStatus() const
{
    return m_frameStatus;
}

QString FileIO::mcuVersion() const
{
    return m_mcuVersion;
}

QString FileIO::localVersion() const
{
    return m_localVersion;
}
