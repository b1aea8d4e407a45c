#include "tapcommandline.h"

#include <QCommandLineParser>

namespace boardsim {

namespace {

const char kDescription[] =
    "Watches the serial line of a control board: opens its device, makes a pseudo-terminal for "
    "the\n"
    "program, carries every byte between them, and prints what goes over the line. Prints \"ready\n"
    "DEVICE\" first and runs until SIGTERM, SIGINT or SIGHUP. Or reads a recording.\n"
    "\n"
    "Exit status: 0, 1 when something was malformed, 2 on wrong usage, 3 when the line or a file\n"
    "failed.";

struct Row {
    const char *name;
    const char *valueName;
    const char *description;
    QString TapCommandLine::*member; // null: not a path
    bool isForWatching;
    bool isForReading;
};

const QVector<Row> &optionTable()
{
    static const QVector<Row> table{
        {"device", "PATH", "The serial device of the board.", &TapCommandLine::device, true, false},
        {"link", "PATH", "Link that the program opens, removed at the end.", &TapCommandLine::link,
         true, false},
        {"record", "FILE", "Where the recording goes.", &TapCommandLine::recordFile, true, false},
        {"read", "FILE", "Reads this recording instead of a line.", &TapCommandLine::readFile,
         false, true},
        {"image", "FILE", "Where the last image in the recording is written.",
         &TapCommandLine::imageFile, false, true},
        {"transcript", "FILE", "Where the readable transcript goes (\"-\": standard output).",
         &TapCommandLine::transcriptFile, true, true},
        {"hex", "STYLE", "Bytes of long frames in the transcript: full or short.", nullptr, true,
         true},
        {"summary", "FILE", "Where the JSON summary goes at the end.", &TapCommandLine::summaryFile,
         true, true},
    };
    return table;
}

bool readHexStyle(const QString &text, TapCommandLine &line)
{
    line.hexStyle = text == QLatin1String("short") ? HexStyle::Short : HexStyle::Full;
    return text == QLatin1String("full") || text == QLatin1String("short");
}

QString readOptions(const QCommandLineParser &parser, TapCommandLine &line)
{
    const bool isReading = parser.isSet(QStringLiteral("read"));
    line.action = isReading ? TapCommandLine::Action::Read : TapCommandLine::Action::Watch;
    for (const Row &row : optionTable()) {
        const QString name = QLatin1String(row.name);
        if (!parser.isSet(name))
            continue;
        if (!(isReading ? row.isForReading : row.isForWatching))
            return isReading ? QStringLiteral("--%1 and --read do not go together").arg(name)
                             : QStringLiteral("--%1 needs --read").arg(name);
        const QString value = parser.value(name);
        if (row.member && value.isEmpty())
            return QStringLiteral("--%1 takes a path").arg(name);
        if (row.member)
            line.*row.member = value;
        else if (!readHexStyle(value, line))
            return QStringLiteral("--%1 takes full or short, not \"%2\"").arg(name, value);
    }
    if (!isReading && (line.device.isEmpty() || line.link.isEmpty()))
        return QStringLiteral("--device and --link are needed, or --read (try --help)");
    return {};
}

} // namespace

TapCommandLine parseTapCommandLine(const QStringList &arguments)
{
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this help."));
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    for (const Row &row : optionTable())
        parser.addOption({QLatin1String(row.name), QLatin1String(row.description),
                          QLatin1String(row.valueName)});
    parser.addOption(help);

    TapCommandLine line;
    if (!parser.parse(arguments))
        line.message = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        line.message = QStringLiteral("no arguments but options, please: \"%1\"")
                           .arg(parser.positionalArguments().constFirst());
    else if (parser.isSet(help)) {
        line.action = TapCommandLine::Action::ShowHelp;
        line.message = parser.helpText();
        return line;
    } else
        line.message = readOptions(parser, line);
    if (!line.message.isEmpty())
        line.action = TapCommandLine::Action::Refuse;
    return line;
}

} // namespace boardsim
