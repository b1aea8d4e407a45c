#ifndef BOARDSIM_COMMANDHANDLER_H
#define BOARDSIM_COMMANDHANDLER_H

#include "commandframes.h"
#include "framehandler.h"

namespace boardsim {

/// A command of the board's application that has one valid form. A frame with anything off in it
/// gets no answer, as no board answers what it does not understand.
class CommandHandler : public FrameHandler {
public:
    /// `good` is what happens to a valid frame; its meaning names the command in the transcript.
    /// It opens an exchange. `count` counts the valid ones; it must outlive the handler.
    CommandHandler(Step step, ExpectedFrame expected, Verdict good, int &count);

    std::optional<Claim> claim(const QByteArray &start) const override;
    Verdict receive(const QByteArray &frame) override;
    bool isForApplication() const override { return true; }

private:
    Step m_step;
    ExpectedFrame m_expected;
    Verdict m_good;
    int &m_count;
};

} // namespace boardsim

#endif // BOARDSIM_COMMANDHANDLER_H
