#ifndef LINE_H
#define LINE_H

#include <cstddef>
#include <cstdint>
#include <vector>

// A serial line in memory. The calls by which the product reaches a line (open, select, read,
// write, ..., its pauses and its clock) are wrapped when a fuzz program is linked: those on the
// board's device play a script and return at once, all others go through.
//
// A script is the fuzzer's input:
//
//   byte       what the serial line does next
//   00 .. BF   that many of the bytes that follow can be read; 00: a hang-up, readable but empty
//   C0 .. EF   nothing comes for 5, 10, ... 240 waits
//   F0 .. F7   one wait fails
//   F8 .. FB   one read fails
//   FC .. FF   all bytes that follow can be read

/// What the serial line does after the end of the script.
enum class AtEnd {
    Silence,
    Failure,     ///< every wait fails
    Acknowledge, ///< sends `kFinalAcks` ACK bytes, then silence
};

constexpr int kFinalAcks = 12;

/// Resets the serial line to the start of `script`, which must live until the next call.
void beginLine(const std::uint8_t *script, std::size_t size, AtEnd atEnd);

/// The port name of the serial line for SerialPort::Open; the product's own device path works too.
constexpr char kLineName[] = "/dev/ttymxc1";

/// All bytes that the product has read.
const std::vector<std::uint8_t> &takenFromLine();
/// All bytes that the product has written.
const std::vector<std::uint8_t> &writtenToLine();
/// Whether a wait has failed.
bool lineFailed();

#endif // LINE_H
