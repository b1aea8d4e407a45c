#include "fault.h"

#include "commanddecoder.h"

#include <algorithm>

namespace boardsim {

namespace {

using Value = FaultRule::Value;
using Which = FaultPlace::Which;

constexpr int kMaxNumber = 10000000;

const QVector<Step> kCommands{Step::Version, Step::StartCommand, Step::Handshake};
const QVector<Step> kPackets{Step::Connect, Step::Sync, Step::DeviceId, Step::Config};
const QVector<Step> kTransfer{Step::StartFrame, Step::Block, Step::Eot, Step::End};
const QVector<Step> kAnywhere = kCommands + kPackets + kTransfer;
const QVector<Step> kLongFrames =
    kCommands + kPackets + QVector<Step>{Step::StartFrame, Step::Block, Step::End};

struct PlaceName {
    const char *name;
    FaultPlace place;
    const char *meaning;
};

const QVector<PlaceName> &placeTable()
{
    // clang-format off
    static const QVector<PlaceName> table {
        {"version",       {Step::Version},                  "version query and its answer"},
        {"start-command", {Step::StartCommand},             "update start command and its answer"},
        {"handshake",     {Step::Handshake},                "V3 or V4 handshake and its answer"},
        {"connect",       {Step::Connect},                  "connect packet and its answer"},
        {"sync",          {Step::Sync},                     "sync packet and its answer"},
        {"device-id",     {Step::DeviceId},                 "device id packet and its answer"},
        {"config",        {Step::Config},                   "config packet and its answer"},
        {"start-frame",   {Step::StartFrame},               "start frame and its ACK and 'C'"},
        {"block:first",   {Step::Block, Which::First},      "first data block and its ACK"},
        {"block:middle",  {Step::Block, Which::Middle},     "middle data block"},
        {"block:last",    {Step::Block, Which::Last},       "last data block"},
        {"eot",           {Step::Eot},                      "EOT and its ACK and 'C'"},
        {"end",           {Step::End},                      "end frame and its ACK"},
    };
    // clang-format on
    return table;
}

const QString kBlockPrefix = QStringLiteral("block:");

std::optional<int> parseNumber(const QString &text, int min, int max = kMaxNumber)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < min || number > max)
        return std::nullopt;
    return number;
}

std::optional<QByteArray> parseBytes(const QString &text)
{
    const QByteArray digits = text.toLower().toLatin1();
    const QByteArray bytes = QByteArray::fromHex(digits);
    if (bytes.isEmpty() || bytes.toHex() != digits)
        return std::nullopt;
    return bytes;
}

QByteArray unescaped(const QString &text)
{
    QByteArray bytes = text.toUtf8();
    QByteArray result;
    for (int i = 0; i < bytes.size(); ++i) {
        const char next = i + 1 < bytes.size() ? bytes.at(i + 1) : '\0';
        const bool escape = bytes.at(i) == '\\' && (next == 'n' || next == 'r' || next == '\\');
        if (!escape) {
            result += bytes.at(i);
            continue;
        }
        result += next == 'n' ? '\n' : next == 'r' ? '\r' : '\\';
        ++i;
    }
    return result;
}

std::optional<FaultPlace> parsePlace(const QString &text)
{
    for (const PlaceName &row : placeTable()) {
        if (text == QLatin1String(row.name))
            return row.place;
    }
    if (!text.startsWith(kBlockPrefix))
        return std::nullopt;
    const auto number = parseNumber(text.mid(kBlockPrefix.size()), 1);
    if (!number)
        return std::nullopt;
    return FaultPlace{Step::Block, Which::Number, *number};
}

/// Whether `text` is a value for the row; puts it into `fault`.
bool readValue(const FaultRule &rule, const QString &text, Fault &fault)
{
    switch (rule.value) {
    case Value::None:
        return false;
    case Value::Number:
        fault.number = parseNumber(text, 0);
        return fault.number.has_value();
    case Value::ParamCount:
        fault.number = parseNumber(text, 1, kMaxParams);
        return fault.number.has_value();
    case Value::Byte:
    case Value::Bytes: {
        const auto bytes = parseBytes(text);
        fault.bytes = bytes.value_or(QByteArray());
        return bytes && (rule.value == Value::Bytes || bytes->size() == 1);
    }
    case Value::Text:
        fault.bytes = unescaped(text);
        return !text.isEmpty();
    case Value::AckOrder:
        fault.bytes = text.toLatin1();
        return text == QLatin1String("ack-first") || text == QLatin1String("c-first");
    }
    return false;
}

