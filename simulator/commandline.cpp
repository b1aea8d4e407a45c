#include "commandline.h"

#include "commandframes.h"

#include <QCommandLineParser>

#include <algorithm>

namespace boardsim {

namespace {

const char kDescription[] =
    "The control board on a pseudo-terminal: answers the version query, the V3 and V4 handshakes\n"
    "and the update start command, then receives a firmware image as the board's boot loader\n"
    "does, or answers its command packets. It is strict: everything that is off is reported.\n"
    "Prints \"ready DEVICE\" and runs until SIGTERM or SIGINT.\n"
    "\n"
    "Exit status: 0, 1 when something was off that no fault explains, 2 on wrong usage, 3 when\n"
    "the line or a file failed.";

QCommandLineOption option(const char *name, const char *description, const char *value,
                          const char *defaultValue = "")
{
    return {QString::fromLatin1(name), QString::fromLatin1(description), QString::fromLatin1(value),
            QString::fromLatin1(defaultValue)};
}

struct Parameters {
    QCommandLineOption link = option("link", "Link to the device, removed at the end.", "PATH");
    QCommandLineOption versionText =
        option("version-text", "Version that the board reports.", "TEXT", "V4.1.3");
    QCommandLineOption params =
        option("params", "Text in the parameters of the handshake answers.", "TEXT", "ABC_K7QX12");
    QCommandLineOption paramsHex =
        option("params-hex", "All of their parameters, byte by byte, instead.", "HEX");
    QCommandLineOption deviceId =
        option("device-id", "Device id that the boot loader reports.", "NUMBER", "0x4b375158");
    QCommandLineOption image =
        option("image", "Where a completely received image is written.", "FILE");
    QCommandLineOption transcript =
        option("transcript", "Where the readable transcript goes, \"-\": standard output.", "FILE");
    QCommandLineOption hex =
        option("hex", "Bytes of long frames in the transcript: full or short.", "STYLE", "full");
    QCommandLineOption summary =
        option("summary", "Where the JSON summary goes at the end.", "FILE");
    QCommandLineOption pace =
        option("pace", "Delays both directions as a line of this speed does.", "BAUD", "0");
    QCommandLineOption controlRepeat =
        option("control-repeat",
               "Fills every answer of the boot loader up to N bytes with its last byte; with 10 "
               "the assistant's reads of 10 bytes return at once.",
               "N", "1");
    QCommandLineOption bootLoader{
        QStringLiteral("boot-loader"),
        QStringLiteral("Starts in the boot loader, as after an update that broke off.")};
    QCommandLineOption bootDelay =
        option("boot-delay", "Time from the start answer to the first 'C'.", "MS", "1500");
    QCommandLineOption requestInterval = option(
        "request-interval", "Time between the 'C's that ask for the start frame.", "MS", "1000");
    QCommandLineOption fault =
        option("fault", "Does something wrong, see below. May be given again and again.",
               "KIND[=VALUE][@PLACE]");
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                            QStringLiteral("Shows this help.")};

    QList<QCommandLineOption> all() const
    {
        return {link,  versionText, params, paramsHex,     deviceId,   image,     transcript,
                hex,   summary,     pace,   controlRepeat, bootLoader, bootDelay, requestInterval,
                fault, help};
    }
};

/// Reads the options' values and keeps the first complaint.
class Reader {
public:
    Reader(const QCommandLineParser &parser, QString &complaint)
        : m_parser(parser)
        , m_complaint(complaint)
    {
    }

    int number(const QCommandLineOption &option, int min, int max)
    {
        bool ok = false;
        const int value = m_parser.value(option).toInt(&ok);
        if (!ok || value < min || value > max)
            complain(option, QStringLiteral("a number from %1 to %2").arg(min).arg(max));
        return value;
    }

    quint32 unsignedNumber(const QCommandLineOption &option)
    {
        bool ok = false;
        const quint32 value = m_parser.value(option).toUInt(&ok, 0);
        if (!ok)
            complain(option, QStringLiteral("a number from 0 to 0xffffffff"));
        return value;
    }

