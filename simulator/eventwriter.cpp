#include "eventwriter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace boardsim {

namespace {

QByteArray lineOf(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

QByteArray toJsonLine(const Recording &head)
{
    return lineOf({
        {QStringLiteral("speed"), head.speed},
        {QStringLiteral("boardtap"), head.madeBy},
        {QStringLiteral("program"), head.program},
        {QStringLiteral("board"), head.board},
    });
}

QByteArray toJsonLine(const LineEvent &event, TimePoint start)
{
    const bool isFrame = !event.bytes.isEmpty();
    return lineOf({
        {QStringLiteral("ms"),
         static_cast<qint64>(std::chrono::duration_cast<Milliseconds>(event.time - start).count())},
        {QStringLiteral("direction"),
         !isFrame            ? QStringLiteral("none")
             : event.toBoard ? QStringLiteral("to board")
                             : QStringLiteral("from board")},
        {QStringLiteral("meaning"), event.meaning},
        {QStringLiteral("bytes"), QString::fromLatin1(event.bytes.toHex())},
        {QStringLiteral("violations"), QJsonArray::fromStringList(event.violations)},
    });
}

} // namespace boardsim
