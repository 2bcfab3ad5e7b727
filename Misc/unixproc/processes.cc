// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/unixproc.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>

#include <sys/types.h>
#include <unistd.h>

#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

short UnixProcess::ProcessExists(long proc_pid)
{
    if (proc_pid < 0 || proc_pid > INT_MAX)
        return 0;
    return getpgid(static_cast<pid_t>(proc_pid)) >= 0 || errno != ESRCH; // half of what kill(2) costs
}

short UnixProcess::WaitForProcessToStart(const char* ProcessName, long maxwaittime, long postwaittime)
{
    const char* name = zeloo::TextOrEmpty(ProcessName);
    const bool tell = debug() >= 2;
    if (tell)
        std::cout << "Waiting for process " << name << " to start..." << std::endl;

    char command[80];
    std::snprintf(command, sizeof command, "/usr/bin/ps -e | /usr/bin/grep %s", name);
    bool found = false;
    long waited = 0;
    for (;;) {
        Buffer scratch;
        UnixProcess probe(command, scratch);
        found = probe.wait() == 0;
        if (found || waited >= maxwaittime)
            break;
        sleep(2);
        waited += 2;
    }

    if (waited > 0 && postwaittime > 0)
        sleep(static_cast<unsigned>(postwaittime));
    if (tell) {
        std::cout << "Waited a total of " << waited << " seconds..." << std::endl;
        if (!found)
            std::cout << "Time expired waiting for " << name << " to start..." << std::endl;
    }
    return found;
}

void UnixProcess::WaitForProcessToTerminate(long proc_pid, long maxtime, short send_kill)
{
    int steps = 0;
    for (long remaining = maxtime; remaining >= 1 && ProcessExists(proc_pid); remaining -= 2) {
        sleep(2);
        if (send_kill && ++steps % 10 == 0 && proc_pid > 0) // 0 would be the caller's own group
            kill(static_cast<pid_t>(proc_pid), SIGTERM);
    }
}
