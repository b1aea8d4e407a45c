#include "commandhandler.h"

#include <utility>

namespace boardsim {

CommandHandler::CommandHandler(Step step, ExpectedFrame expected, Verdict good, int &count)
    : m_step(step)
    , m_expected(std::move(expected))
    , m_good(std::move(good))
    , m_count(count)
{
    m_good.opensExchange = true;
}

std::optional<Claim> CommandHandler::claim(const QByteArray &start) const
{
    if (!m_expected.bytes.startsWith(start.left(2)))
        return std::nullopt;
    const int length = start.size() < 2 ? 0 : m_expected.bytes.size();
    return Claim{length, Place{m_step}};
}

Verdict CommandHandler::receive(const QByteArray &frame)
{
    const QStringList faults = commandFrameFaults(frame, m_expected);
    if (!faults.isEmpty()) {
        Verdict bad;
        bad.meaning = QStringLiteral("bad %1").arg(m_good.meaning);
        bad.violations = faults;
        return bad;
    }
    ++m_count;
    return m_good;
}

} // namespace boardsim
