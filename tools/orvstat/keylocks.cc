// SPDX-License-Identifier: BSD-2-Clause
#include "keylocks.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace orvstat {

typedef std::chrono::steady_clock Clock;

static const std::chrono::milliseconds Step(2);

// 0, or the host's error number.
static int Lock(int fd, Clock::time_point end)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) // signals are held back
            return errno;
        if (Clock::now() >= end)
            return EWOULDBLOCK;
        std::this_thread::sleep_for(Step);
    }
    return 0;
}

KeyLocks::KeyLocks(const std::vector<std::string>& files, long milliseconds) : earlier(), error(0)
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &earlier);
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (const std::string& file : files) { // in an order of their own, so that no two wait for each other
        const int fd = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        error = fd < 0 ? errno : Lock(fd, end);
        if (fd >= 0)
            descriptors.push_back(fd);
        if (error != 0)
            return;
    }
}

KeyLocks::~KeyLocks()
{
    for (const int fd : descriptors)
        close(fd);
    sigprocmask(SIG_SETMASK, &earlier, nullptr);
}

} // namespace orvstat
