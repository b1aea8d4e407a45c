#include "protocol.h"

namespace {

struct LayoutRow {
    std::uint8_t Protocol::*field;
    std::uint8_t v3;
    std::uint8_t v4;
};

// The layout of both versions. protocolDefaults() sets param_len, frame_head and frame_foot.
// clang-format off
constexpr LayoutRow kLayout[] = {
    // field                      V3   V4
    {&Protocol::version,         kProtocolV3, kProtocolV4},
    {&Protocol::frame_max_len,   kFrameMaxV3, kFrameMaxV4},
    {&Protocol::frame_min_len,    31,  34},
    {&Protocol::param_max_len,    80, 166},
    {&Protocol::head_offset,       0,   0},
    {&Protocol::head_len,          1,   1},
    {&Protocol::len_offset,        1,   1},
    {&Protocol::len_len,           1,   1},
    {&Protocol::type_offset,       2,   2},
    {&Protocol::type_len,          1,   1},
    {&Protocol::addr_offset,       3,   3},
    {&Protocol::addr_len,          4,   3},
    {&Protocol::block_offset,      7,  10},
    {&Protocol::block_len,        16,  16},
    {&Protocol::cmd_offset,       23,  26},
    {&Protocol::cmd_len,           1,   1},
    {&Protocol::arg_offset,       24,  27},
    {&Protocol::arg_len,           2,   2},
    {&Protocol::opt1_offset,      26,  29},
    {&Protocol::opt1_len,          1,   1},
    {&Protocol::opt2_offset,      27,  30},
    {&Protocol::opt2_len,          1,   1},
    {&Protocol::opt3_offset,      28,  31},
    {&Protocol::opt3_len,          1,   1},
    {&Protocol::param_offset,     29,  32},
};
// clang-format on

constexpr std::uint8_t kExtOffsetV4 = 6;
constexpr std::uint8_t kExtLen = 4;

} // namespace

Protocol protocolDefaults()
{
    Protocol protocol{};
    layOutV3(protocol);
    protocol.ext_len = kExtLen;
    protocol.param_len = sizeof(MachineParam);
    protocol.frame_head = kFrameMark;
    protocol.frame_foot = kFrameMark;
    return protocol;
}

void layOutV3(Protocol &protocol)
{
    for (const LayoutRow &row : kLayout)
        protocol.*row.field = row.v3;
}

void layOutV4(Protocol &protocol)
{
    for (const LayoutRow &row : kLayout)
        protocol.*row.field = row.v4;
    protocol.ext_offset = kExtOffsetV4;
    protocol.ext_len = kExtLen;
}