const FaultRule *findRule(const QString &name)
{
    for (const FaultRule &rule : faultTable()) {
        if (name == QLatin1String(rule.name))
            return &rule;
    }
    return nullptr;
}

QString rowText(const QString &head, const char *meaning)
{
    return QStringLiteral("  %1 %2\n").arg(head, -24).arg(QLatin1String(meaning));
}

QString valueText(const FaultRule &rule)
{
    if (rule.value == Value::None)
        return QString();
    return (!rule.defaultValue ? QStringLiteral("=%1") : QStringLiteral("[=%1]"))
        .arg(QLatin1String(rule.valueName));
}

} // namespace

const QVector<FaultRule> &faultTable()
{
    // clang-format off
    static const QVector<FaultRule> table {
        {FaultKind::Silent, "silent", Value::None, "", "", kAnywhere,
         "says nothing any more, from the place on"},
        {FaultKind::Slow, "slow", Value::Number, "MS", nullptr, kAnywhere,
         "answers MS milliseconds late"},
        {FaultKind::Split, "split", Value::Number, "MS", "0", kAnywhere,
         "answers in single bytes, MS milliseconds apart (0)"},
        {FaultKind::Merge, "merge", Value::None, "", "", kAnywhere,
         "keeps the answer back and sends it in one write with what it says next"},
        {FaultKind::NoStartAnswer, "no-start-answer", Value::None, "", "", {Step::StartCommand},
         "enters the boot loader without an answer"},
        {FaultKind::WrongHead, "wrong-head", Value::Byte, "HH", "e6", kCommands,
         "answers with this head byte (e6)"},
        {FaultKind::WrongLength, "wrong-length", Value::Byte, "HH", "", kCommands,
         "answers with this length byte (one too high)"},
        {FaultKind::WrongChecksum, "wrong-checksum", Value::None, "", "", kCommands,
         "changes the last byte under the checksum, so that the sum does not fit"},
        {FaultKind::WrongFoot, "wrong-foot", Value::Byte, "HH", "e6", kCommands,
         "answers with this foot byte (e6)"},
        {FaultKind::NoUnderscore, "no-underscore", Value::None, "", "", {Step::Handshake},
         "answers with minus signs for the underscores of its parameters"},
        {FaultKind::FullParams, "full-params", Value::ParamCount, "N", "", {Step::Handshake},
         "answers without a zero byte in its parameters, which are filled up to N bytes"},
        {FaultKind::Nak, "nak", Value::Number, "MS", "", kTransfer,
         "answers NAK; with MS, the proper answer follows so many milliseconds later"},
        {FaultKind::Cancel, "cancel", Value::Number, "MS", "", kTransfer,
         "answers CA CA; with MS, the proper answer follows so many milliseconds later"},
        {FaultKind::LostAck, "lost-ack", Value::None, "", "", kTransfer,
         "takes the frame but its answer is lost"},
        {FaultKind::RepeatAck, "repeat-ack", Value::Number, "N", "2", kTransfer,
         "answers N times (2)"},
        {FaultKind::AckC, "ack-c", Value::AckOrder, "ack-first|c-first", "ack-first", kTransfer,
         "answers ACK and 'C' together, in this order (ack-first)"},
        {FaultKind::RepeatControl, "repeat-control", Value::Number, "MS", "1000", kTransfer,
         "repeats its answer every MS milliseconds (1000) until the next frame comes"},
        {FaultKind::GarbageBefore, "garbage-before", Value::Bytes, "HEX", "a55a", kAnywhere,
         "sends these bytes before the answer (a55a)"},
        {FaultKind::GarbageAfter, "garbage-after", Value::Bytes, "HEX", "a55a", kAnywhere,
         "sends these bytes after the answer (a55a)"},
        {FaultKind::DropBytes, "drop-bytes", Value::Number, "N", "1", kAnywhere,
         "the last N bytes of the answer are lost (1)"},
        {FaultKind::LoseBytes, "lose-bytes", Value::Number, "N", "1", kLongFrames,
         "N bytes from the middle of the assistant's frame are lost (1)"},
        {FaultKind::HangUp, "hang-up", Value::Number, "N", "", kAnywhere,
         "closes the line after N bytes of the assistant's frame (half of it); counts on into the "
         "answer"},
        {FaultKind::Console, "console", Value::Text, "TEXT",
         "\\r\\nboot: image accepted\\r\\nboot: starting application\\r\\n", {Step::End},
         "prints console text when it starts the application after the transfer"},
    };
    // clang-format on
    return table;
}

