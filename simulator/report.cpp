#include "report.h"

#include <QCryptographicHash>
#include <QJsonArray>

#include <algorithm>

namespace boardsim {

namespace {

QString outcome(const Report &report)
{
    if (!report.errors.isEmpty())
        return QStringLiteral("error");
    if (!report.difference.isEmpty())
        return QStringLiteral("difference");
    return report.hasUnexplainedViolation() ? QStringLiteral("violations") : QStringLiteral("ok");
}

QString outcome(const Transfer &transfer)
{
    if (transfer.fileName.isEmpty())
        return QStringLiteral("not started");
    return transfer.complete ? QStringLiteral("complete") : QStringLiteral("unfinished");
}

QJsonObject toJson(const Transfer &transfer)
{
    const QByteArray hash = QCryptographicHash::hash(transfer.image, QCryptographicHash::Sha256);
    return {
        {QStringLiteral("outcome"), outcome(transfer)},
        {QStringLiteral("fileName"), transfer.fileName},
        {QStringLiteral("announcedSize"), transfer.announcedSize},
        {QStringLiteral("blocksExpected"), transfer.blocksExpected},
        {QStringLiteral("blocksReceived"), transfer.blocksReceived},
        {QStringLiteral("eotReceived"), transfer.eotReceived},
        {QStringLiteral("extraEndFrames"), transfer.extraEndFrames},
        {QStringLiteral("imageSize"), transfer.image.size()},
        {QStringLiteral("imageSha256"), QString::fromLatin1(hash.toHex())},
    };
}

QJsonObject toJson(const FrameRecord &frame)
{
    return {
        {QStringLiteral("ms"), frame.ms},
        {QStringLiteral("direction"),
         frame.toBoard ? QStringLiteral("to board") : QStringLiteral("from board")},
        {QStringLiteral("meaning"), frame.meaning},
        {QStringLiteral("size"), frame.bytes.size()},
    };
}

QJsonObject toJson(const Violation &violation)
{
    return {
        {QStringLiteral("ms"), violation.ms},
        {QStringLiteral("text"), violation.text},
        {QStringLiteral("explainedBy"), violation.explainedBy},
    };
}

template <typename T>
QJsonArray toJsonArray(const QVector<T> &list)
{
    QJsonArray array;
    for (const T &entry : list)
        array.append(toJson(entry));
    return array;
}

} // namespace

bool Report::hasUnexplainedViolation() const
{
    return std::any_of(violations.begin(), violations.end(),
                       [](const Violation &v) { return v.explainedBy.isEmpty(); });
}

Transfer Report::lastTransfer() const
{
    return transfers.isEmpty() ? Transfer{} : transfers.last();
}

QJsonObject toJson(const Report &report)
{
    QJsonObject object{
        {QStringLiteral("outcome"), outcome(report)},
        {QStringLiteral("versionQueries"), report.versionQueries},
        {QStringLiteral("startCommands"), report.startCommands},
        {QStringLiteral("handshakesV3"), report.handshakesV3},
        {QStringLiteral("handshakesV4"), report.handshakesV4},
        {QStringLiteral("connects"), report.connects},
        {QStringLiteral("configReads"), report.configReads},
        {QStringLiteral("transfers"), toJsonArray(report.transfers)},
        {QStringLiteral("violations"), toJsonArray(report.violations)},
        {QStringLiteral("faultsMade"), QJsonArray::fromStringList(report.faultsMade)},
        {QStringLiteral("errors"), QJsonArray::fromStringList(report.errors)},
        {QStringLiteral("hungUp"), report.hungUp},
        {QStringLiteral("frames"), toJsonArray(report.frames)},
    };
    if (!report.difference.isEmpty())
        object.insert(QStringLiteral("difference"), report.difference);
    return object;
}

} // namespace boardsim
