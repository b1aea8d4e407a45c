#ifndef OPENBRIDGETEST_H
#define OPENBRIDGETEST_H

#include "fileio.h"
#include "pty.h"
#include "serialport.h"

#include <QtTest>

#include <memory>

/// What every test of an exchange has: a serial line, and a bridge that has it open.
class OpenBridgeTest : public QObject {
    Q_OBJECT

protected:
    std::unique_ptr<Pty> m_line;
    std::unique_ptr<FileIO> m_io;

private slots:
    void init()
    {
        m_line = std::make_unique<Pty>();
        m_io = std::make_unique<FileIO>();
        QVERIFY(m_io->serialPort()->Open(m_line->path().constData(), "115200"));
    }
    void cleanup()
    {
        m_io.reset();
        m_line.reset();
    }
};

#endif // OPENBRIDGETEST_H
