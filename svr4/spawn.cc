// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/spawn.h"

#include <csignal>

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "svr4/errno.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: spawn.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

// Of the child: execvp keeps a path there, and a copy of the arguments for a script without an interpreter.
static const size_t StackSize = 64 * 1024;

namespace {

struct Start {
    Newborn& child;
    sigset_t mask; // of the caller
    int error;     // why there is to be no child, or 0
};

} // namespace

// The table of handlers is the child's own, but what a handler of the parent does would be done to the parent's memory.
static void ResetHandlers()
{
    for (int sig = 1; sig < NSIG; sig++) {
        struct sigaction action;
        if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN)
            signal(sig, SIG_DFL);
    }
}

// Runs on a stack that no sanitizer knows, and is left for good in the middle.
[[gnu::no_sanitize_address]] static int Live(void* argument)
{
    Start& start = *static_cast<Start*>(argument);
    ResetHandlers();
    start.error = start.child.LeaveParent();
    if (start.error == 0) {
        sigprocmask(SIG_SETMASK, &start.mask, nullptr);
        start.child.BecomeProgram();
    }
    _exit(255);
}

// A child that has not come so far ends at once.
static long Begin(Start& start, char* stack, size_t size)
{
    const int pid = clone(Live, stack + size, CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
    if (pid == -1 || start.error == 0)
        return pid;
    waitpid(pid, nullptr, 0);
    return FailWith(start.error);
}

long spawn(Newborn& child, std::size_t arguments, long* pid)
{
    const int earlierErrno = errno; // which the child shares
    const size_t size = StackSize + arguments * sizeof(char*);
    void* stack = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED)
        return -1;
    Start start = {child, {}, 0};
    sigprocmask(SIG_BLOCK, nullptr, &start.mask);
    long started;
    {
        const SignalsHeld held;
        started = Begin(start, static_cast<char*>(stack), size);
        if (pid != nullptr)
            *pid = started;
    }
    if (started != -1)
        errno = earlierErrno;
    const SavedErrno result;
    munmap(stack, size);
    return started;
}

} // namespace svr4
