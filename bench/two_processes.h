// What the benchmarks with two processes share.
#ifndef BENCH_TWO_PROCESSES_H
#define BENCH_TWO_PROCESSES_H

#include <functional>

#include <sched.h>
#include <unistd.h>

/// Keeps this process, and those it forks from now on, on one core.
inline void PinToOneCore()
{
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int core = 0;
    while (core < CPU_SETSIZE - 1 && !CPU_ISSET(core, &allowed))
        core++;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    sched_setaffinity(0, sizeof one, &one);
}

/// Forks a process that runs `body` and leaves without clean-up.
inline pid_t Fork(const std::function<void()>& body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

#endif
