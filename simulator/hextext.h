#ifndef BOARDSIM_HEXTEXT_H
#define BOARDSIM_HEXTEXT_H

#include <QByteArray>
#include <QString>

namespace boardsim {

/// Two lower-case digits.
inline QString hexByte(quint8 value)
{
    return QStringLiteral("%1").arg(value, 2, 16, QLatin1Char('0'));
}

/// Pairs of lower-case digits with a blank between them.
inline QString hexBytes(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex(' '));
}

} // namespace boardsim

#endif // BOARDSIM_HEXTEXT_H
