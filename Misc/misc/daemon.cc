// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/misc.h"

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/cstring.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/standardstreams.h"
#include "svr4/errno.h"
#include "svr4/process.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: misc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

int NumberOfOpenFiles()
{
    int count = 0;
    struct stat status;
    for (int fd = 0; fd < zeloo::DescriptorLimit; fd++)
        if (fstat(fd, &status) == 0)
            count++;
    return count;
}

// Writes out what is buffered, before its descriptors change their meaning or a fork doubles it.
static void FlushOutput()
{
    std::cout.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

static short Failed(const char* what)
{
    std::perror(what);
    return -1;
}

static bool IsRegularFile(const char* name)
{
    struct stat status;
    return stat(name, &status) == 0 && S_ISREG(status.st_mode);
}

// Opens the log, without waiting for somebody who reads a FIFO: there may never be one. The descriptor, or -1.
static int OpenLog(const char* name, int mode)
{
    const int fd = open(name, O_WRONLY | O_CREAT | O_NONBLOCK | mode, 0644);
    if (fd >= 0) {
        const svr4::SavedErrno savedErrno;
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK); // the writing is to wait for a slow reader
    }
    return fd;
}

short redirectoutput(const char* LogFileName, short Append)
{
    if (LogFileName == nullptr)
        return 0;
    {
        const svr4::SavedErrno savedErrno; // neither a rename nor a close that finds nothing is a failure
        FlushOutput();
        if (!Append && IsRegularFile(LogFileName)) // a device that is renamed is lost to the whole host
            std::rename(LogFileName, CString(LogFileName) + ".old");
        close(0); // so that the log file becomes descriptor 0
    }
    const int fd = OpenLog(LogFileName, Append ? O_APPEND : O_TRUNC);
    if (fd < 0)
        return Failed("Error opening log file.");
    if (dup2(fd, 0) < 0)
        return Failed("Error redirecting stdin.");
    if (dup2(fd, 1) < 0)
        return Failed("Error redirecting stdout.");
    if (dup2(fd, 2) < 0)
        return Failed("Error redirecting stderr.");
    return 0;
}

// Forks; the parent is gone when this returns 0. It goes without its exit handlers and destructors, which would release
// what the child goes on with. -1 when the fork failed.
static int ForkAndLeave()
{
    const pid_t pid = fork();
    if (pid > 0)
        _exit(0);
    return pid < 0 ? -1 : 0;
}

// Leaves the terminal, the session and the parent. 0, or the failure that daemonize returns.
static short Detach()
{
    for (const int sig : {SIGTTOU, SIGTTIN, SIGTSTP})
        svr4::signal(sig, SIG_IGN);

    // A parent that leads the session takes the terminal with it, whose SIGHUP may come before it is ignored. And no
    // handler runs, and cleans up what is the daemon's, in a parent that is about to go.
    const svr4::SignalsHeld held;
    if (ForkAndLeave() < 0)
        return Failed("Can't fork first child");
    if (svr4::setpgrp() < 0) {
        std::cerr << "can't change process group" << std::endl;
        return -2;
    }
    svr4::signal(SIGHUP, SIG_IGN);
    // The second child leads no process group and so can never get a terminal again.
    return ForkAndLeave() < 0 ? Failed("Can't fork second child") : 0;
}

short daemonize(const char* LogFileName, short Append)
{
    FlushOutput();
    if (getppid() == 1)
        std::cerr << "Already a daemon. ppid is 1." << std::endl;
    else if (const short failure = Detach())
        return failure;

    for (int fd = 0; fd < zeloo::DescriptorLimit; fd++)
        close(fd);
    errno = 0;
    umask(0);
    svr4::signal(SIGCLD, SIG_IGN); // children of the daemon never become zombies
    return redirectoutput(LogFileName, Append);
}
