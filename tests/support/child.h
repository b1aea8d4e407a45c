#ifndef CHILD_H
#define CHILD_H

#include <QByteArray>

#include <cstdio>
#include <functional>

/// How a child process ended, and what it wrote.
struct ChildResult {
    int status = 0; ///< raw wait status
    QByteArray out;
    QByteArray err;

    /// It ran to its end with exit code 0.
    bool passed() const { return status == 0; }
    /// It was ended by this signal.
    bool diedOf(int signal) const;
};

/// Runs `body` in a forked process that leads a session (and a process group) of its own, and
/// waits for it. Its exit code is what `body` returns. It is killed by SIGALRM after `seconds`.
ChildResult runInChild(const std::function<int()> &body, unsigned seconds = 20);

/// Inside a child's body: ends it with code 1 and says why on standard error.
#define CHILD_VERIFY(condition)                                                                    \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                   \
            return 1;                                                                              \
        }                                                                                          \
    } while (false)

/// The test fails, and shows what the child said, unless it passed.
#define VERIFY_CHILD_PASSED(result)                                                                \
    QVERIFY2((result).passed(),                                                                    \
             QByteArray("status " + QByteArray::number((result).status) + ": " + (result).err)     \
                 .constData())

#endif // CHILD_H
