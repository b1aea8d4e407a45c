#include "boundedstring.h"

#include <QtTest>

#include <cstring>

class TestBoundedString : public QObject {
    Q_OBJECT

private slots:
    void copyFitsInTheBuffer_data();
    void copyFitsInTheBuffer();
    void shortCopyLeavesTheLastByte();
    void appendFitsInTheBuffer();
    void appendToAFullBufferChangesNothing();
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
    QTest::addColumn<int>("max");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("all of it") << 4 << QByteArray("abc\0####", 8);
    QTest::newRow("cut") << 3 << QByteArray("ab\0#####", 8);
    QTest::newRow("terminator only") << 1 << QByteArray("\0#######", 8);
    QTest::newRow("nothing") << 0 << filled(8);
}

void TestBoundedString::copyFitsInTheBuffer()
{
    QFETCH(int, max);
    QFETCH(QByteArray, expected);

    QByteArray buffer = filled(8);
    QCOMPARE(StrMaxCpy(buffer.data(), "abc", static_cast<std::size_t>(max)), buffer.data());
    QCOMPARE(buffer, expected);
}

void TestBoundedString::shortCopyLeavesTheLastByte()
{
    QByteArray buffer = filled(8);
    StrMaxCpy(buffer.data(), "ab", 8);
    QCOMPARE(buffer, QByteArray("ab\0\0\0\0\0#", 8));
}

void TestBoundedString::appendFitsInTheBuffer()
{
    char buffer[10] = "/dev/";
    QCOMPARE(StrMaxCat(buffer, "ttymxc1", sizeof buffer), buffer);
    QCOMPARE(QByteArray(buffer), QByteArray("/dev/ttym"));
}

void TestBoundedString::appendToAFullBufferChangesNothing()
{
    char buffer[] = "abcdef";
    for (const std::size_t max : {6U, 5U, 1U, 0U}) {
        QCOMPARE(StrMaxCat(buffer, "xyz", max), buffer);
        QCOMPARE(QByteArray(buffer), QByteArray("abcdef"));
    }
}

QTEST_APPLESS_MAIN(TestBoundedString)
#include "tst_boundedstring.moc"
