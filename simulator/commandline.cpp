#include "commandline.h"

#include <QCommandLineParser>

#include <algorithm>
#include <functional>

namespace boardsim {

namespace {

constexpr int kMaxMs = 600000;

const char kDescription[] =
    "The control board on a pseudo-terminal: answers the version query, the V3 and V4 handshakes\n"
    "and the update start command, then receives a firmware image as the board's boot loader\n"
    "does, or answers its command packets. It is strict: everything that is wrong is reported.\n"
    "Prints \"ready DEVICE\" and runs until SIGTERM, SIGINT or SIGHUP.\n"
    "\n"
    "Exit status: 0, 1 when something was wrong that no fault explains, 2 on wrong usage, 3 when\n"
    "the line or a file failed.";

/// How the value of an option is read.
struct Value {
    std::function<bool(const QString &text, CommandLine &line)> read; // false: no such value
    QString wanted;                                                   // what the option takes
};

Value path(QString CommandLine::*member)
{
    return {[member](const QString &text, CommandLine &line) {
                line.*member = text;
                return true;
            },
            {}};
}

Value path(QString Options::*member)
{
    return {[member](const QString &text, CommandLine &line) {
                line.options.*member = text;
                return true;
            },
            {}};
}

/// `T` is made of an int.
template <typename T>
Value number(T Options::*member, int min, int max)
{
    return {[=](const QString &text, CommandLine &line) {
                bool ok = false;
                const int value = text.toInt(&ok);
                line.options.*member = T(value);
                return ok && value >= min && value <= max;
            },
            QStringLiteral("a number from %1 to %2").arg(min).arg(max)};
}

bool readDeviceId(const QString &text, CommandLine &line)
{
    bool ok = false;
    line.options.deviceId = text.toUInt(&ok, 0);
    return ok;
}

Value asciiText(QByteArray Options::*member, int maxSize)
{
    return {[=](const QString &text, CommandLine &line) {
                line.options.*member = text.toLatin1();
                return text.size() <= maxSize && std::all_of(text.begin(), text.end(), [](QChar c) {
                           return c >= QLatin1Char(' ') && c <= QLatin1Char('~');
                       });
            },
            QStringLiteral("at most %1 ASCII characters").arg(maxSize)};
}

bool readParamsHex(const QString &text, CommandLine &line)
{
    const QByteArray digits = text.toLower().toLatin1();
    line.options.params = QByteArray::fromHex(digits);
    return line.options.params.toHex() == digits && line.options.params.size() <= kMaxParams;
}

bool readHexStyle(const QString &text, CommandLine &line)
{
    line.options.hexStyle = text == QLatin1String("short") ? HexStyle::Short : HexStyle::Full;
    return text == QLatin1String("full") || text == QLatin1String("short");
}

bool readReplay(const QString &text, CommandLine &line)
{
    line.options.replay = readRecording(text, line.message);
    if (!line.options.replay)
        return false;
    const auto &records = line.options.replay->records;
    const auto hangUp = std::find_if(records.begin(), records.end(), [](const Record &record) {
        return record.kind == Record::Kind::HangUp;
    });
    if (records.isEmpty())
        line.message = QStringLiteral("%1: there is no record in it").arg(text);
    else if (hangUp != records.end() && hangUp + 1 != records.end())
        line.message = QStringLiteral("%1: line %2: a replay ends with the hang-up; remove what "
                                      "comes after it")
                           .arg(text)
                           .arg(hangUp->line);
    return line.message.isEmpty();
}

bool readReplayPace(const QString &text, CommandLine &line)
{
    line.options.replayFast = text == QLatin1String("fast");
    return text == QLatin1String("fast") || text == QLatin1String("recorded");
}

bool readBootLoader(const QString & /*text*/, CommandLine &line)
{
    line.options.startInBootLoader = true;
    return true;
}

struct Row {
    const char *name;
    const char *valueName; // empty: it has no value
    const char *description;
    Value value;
};

QVector<Row> optionTable()
{
    return {
        {"link", "PATH", "Link to the device, removed at the end.", path(&Options::linkPath)},
        {"version-text", "TEXT", "Version that the board reports.",
         asciiText(&Options::versionText, kMaxVersionText)},
        {"params", "TEXT", "Text in the parameters of the handshake answers.",
         asciiText(&Options::params, kMaxParams)},
        {"params-hex",
         "HEX",
         "All of their parameters, byte by byte, instead.",
         {readParamsHex,
          QStringLiteral("pairs of hexadecimal digits for at most %1 bytes").arg(kMaxParams)}},
        {"device-id",
         "NUMBER",
         "Device id that the boot loader reports.",
         {readDeviceId, QStringLiteral("a number from 0 to 0xffffffff")}},
        {"image", "FILE", "Where a completely received image is written.",
         path(&Options::imageFile)},
        {"transcript", "FILE", "Where the readable transcript goes, \"-\": standard output.",
         path(&CommandLine::transcriptFile)},
        {"hex",
         "STYLE",
         "Bytes of long frames in the transcript: full or short.",
         {readHexStyle, QStringLiteral("full or short")}},
        {"summary", "FILE", "Where the JSON summary goes at the end.",
         path(&CommandLine::summaryFile)},
        {"pace", "BAUD", "Delays both directions as a line of this speed does.",
         number(&Options::baud, 0, 10000000)},
        {"control-repeat", "N",
         "Pads the control bytes of each answer in a transfer to N bytes with the last one; with "
         "10 "
         "the assistant's reads of 10 bytes return at once.",
         number(&Options::controlRepeat, 1, 1000)},
        {"boot-loader",
         "",
         "Starts in the boot loader, as after an update that broke off.",
         {readBootLoader, {}}},
        {"boot-delay", "MS", "Time from the start answer to the first 'C'.",
         number(&Options::bootDelay, 0, kMaxMs)},
        {"request-interval", "MS", "Time between the 'C's that ask for the start frame.",
         number(&Options::requestInterval, 1, kMaxMs)},
        {"replay",
         "FILE",
         "Is the board of this recording again: sends what it sent, and ends with status 1 when "
         "the "
         "program sends something else.",
         {readReplay, QStringLiteral("a recording")}},
        {"replay-pace",
         "PACE",
         "recorded: in the time of the recording; fast: without the time that the board took to "
         "answer.",
         {readReplayPace, QStringLiteral("recorded or fast")}},
        {"fault",
         "KIND[=VALUE][@PLACE]",
         "Does something wrong, see below. May be given again and again.",
         {}},
    };
}

void readOptions(const QCommandLineParser &parser, const QVector<Row> &table, CommandLine &line)
{
    static const QStringList withReplay{QStringLiteral("link"),   QStringLiteral("transcript"),
                                        QStringLiteral("hex"),    QStringLiteral("summary"),
                                        QStringLiteral("replay"), QStringLiteral("replay-pace")};
    for (const Row &row : table) {
        const QString name = QLatin1String(row.name);
        if (parser.isSet(QStringLiteral("replay")) && parser.isSet(name)
            && !withReplay.contains(name))
            line.message = QStringLiteral("--%1 says nothing to a board of a recording").arg(name);
    }
    const bool hasParamsHex = parser.isSet(QStringLiteral("params-hex"));
    for (const Row &row : table) {
        const QString name = QLatin1String(row.name);
        const bool isOverridden = hasParamsHex && name == QLatin1String("params");
        if (!row.value.read || !parser.isSet(name) || isOverridden)
            continue;
        if (!row.value.read(parser.value(name), line) && line.message.isEmpty())
            line.message = QStringLiteral("--%1 takes %2, not \"%3\"")
                               .arg(name, row.value.wanted, parser.value(name));
    }
    if (!hasParamsHex)
        line.options.params = paramBlock(line.options.params);

    for (const QString &text : parser.values(QStringLiteral("fault"))) {
        QString error;
        if (const auto fault = parseFault(text, error))
            line.options.faults.append(*fault);
        else if (line.message.isEmpty())
            line.message = error;
    }
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const QVector<Row> table = optionTable();
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this help."));
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    for (const Row &row : table)
        parser.addOption({QLatin1String(row.name), QLatin1String(row.description),
                          QLatin1String(row.valueName)});
    parser.addOption(help);

    CommandLine line;
    if (!parser.parse(arguments))
        line.message = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        line.message = QStringLiteral("no arguments but options, please: \"%1\"")
                           .arg(parser.positionalArguments().constFirst());
    else if (parser.isSet(help))
        line.action = CommandLine::Action::ShowHelp;
    else
        readOptions(parser, table, line);

    if (line.action == CommandLine::Action::ShowHelp)
        line.message = parser.helpText() + QLatin1Char('\n') + faultHelp();
    else if (!line.message.isEmpty())
        line.action = CommandLine::Action::Refuse;
    return line;
}

} // namespace boardsim
