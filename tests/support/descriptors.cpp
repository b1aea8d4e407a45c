#include "descriptors.h"

#include <QtGlobal>

#include <algorithm>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

namespace {

constexpr rlim_t kEnough = FD_SETSIZE + 64;

} // namespace

int nextDescriptor()
{
    const int descriptor = dup(STDERR_FILENO);
    close(descriptor);
    return descriptor;
}

DescriptorsUpToSelectLimit::DescriptorsUpToSelectLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, kEnough);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        qFatal("this machine does not allow %d descriptors", static_cast<int>(kEnough));
    while (nextDescriptor() < FD_SETSIZE)
        m_descriptors.push_back(dup(STDERR_FILENO));
}

DescriptorsUpToSelectLimit::~DescriptorsUpToSelectLimit()
{
    for (const int descriptor : m_descriptors)
        close(descriptor);
}
