#include "child.h"

#include <QtGlobal>

#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kNoSession = 97;

QByteArray contentOf(FILE *file)
{
    QByteArray content;
    std::rewind(file);
    char block[4096];
    for (std::size_t count; (count = std::fread(block, 1, sizeof block, file)) > 0;)
        content.append(block, static_cast<int>(count));
    std::fclose(file);
    return content;
}

} // namespace

bool ChildResult::diedOf(int signal) const
{
    return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

ChildResult runInChild(const std::function<int()> &body, unsigned seconds)
{
    FILE *const out = std::tmpfile();
    FILE *const err = std::tmpfile();
    if (!out || !err)
        qFatal("no temporary files");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        qFatal("cannot fork");
    if (child == 0) {
        // Without a session of its own, a signal to its process group would hit the test too.
        if (setsid() != getpid())
            _exit(kNoSession);
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        alarm(seconds);
        const int code = body();
        std::fflush(nullptr);
        _exit(code);
    }
    ChildResult result;
    while (waitpid(child, &result.status, 0) < 0 && errno == EINTR) { }
    result.out = contentOf(out);
    result.err = contentOf(err);
    return result;
}
