// In the build that measures coverage, part of the library: a process that ends by _exit or abort leaves what it
// counted, as one that ends by exit does, whatever a test has made fail in it. What a process counted that a signal ends
// is lost.
#include "tests/support/coverage.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

extern "C" void _exit(int status)
{
    Leave();
    for (;;)
        syscall(SYS_exit_group, status);
}

extern "C" void abort() noexcept
{
    Leave();
    reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
    __builtin_unreachable();
}
