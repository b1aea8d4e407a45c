#ifndef BOARDSIM_OPTIONS_H
#define BOARDSIM_OPTIONS_H

#include "commanddecoder.h"
#include "fault.h"
#include "recording.h"
#include "transcript.h"

namespace boardsim {

/// How a simulated board behaves. The defaults are a good board on a serial line without delay, and
/// the program's.
struct Options {
    QString linkPath;                  ///< link to the device, removed at the end; empty: none
    QByteArray versionText = "V4.1.3"; ///< ASCII, at most kMaxVersionText characters
    QByteArray params = paramBlock("ABC_K7QX12"); ///< of handshake replies, at most kMaxParams
    std::uint32_t deviceId = 0x4B375158;          ///< that the boot loader reports
    QString imageFile;     ///< where a complete image is written; empty: nowhere
    int baud = 0;          ///< delays both directions as a line of this speed does; 0: no delay
    int controlRepeat = 1; ///< least bytes in a reply of the transfer, padded with its last
    bool startInBootLoader = false;     ///< as after an update that broke off
    Milliseconds bootDelay{1500};       ///< from the start reply to the first 'C'
    Milliseconds requestInterval{1000}; ///< between the 'C's that ask for the start frame
    Milliseconds frameGap{250};         ///< a pause in a frame that means that it broke off
    LineSink transcript;                ///< called on the simulator's thread; may be empty
    HexStyle hexStyle = HexStyle::Full;
    QVector<Fault> faults; ///< what the board does wrong; see parseFault()
    std::optional<Recording>
        replay;              ///< is played in place of all above but the link and transcript
    bool replayFast = false; ///< without the time that the recorded board took to reply
};

} // namespace boardsim

#endif // BOARDSIM_OPTIONS_H
