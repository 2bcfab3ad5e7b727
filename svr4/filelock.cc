// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/filelock.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: filelock.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

static const long StepNanoseconds = 2000000;

static long long Now()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// The record locks of System V need a file that may be written, and end when any descriptor of it is closed.
static bool TakeLock(int fd, int milliseconds)
{
    const long long end = Now() + milliseconds;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || Now() >= end)
            return false;
        const struct timespec step = {0, StepNanoseconds};
        nanosleep(&step, nullptr);
    }
    return true;
}

FileLock::FileLock(const char* path, int milliseconds) : held(all_but_faults()), fd(-1), isLocked(false)
{
    const SavedErrno savedErrno;
    if (path != nullptr)
        fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd >= 0)
        isLocked = TakeLock(fd, milliseconds);
}

FileLock::~FileLock()
{
    const SavedErrno savedErrno;
    if (isLocked)
        flock(fd, LOCK_UN); // closing does not end it while a forked child has a copy of the descriptor
    if (fd >= 0)
        close(fd);
}

} // namespace svr4
