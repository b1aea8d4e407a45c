#ifndef OPENLINE_H
#define OPENLINE_H

#include "capture.h"
#include "pty.h"
#include "serialport.h"

/// What a call logged, with its result.
struct Logged {
    bool result;
    QByteArray text;
};

template <typename Call>
Logged logged(Call call)
{
    DescriptorCapture err(2);
    const bool result = call();
    return {result, err.take()};
}

inline Logged openLogged(SerialPort &port, const QByteArray &name, const char *baud = "115200")
{
    return logged([&] { return port.Open(name.constData(), baud); });
}

/// A line that the product has open.
class OpenLine : public Pty {
public:
    OpenLine()
    {
        if (!port.Open(path().constData(), "115200"))
            qFatal("the line does not open");
    }

    SerialPort port;
};

#endif // OPENLINE_H
