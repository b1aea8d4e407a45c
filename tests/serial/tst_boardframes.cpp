#include "boardframes.h"

#include <QtTest>

/// What the compiler checks about the fixed frames, checked to be a check: it refuses frames too.
class TestBoardFrames : public QObject {
    Q_OBJECT

private slots:
    void rowsStandAtTheirOffsets();
    void laterRowWins();
    void everyChangedByteIsUnsound();
    void wrongLengthWithItsChecksumIsUnsound();
    void checksumIsTheLowByteOfTheSum();
};

void TestBoardFrames::rowsStandAtTheirOffsets()
{
    const auto frame = boardFrame<6>({{0, 0xE7}, {3, 0x12}, {5, 0xE7}});
    const std::array<std::uint8_t, 6> expected{0xE7, 0, 0, 0x12, 0, 0xE7};
    QVERIFY(frame == expected);
}

void TestBoardFrames::laterRowWins()
{
    const auto frame = boardFrame<6>({{3, 0x12}, {3, 0x34}});
    QCOMPARE(frame[3], std::uint8_t(0x34));
}

void TestBoardFrames::everyChangedByteIsUnsound()
{
    QVERIFY(boardFrameIsSound(kUpdateStart));
    for (std::size_t i = 0; i < kUpdateStart.size(); ++i) {
        auto frame = kUpdateStart;
        frame[i] = static_cast<std::uint8_t>(frame[i] + 1);
        QVERIFY2(!boardFrameIsSound(frame), QByteArray::number(int(i)).constData());
    }
}

void TestBoardFrames::wrongLengthWithItsChecksumIsUnsound()
{
    auto frame = kUpdateStart;
    ++frame[1];
    ++frame[frame.size() - 2];
    QVERIFY(!boardFrameIsSound(frame));
}

void TestBoardFrames::checksumIsTheLowByteOfTheSum()
{
    // 0x06 + 0xFF + 0xFF is 0x204.
    QVERIFY(boardFrameIsSound(
        boardFrame<6>({{0, 0xE7}, {1, 0x06}, {2, 0xFF}, {3, 0xFF}, {4, 0x04}, {5, 0xE7}})));
}

QTEST_APPLESS_MAIN(TestBoardFrames)
#include "tst_boardframes.moc"