    void complain(const QCommandLineOption &option, const QString &wanted)
    {
        if (m_complaint.isEmpty())
            m_complaint = QStringLiteral("--%1 takes %2, not \"%3\"")
                              .arg(option.names().constLast(), wanted, m_parser.value(option));
    }

private:
    const QCommandLineParser &m_parser;
    QString &m_complaint;
};

bool isAsciiText(const QString &text, int maxSize)
{
    return text.size() <= maxSize && std::all_of(text.begin(), text.end(), [](QChar c) {
               return c >= QLatin1Char(' ') && c <= QLatin1Char('~');
           });
}

QByteArray readParams(const QCommandLineParser &parser, const Parameters &parameters,
                      Reader &reader)
{
    if (!parser.isSet(parameters.paramsHex)) {
        const QString text = parser.value(parameters.params);
        if (!isAsciiText(text, kMaxParams))
            reader.complain(parameters.params,
                            QStringLiteral("at most %1 ASCII characters").arg(kMaxParams));
        return paramBlock(text.toLatin1());
    }
    const QByteArray digits = parser.value(parameters.paramsHex).toLower().toLatin1();
    QByteArray bytes = QByteArray::fromHex(digits);
    if (bytes.toHex() != digits || bytes.size() > kMaxParams)
        reader.complain(
            parameters.paramsHex,
            QStringLiteral("pairs of hexadecimal digits for at most %1 bytes").arg(kMaxParams));
    return bytes;
}

void readFaults(const QStringList &texts, CommandLine &line)
{
    for (const QString &text : texts) {
        QString complaint;
        if (const auto fault = parseFault(text, complaint))
            line.options.faults.append(*fault);
        else if (line.message.isEmpty())
            line.message = complaint;
    }
}

void readOptions(const QCommandLineParser &parser, const Parameters &parameters, CommandLine &line)
{
    constexpr int kMaxMs = 600000;
    Reader reader(parser, line.message);
    Options &options = line.options;

    options.linkPath = parser.value(parameters.link);
    options.imageFile = parser.value(parameters.image);
    line.transcriptFile = parser.value(parameters.transcript);
    line.summaryFile = parser.value(parameters.summary);

    const QString text = parser.value(parameters.versionText);
    if (!isAsciiText(text, kMaxVersionText))
        reader.complain(parameters.versionText,
                        QStringLiteral("at most %1 ASCII characters").arg(kMaxVersionText));
    options.versionText = text.toLatin1();
    options.params = readParams(parser, parameters, reader);
    options.deviceId = reader.unsignedNumber(parameters.deviceId);

    const QString style = parser.value(parameters.hex);
    if (style != QLatin1String("full") && style != QLatin1String("short"))
        reader.complain(parameters.hex, QStringLiteral("full or short"));
    options.hexStyle = style == QLatin1String("short") ? HexStyle::Short : HexStyle::Full;

    options.baud = reader.number(parameters.pace, 0, 10000000);
    options.controlRepeat = reader.number(parameters.controlRepeat, 1, 1000);
    options.startInBootLoader = parser.isSet(parameters.bootLoader);
    options.bootDelay = Milliseconds(reader.number(parameters.bootDelay, 0, kMaxMs));
    options.requestInterval = Milliseconds(reader.number(parameters.requestInterval, 1, kMaxMs));
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const Parameters parameters;
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    parser.addOptions(parameters.all());

    CommandLine line;
    if (!parser.parse(arguments))
        line.message = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        line.message = QStringLiteral("no arguments but options, please: \"%1\"")
                           .arg(parser.positionalArguments().constFirst());
    else if (parser.isSet(parameters.help))
        line.action = CommandLine::Action::ShowHelp;
    else {
        readOptions(parser, parameters, line);
        readFaults(parser.values(parameters.fault), line);
    }

    if (line.action == CommandLine::Action::ShowHelp)
        line.message = parser.helpText() + QLatin1Char('\n') + faultHelp();
    else if (!line.message.isEmpty())
        line.action = CommandLine::Action::Refuse;
    return line;
}

} // namespace boardsim
