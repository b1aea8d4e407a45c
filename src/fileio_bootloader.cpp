#include "fileio.h"

#include "boardframes.h"

#include <QtEndian>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace {

// Packets of the boot loader, 64 bytes both ways, integers little-endian, no checksum.
//
//   offset  width  request         reply
//   0       4      command code
//   4       4      packet number
//   8       56     parameters      device id at 8, width 4
constexpr std::size_t kNumberOffset = 4;
constexpr std::size_t kParamOffset = 8;
constexpr std::size_t kDeviceIdOffset = 8;

using Packet = std::array<std::uint8_t, kBoardReplySize>;

struct Command {
    const char *failure; // printed when the reply is not a whole packet
    std::uint32_t code;
    std::uint32_t number;
    std::uint32_t param;
};

// Deliberate: the packet numbers are fixed, not counted. (tst_bootloader::packetsAreExact)
// clang-format off
constexpr Command kConnect     {"device ack error:CMD_CONNECT",      0xAE, 1, 0};
constexpr Command kSyncPackno  {"device ack error:CMD_SYNC_packno",  0xA4, 1, 1};
constexpr Command kGetDeviceId {"device ack error:CMD_GET_DEVICEID", 0xB1, 3, 0};
constexpr Command kReadConfig  {"device ack error:CMD_READ_CONFIG",  0xA2, 5, 0};
// clang-format on

constexpr int kConnectAttempts = 11;
constexpr long kRetryPauseNs = 100000000; // 100 ms
constexpr int kReportedLine = 734;        // a fixed number in the output line

Packet packetFor(const Command &command)
{
    Packet packet{};
    qToLittleEndian(command.code, packet.data());
    qToLittleEndian(command.number, packet.data() + kNumberOffset);
    qToLittleEndian(command.param, packet.data() + kParamOffset);
    return packet;
}

void printBytes(const char *name, const Packet &packet, int count)
{
    for (int i = 0; i < count; ++i) {
        std::printf("%s[%d] = 0x%x\n", name, i,
                    static_cast<unsigned>(packet[static_cast<std::size_t>(i)]));
    }
}

void pauseBeforeRetry()
{
    timespec rest{0, kRetryPauseNs};
    while (nanosleep(&rest, &rest) < 0 && errno == EINTR) { }
}

int fail(const Command &command)
{
    std::puts(command.failure);
    return -1;
}

} // namespace

int FileIO::sendCmdFromConnect2Config()
{
    Packet reply{};
    const auto exchange = [this, &reply](const Command &command) {
        Packet packet = packetFor(command);
        return serialIoctl(packet.data(), static_cast<unsigned char>(packet.size()), reply.data());
    };

    printBytes("cmd_buf", packetFor(kConnect), kBoardReplySize);
    int count = exchange(kConnect);
    for (int attempt = 1; count != kBoardReplySize && attempt < kConnectAttempts; ++attempt) {
        std::printf("len:%d line:%d\n", count, kReportedLine);
        pauseBeforeRetry();
        count = exchange(kConnect);
    }
    std::printf("len:%d\n", count);
    if (count <= 0)
        return fail(kConnect);
    printBytes("rx_buf", reply, count);
    if (count != kBoardReplySize)
        return fail(kConnect);

    if (exchange(kSyncPackno) != kBoardReplySize)
        return fail(kSyncPackno);
    if (exchange(kGetDeviceId) != kBoardReplySize)
        return fail(kGetDeviceId);
    std::printf("device id:%u\n", qFromLittleEndian<std::uint32_t>(reply.data() + kDeviceIdOffset));
    if (exchange(kReadConfig) != kBoardReplySize)
        return fail(kReadConfig);
    return 1;
}
