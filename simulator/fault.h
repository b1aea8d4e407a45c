#ifndef BOARDSIM_FAULT_H
#define BOARDSIM_FAULT_H

#include "framedecoder.h"

namespace boardsim {

/// faultTable() says what each kind means.
enum class FaultKind {
    Silent,
    Slow,
    Split,
    Merge,
    NoStartAnswer,
    WrongHead,
    WrongLength,
    WrongChecksum,
    WrongFoot,
    NoUnderscore,
    FullParams,
    Nak,
    Cancel,
    LostAck,
    RepeatAck,
    AckC,
    RepeatControl,
    GarbageBefore,
    GarbageAfter,
    DropBytes,
    LoseBytes,
    HangUp,
    Console,
};

/// Where a fault is wanted.
struct FaultPlace {
    enum class Which {
        Any,
        Number,
        First,
        Middle,
        Last,
    };
    Step step = Step::Version;
    Which which = Which::Any; ///< of the blocks
    qint64 number = 0;        ///< for Which::Number: counted from 1

    bool matches(const Place &place) const;
};

/// A thing that the board does wrong on purpose.
struct Fault {
    FaultKind kind = FaultKind::Silent;
    std::optional<int> number;       ///< milliseconds, a count or an offset, as the kind has it
    QByteArray bytes;                ///< the value of kinds that take bytes, text or a choice
    std::optional<FaultPlace> place; ///< not set: wherever the kind can happen
    QString text;                    ///< as it was given
};

/// A row of the table of faults.
struct FaultRule {
    enum class Value {
        None,
        Number,
        ParamCount, ///< how many parameters a reply has
        Byte,       ///< two hexadecimal digits
        Bytes,      ///< pairs of them
        Text,       ///< with \n, \r and \\ for a line feed, a carriage return and a backslash
        AckOrder,   ///< "ack-first" or "c-first"
    };
    FaultKind kind;
    const char *name;
    Value value;
    const char *valueName;    ///< for people
    const char *defaultValue; ///< null: must be given; empty: may be left out
    QVector<Step> steps;      ///< where it can happen
    const char *meaning;
};

/// All faults, in the order for people.
const QVector<FaultRule> &faultTable();

/// The row of a kind.
const FaultRule &faultRule(FaultKind kind);

/// Reads "KIND[=VALUE][@PLACE]". Not set when that is no fault; `error` then says why.
std::optional<Fault> parseFault(const QString &text, QString &error);

/// The tables of faults and places as text for people.
QString faultHelp();

/// The faults that a board makes.
class FaultPlan {
public:
    explicit FaultPlan(const QVector<Fault> &faults);

    /// The fault of this kind for this place; null when there is none.
    const Fault *find(FaultKind kind, const Place &place) const;

    /// After how many bytes of a frame of `frameSize` the board hangs up at this place.
    std::optional<int> hangUpOffset(const Place &place, int frameSize) const;

private:
    QVector<Fault> m_faults;
};

} // namespace boardsim

#endif // BOARDSIM_FAULT_H
