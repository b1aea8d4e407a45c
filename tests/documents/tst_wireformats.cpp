#include "fileio.h"
#include "machine.h"
#include "page.h"
#include "recording.h"

#include <QFile>
#include <QMap>
#include <QSet>
#include <QtTest>

// docs/wire-formats.md against what goes over the line: each drawn frame is one that the product or
// the simulated board has sent, byte by byte, and none is missing.

class TestWireFormats : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void describedBytesAreCompared_data();
    void describedBytesAreCompared();
    void drawnFramesWentOverTheLine();
    void everyFrameIsDrawn();
    void exchangesWentOverTheLine();
    void layoutIsTheDescriptors();

private:
    QVector<Block> blocksOf(const char *kind) const;
    void compareFrame(const Block &block, const QByteArrayList &titles);

    QVector<Block> m_blocks;
    QVector<RecordedExchange> m_recordings;
    QMap<QByteArray, QByteArray> m_frames; // by title
};

namespace {

bool isTitle(const QByteArray &line)
{
    return line.startsWith("-> ") || line.startsWith("<- ");
}

QByteArrayList titlesOf(const Block &block)
{
    QByteArrayList titles;
    for (const QByteArray &line : block.lines) {
        if (isTitle(line))
            titles << line;
    }
    return titles;
}

/// The rows of a drawn table; titles, headings and empty lines are none.
QVector<QByteArrayList> rowsOf(const Block &block)
{
    QVector<QByteArrayList> rows;
    for (const QByteArray &line : block.lines) {
        const QByteArray text = line.trimmed();
        const bool startsRow = !text.isEmpty() && (isdigit(text.at(0)) || text.startsWith("- "));
        if (startsRow)
            rows << cells(text);
    }
    return rows;
}

/// The title without what differs from image to image: "-> start frame".
QByteArray kindOf(const QByteArray &title)
{
    return title.left(title.indexOf(':')).split('"').first();
}

bool isPartOf(const QByteArrayList &lines, const RecordedExchange &recording)
{
    QByteArrayList titles;
    for (const RecordedFrame &frame : recording)
        titles << frame.title;
    for (int first = 0; first + lines.size() <= titles.size(); ++first) {
        if (titles.mid(first, lines.size()) == lines)
            return true;
    }
    return false;
}

QByteArray placeOf(const Block &block)
{
    return "the block in line " + QByteArray::number(block.line) + ": ";
}

} // namespace

void TestWireFormats::initTestCase()
{
    SKIP_OFF_THE_SIMULATED_MACHINE();
    QFile page(QStringLiteral(WIRE_FORMATS));
    QVERIFY(page.open(QIODevice::ReadOnly));
    m_blocks = fencedBlocks(page.readAll());

    QByteArrayList complaints;
    m_recordings = recordExchanges(complaints);
    QVERIFY2(complaints.isEmpty(), complaints.join('\n').constData());
    for (const RecordedExchange &recording : m_recordings) {
        for (const RecordedFrame &frame : recording)
            m_frames.insert(frame.title, frame.bytes);
    }
}

QVector<Block> TestWireFormats::blocksOf(const char *kind) const
{
    QVector<Block> found;
    for (const Block &block : m_blocks) {
        if (block.kind == kind)
            found << block;
    }
    return found;
}

void TestWireFormats::describedBytesAreCompared_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<bool>("fits");
    QTest::newRow("whole") << QByteArray("01 02") << QByteArray("0102") << true;
    QTest::newRow("other byte") << QByteArray("01 03") << QByteArray("0102") << false;
    QTest::newRow("too short") << QByteArray("01") << QByteArray("0102") << false;
    QTest::newRow("too long") << QByteArray("01 02 03") << QByteArray("0102") << false;
    QTest::newRow("no hex") << QByteArray("01 zz") << QByteArray("01") << false;
    QTest::newRow("repeated") << QByteArray("01 00 ...") << QByteArray("01000000") << true;
    QTest::newRow("not repeated") << QByteArray("01 00 ...") << QByteArray("01000100") << false;
    QTest::newRow("left out") << QByteArray("01 ... 04") << QByteArray("01020304") << true;
    QTest::newRow("other head") << QByteArray("02 ... 04") << QByteArray("01020304") << false;
    QTest::newRow("other tail") << QByteArray("01 ... 05") << QByteArray("01020304") << false;
    QTest::newRow("nothing left out") << QByteArray("01 ... 02") << QByteArray("0102") << false;
    QTest::newRow("left out twice")
        << QByteArray("01 ... 02 ... 03") << QByteArray("0102") << false;
    QTest::newRow("nothing shown") << QByteArray("...") << QByteArray("0102") << false;
}

