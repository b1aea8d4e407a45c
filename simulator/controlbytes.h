#ifndef BOARDSIM_CONTROLBYTES_H
#define BOARDSIM_CONTROLBYTES_H

namespace boardsim {

/// What the boot loader says, one byte each.
constexpr char kAck = 0x06;
constexpr char kNak = 0x15;
constexpr char kCancel = 0x18;
constexpr char kRequest = 'C'; // asks for the start frame, and for the frames behind it

} // namespace boardsim

#endif // BOARDSIM_CONTROLBYTES_H