const FaultRule &faultRule(FaultKind kind)
{
    const auto &table = faultTable();
    return *std::find_if(table.begin(), table.end(),
                         [kind](const FaultRule &rule) { return rule.kind == kind; });
}

bool FaultPlace::matches(const Place &place) const
{
    if (step != place.step)
        return false;
    switch (which) {
    case Which::Any:
        return true;
    case Which::Number:
        return place.block == number;
    case Which::First:
        return place.block == 1;
    case Which::Middle:
        return place.block == (place.blocks + 1) / 2;
    case Which::Last:
        return place.block == place.blocks;
    }
    return false;
}

std::optional<Fault> parseFault(const QString &text, QString &error)
{
    const int at = text.lastIndexOf(QLatin1Char('@'));
    const QString what = text.left(at); // all of it when there is no place
    const int equals = what.indexOf(QLatin1Char('='));
    const QString name = what.left(equals);

    const FaultRule *rule = findRule(name);
    if (!rule) {
        error = QStringLiteral("unknown fault \"%1\"").arg(name);
        return std::nullopt;
    }
    Fault fault;
    fault.kind = rule->kind;
    fault.text = text;

    if (equals < 0 && !rule->defaultValue) {
        error = QStringLiteral("fault %1 needs a value: %1=%2")
                    .arg(name, QLatin1String(rule->valueName));
        return std::nullopt;
    }
    const QString value =
        equals < 0 ? QString::fromLatin1(rule->defaultValue) : what.mid(equals + 1);
    if ((equals >= 0 || !value.isEmpty()) && !readValue(*rule, value, fault)) {
        error =
            QStringLiteral("\"%1\" is no value for fault %2%3").arg(value, name, valueText(*rule));
        return std::nullopt;
    }

    if (at < 0)
        return fault;
    fault.place = parsePlace(text.mid(at + 1));
    if (!fault.place) {
        error = QStringLiteral("unknown place \"%1\" in fault \"%2\"").arg(text.mid(at + 1), text);
        return std::nullopt;
    }
    if (!rule->steps.contains(fault.place->step)) {
        error = QStringLiteral("fault %1 cannot happen at %2").arg(name, text.mid(at + 1));
        return std::nullopt;
    }
    return fault;
}

QString faultHelp()
{
    QString help = QStringLiteral("Faults, --fault KIND[=VALUE][@PLACE]:\n");
    for (const FaultRule &rule : faultTable())
        help += rowText(QLatin1String(rule.name) + valueText(rule), rule.meaning);
    help += QStringLiteral("\nPlaces (without one, a fault happens wherever it can):\n");
    for (const PlaceName &row : placeTable())
        help += rowText(QLatin1String(row.name), row.meaning);
    help += rowText(QStringLiteral("block:N"), "data block N, counted from 1");
    return help;
}

FaultPlan::FaultPlan(const QVector<Fault> &faults)
    : m_faults(faults)
{
}

const Fault *FaultPlan::find(FaultKind kind, const Place &place) const
{
    const auto found = std::find_if(m_faults.begin(), m_faults.end(), [&](const Fault &fault) {
        if (fault.kind != kind)
            return false;
        return fault.place ? fault.place->matches(place)
                           : faultRule(kind).steps.contains(place.step);
    });
    return found == m_faults.end() ? nullptr : &*found;
}

std::optional<int> FaultPlan::hangUpOffset(const Place &place, int frameSize) const
{
    const Fault *fault = find(FaultKind::HangUp, place);
    if (!fault)
        return std::nullopt;
    return fault->number.value_or(frameSize / 2);
}

} // namespace boardsim
