#include "tapcommandline.h"

#include <QCommandLineParser>

namespace boardsim {

namespace {

const char kDescription[] =
    "Watches the serial line of a control board: opens its device, makes a pseudo-terminal for "
    "the\n"
    "program, carries every byte between them, and prints what goes over the line. Prints \"ready\n"
    "DEVICE\" first and runs until SIGTERM, SIGINT or SIGHUP. Or reads a recording, or draws it as "
    "it\n"
    "grows.\n"
    "\n"
    "Exit status: 0, 1 when something was malformed, 2 on wrong usage, 3 when the line or a file\n"
    "failed.";

struct Row {
    const char *name;
    const char *valueName;
    const char *description;
    QString TapCommandLine::*member; // null: not a path
    QString modes;                   // w: with a device, r: --read, v: --view without a device
};

const QVector<Row> &optionTable()
{
    static const QVector<Row> table{
        {"device", "PATH", "The serial device of the board.", &TapCommandLine::device,
         QStringLiteral("w")},
        {"link", "PATH", "Link that the program opens, removed at the end.", &TapCommandLine::link,
         QStringLiteral("w")},
        {"record", "FILE", "Where the recording goes.", &TapCommandLine::recordFile,
         QStringLiteral("w")},
        {"read", "FILE", "Reads this recording instead of a line.", &TapCommandLine::readFile,
         QStringLiteral("r")},
        {"view", "FILE",
         "Draws the transfers of this recording while it is written: a picture on a terminal, else "
         "lines. \"-\": of standard input or, with a device, of its line.",
         &TapCommandLine::viewFile, QStringLiteral("wv")},
        {"image", "FILE", "Where the last image in the recording is written.",
         &TapCommandLine::imageFile, QStringLiteral("r")},
        {"events", "FILE",
         "Where each frame of the recording goes as a line of JSON (\"-\": standard output).",
         &TapCommandLine::eventsFile, QStringLiteral("r")},
        {"html", "FILE", "Where scripts/draw-recording makes a page of the recording.",
         &TapCommandLine::htmlFile, QStringLiteral("r")},
        {"transcript", "FILE", "Where the readable transcript goes (\"-\": standard output).",
         &TapCommandLine::transcriptFile, QStringLiteral("rvw")},
        {"hex", "STYLE", "Bytes of long frames in the transcript: full or short.", nullptr,
         QStringLiteral("rvw")},
        {"summary", "FILE", "Where the JSON summary goes at the end.", &TapCommandLine::summaryFile,
         QStringLiteral("rvw")},
    };
    return table;
}

bool readHexStyle(const QString &text, TapCommandLine &line)
{
    line.hexStyle = text == QLatin1String("short") ? HexStyle::Short : HexStyle::Full;
    return text == QLatin1String("full") || text == QLatin1String("short");
}

/// Standard output is for one of them.
QString readOutputs(TapCommandLine &line)
{
    const QString output = QStringLiteral("-");
    const bool isWatching = line.action == TapCommandLine::Action::Watch;
    const bool isDrawing = !line.viewFile.isEmpty();
    if (isWatching && isDrawing && line.viewFile != output)
        return QStringLiteral("with a device, --view takes - only: its line");
    const bool isTaken = isDrawing || line.eventsFile == output || !line.htmlFile.isEmpty();
    if (isTaken && line.transcriptFile == output)
        return QStringLiteral("standard output cannot have the transcript, too");
    if (!isTaken && line.transcriptFile.isEmpty())
        line.transcriptFile = output;
    return {};
}

QString readOptions(const QCommandLineParser &parser, TapCommandLine &line)
{
    const auto isSet = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };
    const bool isReading = isSet("read");
    const bool isViewing = !isReading && isSet("view") && !isSet("device") && !isSet("link");
    const QString mode = isReading ? QStringLiteral("read")
        : isViewing                ? QStringLiteral("view")
                                   : QStringLiteral("watch");
    line.action = isReading ? TapCommandLine::Action::Read
        : isViewing         ? TapCommandLine::Action::View
                            : TapCommandLine::Action::Watch;
    for (const Row &row : optionTable()) {
        const QString name = QLatin1String(row.name);
        if (!parser.isSet(name))
            continue;
        if (!row.modes.contains(mode.at(0)))
            return line.action == TapCommandLine::Action::Watch
                ? QStringLiteral("--%1 needs --read").arg(name)
                : QStringLiteral("--%1 and --%2 do not go together").arg(name, mode);
        const QString value = parser.value(name);
        if (row.member && value.isEmpty())
            return QStringLiteral("--%1 takes a path").arg(name);
        if (row.member)
            line.*row.member = value;
        else if (!readHexStyle(value, line))
            return QStringLiteral("--%1 takes full or short, not \"%2\"").arg(name, value);
    }
    if (line.action == TapCommandLine::Action::Watch
        && (line.device.isEmpty() || line.link.isEmpty()))
        return QStringLiteral("--device and --link are needed, or --read (try --help)");
    return readOutputs(line);
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
