#include "ymodemtransfer.h"

#include "cymodem.h"
#include "serialport.h"

#include <cstdio>

namespace {

constexpr int kControlReadSize = 10;
constexpr int kSilentReads = 10; // about 10 s

void sendNextFrame(CYModem &sender, SerialPort &port)
{
    // A frame that could not be written is not sent again: the receiver's next request asks for
    // the one after it.
    if (sender.index() == 0)
        static_cast<void>(sender.send_start_frame(&port));
    else
        static_cast<void>(sender.send_data_frame(&port));
    sender.index_added();
}

void answerControl(std::uint8_t control, CYModem &sender, SerialPort &port)
{
    switch (control) {
    case kCrcRequest:
    case kAck:
        std::printf("[YModem]: recv [C] or [ACK] (value: %d).\n", control);
        sendNextFrame(sender, port);
        break;
    case kNak:
        // Deliberate: nothing is sent again, and both lines are printed. The next ACK or C requests
        // the next frame. (tst_transfer::nakCausesNoResend)
        std::puts("[NAK]");
        std::puts("[CA]");
        break;
    case kCancel:
        // Deliberate: only printed; the transfer continues.
        // (tst_transfer::cancelDoesNotEndTheTransfer)
        std::puts("[CA]");
        break;
    default:
        break;
    }
}

} // namespace

bool runYModemTransfer(CYModem &sender, SerialPort &port)
{
    bool answered = false;
    for (int silent = 0; silent < kSilentReads;) {
        // Deliberate: only the first byte counts, so an ACK followed by a C asks for one frame.
        // (tst_transfer::ackAndCTogetherAdvanceOneFrame)
        std::uint8_t control[kControlReadSize];
        if (port.Read(control, sizeof control) <= 0) {
            ++silent;
            continue;
        }
        answered = true;
        silent = 0;
        answerControl(control[0], sender, port);
    }
    return answered;
}
