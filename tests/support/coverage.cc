// SPDX-License-Identifier: BSD-2-Clause
// In the build that measures coverage, part of the library: a process that ends by _exit, abort or a SIGABRT that it sends
// itself leaves what it counted, as one that ends by exit does, whatever a test has made fail in it. What a process
// counted that another signal ends is lost.
#include "coverage.h"

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <initializer_list>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

static sem_t isWanted;
static sem_t isDone;
static pid_t keeper = 0; // the process that has the thread

// The counts are added to those in the files: none may be added twice.
static void Dump()
{
    __gcov_dump();
    __gcov_reset();
}

// A limit that a test has set on itself would cut the files.
static void Unlimit()
{
    for (const auto resource : {RLIMIT_FSIZE, RLIMIT_NOFILE, RLIMIT_AS}) {
        struct rlimit limit;
        getrlimit(resource, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(resource, &limit);
    }
}

// Whether each call works that brings the counts into the files: without one of them they would be damaged, or left with
// a complaint in what the test captures.
static bool FilesCanBeWritten()
{
    prctl(PR_SET_NAME, NameOfLeaving);
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd == -1)
        return false;
    char byte;
    struct stat status;
    struct rlimit size;
    const bool can = fcntl(fd, F_GETFL) != -1 && fstat(fd, &status) == 0 && lseek(fd, 0, SEEK_SET) == 0 &&
                     read(fd, &byte, 1) == 0 && write(fd, "", 1) == 1 && getrlimit(RLIMIT_FSIZE, &size) == 0 &&
                     size.rlim_cur == RLIM_INFINITY;
    return close(fd) == 0 && can;
}

static void Leave()
{
    sigset_t all;
    sigset_t earlier;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &earlier);
    if (zeloo_let_memory_be != nullptr)
        zeloo_let_memory_be();
    Unlimit();
    if (FilesCanBeWritten()) {
        Dump();
    } else if (keeper == getpid()) {
        sem_post(&isWanted);
        while (sem_wait(&isDone) != 0) {
        }
    }
    sigprocmask(SIG_SETMASK, &earlier, nullptr);
}

static void* Keep(void*)
{
    for (;;) {
        while (sem_wait(&isWanted) != 0) {
        }
        Dump();
        sem_post(&isDone);
    }
}

extern "C" void zeloo_keep_counts()
{
    if (keeper == getpid())
        return;
    sigset_t all;
    sigset_t earlier;
    sigfillset(&all);
    sem_init(&isWanted, 0, 0);
    sem_init(&isDone, 0, 0);
    pthread_sigmask(SIG_BLOCK, &all, &earlier); // the thread takes no signal from the program
    pthread_t thread;
    if (pthread_create(&thread, nullptr, Keep, nullptr) == 0)
        keeper = getpid();
    pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

static long Call(long number, long a, long b, long c, long d, long e, long f)
{
    static const auto next = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    return next(number, a, b, c, d, e, f);
}

// ---- The end of a crash ----

static volatile sig_atomic_t isCrash = 0;

static void SetDisposition(int sig, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    sigaction(sig, &action, nullptr);
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, sig);
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
}

static void EndWithout(int)
{
    SetDisposition(SIGABRT, SIG_DFL);
    Call(SYS_tgkill, getpid(), Call(SYS_gettid, 0, 0, 0, 0, 0, 0), SIGABRT, 0, 0, 0);
}

// Of a process whose memory may be in pieces, or whose locks are held for ever. When the counts can't be left it ends as
// it would have ended, without a word of the allocator's.
static void LeaveAfterCrash()
{
    isCrash = 1;
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nowhere != -1)
        dup2(nowhere, 2);
    for (const int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGALRM})
        SetDisposition(sig, EndWithout);
    const struct itimerval time = {{}, {3, 0}};
    setitimer(ITIMER_REAL, &time, nullptr);
    Unlimit();
    if (FilesCanBeWritten())
        Dump();
    SetDisposition(SIGABRT, SIG_DFL);
}

// ---- What the host's library would do ----

extern "C" long syscall(long sysno, ...) noexcept
{
    long arguments[6];
    va_list rest;
    va_start(rest, sysno);
    for (long& argument : arguments)
        argument = va_arg(rest, long);
    va_end(rest);
    if (sysno == SYS_tgkill && arguments[2] == SIGABRT && !isCrash)
        LeaveAfterCrash();
    return Call(sysno, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

extern "C" void _exit(int status)
{
    Leave();
    for (;;)
        Call(SYS_exit_group, status, 0, 0, 0, 0, 0);
}

extern "C" void abort() noexcept
{
    if (isCrash)
        EndWithout(SIGABRT);
    Leave();
    reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
    __builtin_unreachable();
}
