#include "cymodem.h"

#include <QRandomGenerator>
#include <QtTest>

#include <algorithm>
#include <climits>
#include <new>
#include <vector>

namespace {

/// A sender between two guards, whose bytes can be looked at.
class GuardedSender {
public:
    explicit GuardedSender(char fill)
        : m_memory(kGuard * 2 + static_cast<int>(sizeof(CYModem)), fill)
    {
        // The array's data is aligned for any object; so is the guard's end.
        m_sender = new (m_memory.data() + kGuard) CYModem();
    }
    ~GuardedSender() { m_sender->~CYModem(); }
    GuardedSender(const GuardedSender &) = delete;
    GuardedSender &operator=(const GuardedSender &) = delete;

    CYModem *operator->() { return m_sender; }
    /// A deep copy: the sender writes behind the array's back.
    QByteArray bytes() const { return QByteArray(m_memory.constData(), m_memory.size()); }
    QByteArray objectBytes() const { return m_memory.mid(kGuard, sizeof(CYModem)); }

private:
    static constexpr int kGuard = 4096;

    QByteArray m_memory;
    CYModem *m_sender; // lives in m_memory
};

std::uint16_t attachCheckValue(GuardedSender &sender, int position)
{
    static const std::uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    return sender->attach_crc(digits, sizeof digits, position);
}

} // namespace

/// The CRC of a block and where it is stored, without a file or a line.
class TestCYModemCrc : public QObject {
    Q_OBJECT

private slots:
    void crcHasTheCheckValue();
    void blockHasTheCrcOfItsBytes();
    void crcIsStoredHighByteFirstAtThePosition();
    void crcOutsideTheFrameIsNotStored_data();
    void crcOutsideTheFrameIsNotStored();
    void newSenderIsZeroFilled();
};

void TestCYModemCrc::crcHasTheCheckValue()
{
    const QByteArray digits("123456789");
    std::uint16_t crc = 0;
    for (const char digit : digits)
        crc = CYModem::UpdateCRC16(crc, static_cast<std::uint8_t>(digit));
    crc = CYModem::UpdateCRC16(crc, 0);
    crc = CYModem::UpdateCRC16(crc, 0);
    QCOMPARE(crc, std::uint16_t{0x31C3});

    const auto *const payload = reinterpret_cast<const std::uint8_t *>(digits.constData());
    QCOMPARE(CYModem().attach_crc(payload, 9, 0), std::uint16_t{0x31C3});
    QCOMPARE(CYModem().attach_crc(payload, 0, 0), std::uint16_t{0});
    const QByteArray zeros(128, '\0');
    QCOMPARE(
        CYModem().attach_crc(reinterpret_cast<const std::uint8_t *>(zeros.constData()), 128, 0),
        std::uint16_t{0});
}

void TestCYModemCrc::blockHasTheCrcOfItsBytes()
{
    QRandomGenerator random(4);
    for (const unsigned length : {1U, 2U, 127U, 128U, 1023U, 1024U}) {
        std::vector<std::uint8_t> payload(length);
        std::generate(payload.begin(), payload.end(),
                      [&random] { return static_cast<std::uint8_t>(random.bounded(256)); });
        std::uint16_t crc = 0;
        for (const std::uint8_t byte : payload)
            crc = CYModem::UpdateCRC16(crc, byte);
        crc = CYModem::UpdateCRC16(CYModem::UpdateCRC16(crc, 0), 0);
        QCOMPARE(CYModem().attach_crc(payload.data(), static_cast<std::uint16_t>(length), 0), crc);
    }
}

void TestCYModemCrc::crcIsStoredHighByteFirstAtThePosition()
{
    const QByteArray stored("\x31\xC3");
    GuardedSender first('\0');
    attachCheckValue(first, 0);
    const int frame = first.bytes().indexOf(stored);
    QVERIFY(frame > 0);
    for (const int position : {131, 1027, 2046}) {
        GuardedSender sender('\0');
        QByteArray expected = sender.bytes();
        expected.replace(frame + position, 2, stored);
        attachCheckValue(sender, position);
        QVERIFY(sender.bytes() == expected);
    }
}

void TestCYModemCrc::crcOutsideTheFrameIsNotStored_data()
{
    QTest::addColumn<int>("position");
    for (const int position : {-1, -2, -2048, INT_MIN, 2047, 2048, 2049, 4000, INT_MAX})
        QTest::newRow(QByteArray::number(position).constData()) << position;
}

void TestCYModemCrc::crcOutsideTheFrameIsNotStored()
{
    QFETCH(int, position);

    GuardedSender sender('#');
    const QByteArray before = sender.bytes();
    QCOMPARE(attachCheckValue(sender, position), std::uint16_t{0x31C3});
    QVERIFY(sender.bytes() == before);
}

void TestCYModemCrc::newSenderIsZeroFilled()
{
    GuardedSender sender('\xFF');
    QCOMPARE(sender->index(), 0U);
    // Nothing but the empty name's pointer is set.
    const QByteArray bytes = sender.objectBytes();
    QVERIFY(bytes.size() - bytes.count('\0') <= static_cast<int>(sizeof(QString)));
}

QTEST_APPLESS_MAIN(TestCYModemCrc)
#include "tst_cymodemcrc.moc"
