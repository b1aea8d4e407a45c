#ifndef BOARDFAULTS_H
#define BOARDFAULTS_H

#include "fault.h"

#include <QByteArrayList>

/// The faults of a simulated board as its command line has them, like "split=20@version". Ends the
/// program at a malformed one.
inline QVector<boardsim::Fault> boardFaults(const QByteArrayList &texts)
{
    QVector<boardsim::Fault> faults;
    for (const QByteArray &text : texts) {
        QString error;
        const auto fault = boardsim::parseFault(QString::fromLatin1(text), error);
        if (!fault)
            qFatal("%s", qPrintable(error));
        faults.append(*fault);
    }
    return faults;
}

#endif // BOARDFAULTS_H
