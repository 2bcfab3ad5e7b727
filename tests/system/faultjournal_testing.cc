// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/faultjournal_testing.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace faultjournal_testing {

std::vector<std::string> steps;
int stepsToLive = INT_MAX;
std::string refusing;
bool unlinkRefuses = false;

} // namespace faultjournal_testing

using namespace faultjournal_testing;

static void Step(const std::string& step)
{
    steps.push_back(step);
    if (stepsToLive-- == 0)
        kill(getpid(), SIGKILL);
}

extern "C" int fsync(int fd)
{
    char link[64], path[PATH_MAX + 1] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (readlink(link, path, sizeof path - 1) < 0)
        std::abort();
    Step("sync " + NameOf(path));
    if (!refusing.empty() && NameOf(path) == refusing) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

// The names of the parameters are those of the host.
extern "C" int rename(const char* __old, const char* __new) noexcept
{
    Step("rename " + NameOf(__new));
    return renameat(AT_FDCWD, __old, AT_FDCWD, __new);
}

extern "C" int unlink(const char* __name) noexcept
{
    if (unlinkRefuses) {
        errno = EIO;
        return -1;
    }
    Step("unlink " + NameOf(__name));
    return unlinkat(AT_FDCWD, __name, 0);
}
