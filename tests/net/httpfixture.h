#ifndef HTTPFIXTURE_H
#define HTTPFIXTURE_H

#include "downloadfixture.h"
#include "fakeclock.h"

#include <QTimer>

#include <functional>

inline const QTime kNoon(12, 0);

inline QString text(const QUrl &url)
{
    return QString::fromLatin1(url.toEncoded());
}

/// Runs `action` when the event loop turns next, if `context` still lives then.
inline void soon(QObject *context, const std::function<void()> &action)
{
    QTimer::singleShot(0, context, action);
}

/// Asks for what is not going to be answered, without a wait in real time.
inline QString getUnanswered(FileIO &fileIo, const QUrl &url)
{
    const FakeClock clock(kNoon, 50);
    return fileIo.httpGet(text(url));
}

#endif // HTTPFIXTURE_H
