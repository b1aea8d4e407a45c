#ifndef BOARDSIM_PLACE_H
#define BOARDSIM_PLACE_H

#include <QtGlobal>

namespace boardsim {

/// What the board takes part in, step by step: each is one frame to the board and the board's
/// answer to it.
enum class Step {
    Version,
    StartCommand,
    Handshake, // of either version
    Connect,
    Sync,
    DeviceId,
    Config,
    StartFrame, // with the 'C' requests that ask for it
    Block,
    Eot,
    End,
};

/// Where the exchange is.
struct Place {
    Step step = Step::Version;
    qint64 block = 0;  // for Step::Block: counted from 1
    qint64 blocks = 0; // for Step::Block: how many the announced size makes
};

} // namespace boardsim

#endif // BOARDSIM_PLACE_H
