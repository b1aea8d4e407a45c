#include "emulation.h"
#include "openline.h"

#include <QtTest>

namespace {

constexpr speed_t kSpeeds[] = {B50,    B75,    B110,    B134,    B150,    B200,  B300,
                               B600,   B1200,  B1800,   B2400,   B4800,   B9600, B19200,
                               B38400, B57600, B115200, B230400, B1000000};
constexpr unsigned kRates[] = {50,   75,   110,  134,   150,   200,   300,    600,    1200,   1800,
                               2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400, 1000000};
static_assert(std::size(kSpeeds) == 19 && std::size(kRates) == 19);

/// Whether the line takes this speed without the product.
bool canHaveSpeed(Pty &line, speed_t speed)
{
    termios settings = line.settings();
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    line.setSettings(settings);
    settings = line.settings();
    return cfgetospeed(&settings) == speed;
}

} // namespace

class TestSerialBaud : public QObject {
    Q_OBJECT

private slots:
    void tableHas19RowsInOrder();
    void everyRateOfTheTableIsSet_data();
    void everyRateOfTheTableIsSet();
    void nullBaudIs9600();
    void baudTextIsReadUpToItsDigits_data();
    void baudTextIsReadUpToItsDigits();
    void unrecognisedBaudFailsBeforeTheDevice_data();
    void unrecognisedBaudFailsBeforeTheDevice();
};

void TestSerialBaud::tableHas19RowsInOrder()
{
    QCOMPARE(kBaudRows, 19);
    QCOMPARE(sizeof gBaudTable, sizeof(std::uint32_t) * 19 * 2);
    for (std::size_t row = 0; row < std::size(kSpeeds); ++row) {
        QCOMPARE(gBaudTable[row].speed, kSpeeds[row]);
        QCOMPARE(gBaudTable[row].rate, kRates[row]);
    }
}

void TestSerialBaud::everyRateOfTheTableIsSet_data()
{
    QTest::addColumn<QByteArray>("baud");
    QTest::addColumn<unsigned>("speed");
    for (std::size_t row = 0; row < std::size(kSpeeds); ++row) {
        const QByteArray baud = QByteArray::number(kRates[row]);
        QTest::newRow(baud.constData()) << baud << kSpeeds[row];
    }
}

void TestSerialBaud::everyRateOfTheTableIsSet()
{
    QFETCH(QByteArray, baud);
    QFETCH(unsigned, speed);

    Pty line;
    if (isEmulated() && !canHaveSpeed(line, speed))
        QSKIP("the emulator does not know this rate");
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), baud.constData()));
    const termios settings = line.settings();
    QCOMPARE(cfgetispeed(&settings), speed);
    QCOMPARE(cfgetospeed(&settings), speed);
}

void TestSerialBaud::nullBaudIs9600()
{
    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), nullptr));
    const termios settings = line.settings();
    QCOMPARE(cfgetispeed(&settings), speed_t{B9600});
    QCOMPARE(cfgetospeed(&settings), speed_t{B9600});
}

void TestSerialBaud::baudTextIsReadUpToItsDigits_data()
{
    QTest::addColumn<QByteArray>("baud");
    QTest::newRow("blank first") << QByteArray("  38400");
    QTest::newRow("plus sign") << QByteArray("+38400");
    QTest::newRow("leading zeros") << QByteArray("0038400");
    QTest::newRow("text behind") << QByteArray("38400,8N1");
}

void TestSerialBaud::baudTextIsReadUpToItsDigits()
{
    QFETCH(QByteArray, baud);

    Pty line;
    SerialPort port;
    QVERIFY(port.Open(line.path().constData(), baud.constData()));
    const termios settings = line.settings();
    QCOMPARE(cfgetospeed(&settings), speed_t{B38400});
}

void TestSerialBaud::unrecognisedBaudFailsBeforeTheDevice_data()
{
    QTest::addColumn<QByteArray>("baud");
    for (const char *baud : {"115201", "abc", "0", "-9600", "460800", "500000", "576000", "921600",
                             "2000000", "x9600", "99999999999999999999", "%s"})
        QTest::newRow(baud) << QByteArray(baud);
    QTest::newRow("empty") << QByteArray("");
}

void TestSerialBaud::unrecognisedBaudFailsBeforeTheDevice()
{
    QFETCH(QByteArray, baud);

    Pty line;
    SerialPort port;
    const QByteArray message = "ERROR: Unrecognized baud rate: '" + baud + "'\n";
    const Logged present = openLogged(port, line.path(), baud.constData());
    QVERIFY(!present.result);
    QCOMPARE(present.text, message);
    QVERIFY(!line.isOpenedByProduct());

    const Logged missing = openLogged(port, "/no/such/device", baud.constData());
    QVERIFY(!missing.result);
    QCOMPARE(missing.text, message);
}

QTEST_APPLESS_MAIN(TestSerialBaud)
#include "tst_serialbaud.moc"
