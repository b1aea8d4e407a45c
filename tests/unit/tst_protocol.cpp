#include "fileio.h"
#include "protocol.h"

#include <QtTest>

#include <type_traits>

namespace {

struct FieldRow {
    const char *name;
    std::uint8_t Protocol::*field;
    int v3;
    int v4;
};

// The position in the table is the field's position in the record.
// clang-format off
const FieldRow kFields[] = {
    {"version",       &Protocol::version,       3,    4},
    {"frame_max_len", &Protocol::frame_max_len, 111,  200},
    {"frame_min_len", &Protocol::frame_min_len, 31,   34},
    {"param_max_len", &Protocol::param_max_len, 80,   166},
    {"head_offset",   &Protocol::head_offset,   0,    0},
    {"head_len",      &Protocol::head_len,      1,    1},
    {"len_offset",    &Protocol::len_offset,    1,    1},
    {"len_len",       &Protocol::len_len,       1,    1},
    {"type_offset",   &Protocol::type_offset,   2,    2},
    {"type_len",      &Protocol::type_len,      1,    1},
    {"addr_offset",   &Protocol::addr_offset,   3,    3},
    {"addr_len",      &Protocol::addr_len,      4,    3},
    {"ext_offset",    &Protocol::ext_offset,    0,    6},
    {"ext_len",       &Protocol::ext_len,       4,    4},
    {"block_offset",  &Protocol::block_offset,  7,    10},
    {"block_len",     &Protocol::block_len,     16,   16},
    {"cmd_offset",    &Protocol::cmd_offset,    23,   26},
    {"cmd_len",       &Protocol::cmd_len,       1,    1},
    {"arg_offset",    &Protocol::arg_offset,    24,   27},
    {"arg_len",       &Protocol::arg_len,       2,    2},
    {"opt1_offset",   &Protocol::opt1_offset,   26,   29},
    {"opt1_len",      &Protocol::opt1_len,      1,    1},
    {"opt2_offset",   &Protocol::opt2_offset,   27,   30},
    {"opt2_len",      &Protocol::opt2_len,      1,    1},
    {"opt3_offset",   &Protocol::opt3_offset,   28,   31},
    {"opt3_len",      &Protocol::opt3_len,      1,    1},
    {"param_offset",  &Protocol::param_offset,  29,   32},
    {"param_len",     &Protocol::param_len,     42,   42},
    {"frame_head",    &Protocol::frame_head,    0xE7, 0xE7},
    {"frame_foot",    &Protocol::frame_foot,    0xE7, 0xE7},
};
// clang-format on

static_assert(std::size(kFields) == 30);
static_assert(sizeof(Protocol) == 30);
static_assert(sizeof(MachineParam) == 42);
static_assert(std::is_trivially_copyable_v<Protocol> && std::is_trivially_copyable_v<MachineParam>);

int positionOf(const FieldRow &row)
{
    const Protocol protocol{};
    return static_cast<int>(&(protocol.*row.field)
                            - reinterpret_cast<const std::uint8_t *>(&protocol));
}

} // namespace

class TestProtocol : public QObject {
    Q_OBJECT

private slots:
    void fieldsHoldTheirValues_data();
    void fieldsHoldTheirValues();
    void initialisingAgainChangesNothing();
    void versionsAreIndependent();
    void v3NeverGetsAnExtensionField();
    void parametersFillTheFrame();
};

void TestProtocol::fieldsHoldTheirValues_data()
{
    QTest::addColumn<int>("index");
    for (std::size_t i = 0; i < std::size(kFields); ++i)
        QTest::newRow(kFields[i].name) << static_cast<int>(i);
}

void TestProtocol::fieldsHoldTheirValues()
{
    QFETCH(int, index);

    const FileIO fileIO;
    const FieldRow &row = kFields[index];
    QCOMPARE(positionOf(row), index);
    QCOMPARE(static_cast<int>(fileIO.protocolV3().*row.field), row.v3);
    QCOMPARE(static_cast<int>(fileIO.protocolV4().*row.field), row.v4);
}

void TestProtocol::initialisingAgainChangesNothing()
{
    FileIO fileIO;
    fileIO.initProtocolV3();
    fileIO.initProtocolV4();
    for (const FieldRow &row : kFields) {
        QCOMPARE(static_cast<int>(fileIO.protocolV3().*row.field), row.v3);
        QCOMPARE(static_cast<int>(fileIO.protocolV4().*row.field), row.v4);
    }
}

void TestProtocol::versionsAreIndependent()
{
    const FileIO fileIO;
    QVERIFY(&fileIO.protocolV3() != &fileIO.protocolV4());
    QCOMPARE(fileIO.protocolV3().version, std::uint8_t{3});
    QCOMPARE(fileIO.protocolV4().version, std::uint8_t{4});
}

// Whoever lays a descriptor out as V3 leaves the four fields alone that V3 does not set.
void TestProtocol::v3NeverGetsAnExtensionField()
{
    Protocol protocol{};
    protocol.ext_offset = 99;
    protocol.ext_len = 98;
    protocol.param_len = 97;
    protocol.frame_head = 96;
    protocol.frame_foot = 95;
    layOutV3(protocol);
    QCOMPARE(static_cast<int>(protocol.ext_offset), 99);
    QCOMPARE(static_cast<int>(protocol.ext_len), 98);
    QCOMPARE(static_cast<int>(protocol.param_len), 97);
    QCOMPARE(static_cast<int>(protocol.frame_head), 96);
    QCOMPARE(static_cast<int>(protocol.frame_foot), 95);

    layOutV4(protocol);
    QCOMPARE(static_cast<int>(protocol.ext_offset), 6);
    QCOMPARE(static_cast<int>(protocol.ext_len), 4);
    QCOMPARE(static_cast<int>(protocol.param_len), 97);
    QCOMPARE(static_cast<int>(protocol.frame_head), 96);
    QCOMPARE(static_cast<int>(protocol.frame_foot), 95);
}

void TestProtocol::parametersFillTheFrame()
{
    const FileIO fileIO;
    for (const Protocol &protocol : {fileIO.protocolV3(), fileIO.protocolV4()}) {
        QCOMPARE(protocol.param_max_len, protocol.frame_max_len - protocol.frame_min_len);
        // Checksum and foot follow the parameters.
        QCOMPARE(protocol.frame_min_len, protocol.param_offset + 2);
    }
    QCOMPARE(sizeof FrameRecordV3::params, std::size_t{fileIO.protocolV3().param_max_len});
    QCOMPARE(sizeof FrameRecordV4::params, std::size_t{fileIO.protocolV4().param_max_len});
}

QTEST_APPLESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
