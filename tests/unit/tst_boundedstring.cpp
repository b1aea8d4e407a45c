#include "boundedstring.h"

#include <QtTest>

class TestBoundedString : public QObject {
    Q_OBJECT

private slots:
    void copyFitsInTheBuffer_data();
    void copyFitsInTheBuffer();
    void shortCopyLeavesTheLastByte();
    void appendFitsInTheBuffer_data();
    void appendFitsInTheBuffer();
    void appendToAFullBufferChangesNothing();
    void shortAppendLeavesTheLastByte();
};

namespace {

constexpr char kUntouched = '#';

QByteArray filled(int size)
{
    return QByteArray(size, kUntouched);
}

} // namespace

void TestBoundedString::copyFitsInTheBuffer_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<int>("max");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray abc("abc");
    QTest::newRow("fills the buffer") << abc << 4 << QByteArray("abc\0####", 8);
    QTest::newRow("cut") << abc << 3 << QByteArray("ab\0#####", 8);
    QTest::newRow("cut to one") << abc << 2 << QByteArray("a\0######", 8);
    QTest::newRow("terminator only") << abc << 1 << QByteArray("\0#######", 8);
    QTest::newRow("nothing") << abc << 0 << filled(8);
    QTest::newRow("empty") << QByteArray("") << 4 << QByteArray("\0\0\0#####", 8);
    QTest::newRow("empty, terminator only") << QByteArray("") << 1 << QByteArray("\0#######", 8);
}

void TestBoundedString::copyFitsInTheBuffer()
{
    QFETCH(QByteArray, source);
    QFETCH(int, max);
    QFETCH(QByteArray, expected);

    QByteArray buffer = filled(8);
    QCOMPARE(StrMaxCpy(buffer.data(), source.constData(), static_cast<std::size_t>(max)),
             buffer.data());
    QCOMPARE(buffer, expected);
}

void TestBoundedString::shortCopyLeavesTheLastByte()
{
    QByteArray buffer = filled(8);
    StrMaxCpy(buffer.data(), "ab", 8);
    QCOMPARE(buffer, QByteArray("ab\0\0\0\0\0#", 8));
}

void TestBoundedString::appendFitsInTheBuffer_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("max");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray prefix("/dev/");
    QTest::newRow("cut") << prefix << 10 << QByteArray("/dev/ttym\0######", 16);
    QTest::newRow("fills the buffer") << prefix << 13 << QByteArray("/dev/ttymxc1\0###", 16);
    QTest::newRow("room for the terminator only")
        << prefix << 6 << QByteArray("/dev/\0", 6) + filled(10);
    QTest::newRow("to an empty text") << QByteArray("") << 4 << QByteArray("tty\0", 4) + filled(12);
}

void TestBoundedString::appendFitsInTheBuffer()
{
    QFETCH(QByteArray, text);
    QFETCH(int, max);
    QFETCH(QByteArray, expected);

    QByteArray buffer = text + '\0' + filled(15 - text.size());
    QCOMPARE(StrMaxCat(buffer.data(), "ttymxc1", static_cast<std::size_t>(max)), buffer.data());
    QCOMPARE(buffer, expected);
}

void TestBoundedString::appendToAFullBufferChangesNothing()
{
    for (const std::size_t max : {6U, 5U, 1U, 0U}) {
        QByteArray buffer("abcdef\0###", 10);
        QCOMPARE(StrMaxCat(buffer.data(), "xyz", max), buffer.data());
        QCOMPARE(buffer, QByteArray("abcdef\0###", 10));
    }
}

void TestBoundedString::shortAppendLeavesTheLastByte()
{
    QByteArray buffer = QByteArray("ab\0", 3) + filled(7);
    StrMaxCat(buffer.data(), "c", 8);
    QCOMPARE(buffer, QByteArray("abc\0\0\0\0###", 10));
}

QTEST_APPLESS_MAIN(TestBoundedString)
#include "tst_boundedstring.moc"