void TestWireFormats::describedBytesAreCompared()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, hex);
    QFETCH(bool, fits);
    QCOMPARE(describes(text, QByteArray::fromHex(hex)), fits);
}

void TestWireFormats::drawnFramesWentOverTheLine()
{
    const QVector<Block> blocks = blocksOf("frame");
    QVERIFY(!blocks.isEmpty());
    for (const Block &block : blocks) {
        const QByteArrayList titles = titlesOf(block);
        QVERIFY2(!titles.isEmpty(), (placeOf(block) + "no title").constData());
        for (const QByteArray &title : titles)
            QVERIFY2(m_frames.contains(title), (placeOf(block) + title).constData());
        compareFrame(block, titles);
        if (QTest::currentTestFailed())
            return;
    }
}

// A row has an offset, a width and bytes for each of the frames, and what they mean.
void TestWireFormats::compareFrame(const Block &block, const QByteArrayList &titles)
{
    const int frames = titles.size();
    QVector<int> ends(frames);
    for (const QByteArrayList &row : rowsOf(block)) {
        const QByteArray place = placeOf(block) + row.join("  ");
        QVERIFY2(row.size() == 3 * frames + 1, place.constData());
        for (int i = 0; i < frames; ++i) {
            if (row.at(i) == "-")
                continue; // a field that this frame does not have
            const int width = row.at(frames + i).toInt();
            const QByteArray bytes = m_frames.value(titles.at(i)).mid(ends.at(i), width);
            QVERIFY2(row.at(i).toInt() == ends.at(i), place.constData());
            QVERIFY2(width > 0 && bytes.size() == width, place.constData());
            QVERIFY2(describes(row.at(2 * frames + i), bytes),
                     (place + "\nis " + bytes.toHex(' ')).constData());
            ends[i] += width;
        }
    }
    for (int i = 0; i < frames; ++i)
        QVERIFY2(ends.at(i) == m_frames.value(titles.at(i)).size(),
                 (placeOf(block) + "not the whole frame").constData());
}

void TestWireFormats::everyFrameIsDrawn()
{
    QSet<QByteArray> drawn; // kinds and bytes
    for (const Block &block : blocksOf("frame")) {
        for (const QByteArray &title : titlesOf(block))
            drawn << kindOf(title) << m_frames.value(title);
    }
    for (auto frame = m_frames.cbegin(); frame != m_frames.cend(); ++frame)
        QVERIFY2(drawn.contains(kindOf(frame.key())) || drawn.contains(frame.value()),
                 frame.key().constData());
}

void TestWireFormats::exchangesWentOverTheLine()
{
    const QVector<Block> blocks = blocksOf("exchange");
    QVERIFY(!blocks.isEmpty());
    for (const Block &block : blocks) {
        const auto holds = [&block](const RecordedExchange &recording) {
            return isPartOf(block.lines, recording);
        };
        QVERIFY2(std::any_of(m_recordings.cbegin(), m_recordings.cend(), holds),
                 placeOf(block).constData());
    }
}

// A row has the offsets of both versions, the width and the field, whose first word is its name.
void TestWireFormats::layoutIsTheDescriptors()
{
    const struct {
        const char *name;
        std::uint8_t Protocol::*offset;
    } fields[] = {
        {"head", &Protocol::head_offset},     {"length", &Protocol::len_offset},
        {"type", &Protocol::type_offset},     {"address", &Protocol::addr_offset},
        {"extension", &Protocol::ext_offset}, {"block", &Protocol::block_offset},
        {"command", &Protocol::cmd_offset},   {"argument", &Protocol::arg_offset},
        {"opt1", &Protocol::opt1_offset},     {"opt2", &Protocol::opt2_offset},
        {"opt3", &Protocol::opt3_offset},     {"parameters", &Protocol::param_offset},
    };
    const QVector<Block> blocks = blocksOf("layout");
    QCOMPARE(blocks.size(), 1);
    QMap<QByteArray, QByteArrayList> rows;
    for (const QByteArrayList &row : rowsOf(blocks.first()))
        rows.insert(row.last().split(' ').first(), row);

    const FileIO io;
    for (const auto &field : fields) {
        QVERIFY2(rows.contains(field.name), field.name);
        const QByteArrayList row = rows.value(field.name);
        const QByteArray v3 = row.at(0) == "-" ? "0" : row.at(0);
        QCOMPARE(v3.toInt(), int(io.protocolV3().*field.offset));
        QCOMPARE(row.at(1).toInt(), int(io.protocolV4().*field.offset));
    }
}

QTEST_GUILESS_MAIN(TestWireFormats)
#include "tst_wireformats.moc"
