// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "svr4/errno.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: process.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

int setpgrp()
{
    return static_cast<int>(setsid()); // the host's setpgrp makes a group only and keeps the terminal
}

int fork_held(void (*inChild)())
{
    const SignalsHeld held;
    const pid_t pid = fork();
    if (pid == 0)
        inChild();
    return pid;
}

int execvp(const char* file, char* const argv[])
{
    if (file == nullptr)
        return FailWith(EFAULT);
    ::execvp(file, argv);
    if (errno == ENOENT && std::strcmp(file, "/sbin/sh") == 0)
        ::execvp("/bin/sh", argv);
    return -1;
}

static uintptr_t CurrentBreak() { return reinterpret_cast<uintptr_t>(sbrk(0)); }

// The break when the program was loaded. Whatever was initialised earlier may have moved it already, so this is only
// the second choice.
static const uintptr_t BreakAtLoad = CurrentBreak();

// The status line of a process (0: this one) behind its second field, the program's name in parentheses, which may itself
// hold blanks and parentheses: at the blank before the third. Null when it cannot be read.
static const char* StatusBehindName(long pid, char (&text)[2048])
{
    char path[40] = "/proc/self/stat";
    if (pid != 0)
        std::snprintf(path, sizeof path, "/proc/%ld/stat", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    if (length <= 0)
        return nullptr;
    text[length] = '\0';
    const char* parenthesis = std::strrchr(text, ')');
    return parenthesis == nullptr ? nullptr : parenthesis + 1;
}

// For an old host, or when no descriptor is free.
static bool StatusSaysEnded(pid_t pid)
{
    char text[2048];
    const char* state = StatusBehindName(pid, text);
    return state != nullptr ? state[1] == 'Z' || state[1] == 'X' : getpgid(pid) < 0 && errno == ESRCH;
}

bool has_ended(long pid)
{
    if (pid <= 0 || pid > INT_MAX)
        return true;
    const SavedErrno savedErrno;
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0)
        return errno == ESRCH || StatusSaysEnded(static_cast<pid_t>(pid));
    struct pollfd process = {fd, POLLIN, 0};
    const bool hasEnded = poll(&process, 1, 0) > 0;
    close(fd);
    return hasEnded;
}

// The value of field `number`, counted from 1, of this process's status; 0 when it cannot be read.
static uintptr_t StatusField(int number)
{
    char text[2048];
    const char* at = StatusBehindName(0, text);
    for (int field = 3; at != nullptr && field < number; field++)
        at = std::strchr(at + 1, ' ');
    return at == nullptr ? 0 : std::strtoull(at, nullptr, 10);
}

// Where the break began. The host puts it at a random distance behind the data segment.
static uintptr_t StartOfBreak()
{
    static uintptr_t start = 0; // the same for the whole life of the process and for its forked children
    if (start == 0) {
        const SavedErrno savedErrno;
        start = StatusField(47);
        if (start == 0 || start > CurrentBreak())
            start = BreakAtLoad;
    }
    return start;
}

long heap_size()
{
    const uintptr_t start = StartOfBreak();
    const uintptr_t now = CurrentBreak();
    return start == 0 || now <= start ? 0 : static_cast<long>(std::min<uintptr_t>(now - start, INT_MAX));
}

} // namespace svr4
