// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/copy.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: copy.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

pid_t copy_process()
{
    const pid_t maker = getpid();
    const bool endsWithMaker = syscall(SYS_gettid) == maker; // the host means the thread, not the process
    // No flag and no signal: all arguments but the first are 0, in whatever order this processor has them. The C
    // library is not told: its locks then belong to the copy as they belonged to the thread that made it.
    const long pid = syscall(SYS_clone, 0L, 0L, 0L, 0L, 0L);
    if (pid == 0 && endsWithMaker) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != maker) // it ended before
            _exit(1);
    }
    return static_cast<pid_t>(pid);
}

int copy_status(pid_t pid)
{
    const SavedErrno savedErrno;
    int status = 0;
    const pid_t ended = waitpid(pid, &status, WNOHANG | __WALL);
    if (ended == 0 || (ended < 0 && errno == EINTR))
        return -1;
    return ended < 0 ? 0 : status;
}

void* share_memory(size_t size)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}

void unshare_memory(void* memory, size_t size) { munmap(memory, size); }

bool handles_signal(pid_t pid, int sig)
{
    char path[40];
    snprintf(path, sizeof path, "/proc/%ld/status", static_cast<long>(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[4096];
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    const char* caught = strstr(text, "\nSigCgt:");
    return caught != nullptr && (strtoull(caught + 8, nullptr, 16) >> (sig - 1) & 1) != 0;
}

} // namespace svr4
