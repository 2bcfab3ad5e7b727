// What the benchmarks with two processes share: a request with its response, and 1 MiB in blocks, through a client of
// the library and over the bare calls of the host, with both ends on one core.
#ifndef BENCH_TWO_PROCESSES_H
#define BENCH_TWO_PROCESSES_H

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>

#include <sched.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Misc/buffer.h"

const int BlockSize = 1700;
const int RequestSize = 100;
const int TransferSize = 1 << 20;

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

/// Sends `size` bytes and takes the response, through the Client() of `Ends`.
template <class Ends>
void Request(benchmark::State& state, int size)
{
    PinToOneCore();
    Ends ends;
    const std::string request(static_cast<size_t>(size), 'r');
    short event;
    Buffer data;
    for (auto _ : state)
        if (ends.Client().send_event_with_response(1, request.data(), size) != 0 ||
            ends.Client().receive_response(event, data) != 0)
            state.SkipWithError("no response");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

/// The same over the bare calls: `Ends` has Send(data, length, last) for a block and TakeAnswer() for what comes back
/// after the last one.
template <class Ends>
void RequestFloor(benchmark::State& state, int size)
{
    PinToOneCore();
    Ends ends;
    const std::string request(static_cast<size_t>(size), 'r');
    for (auto _ : state)
        for (size_t sent = 0; sent < request.size(); sent += BlockSize) {
            const size_t length = std::min<size_t>(BlockSize, request.size() - sent);
            const bool last = sent + length == request.size();
            if (!ends.Send(request.data() + sent, length, last) || (last && !ends.TakeAnswer()))
                state.SkipWithError("no response");
        }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

/// Registers the four benchmarks of a pair of ends.
template <class LibraryEnds, class RawEnds>
void RegisterRequests()
{
    const auto add = [](const char* name, auto run, int size) {
        benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { run(state, size); })->UseRealTime();
    };
    add("RoundTrip", Request<LibraryEnds>, RequestSize);
    add("RoundTripFloor", RequestFloor<RawEnds>, RequestSize);
    add("Transfer", Request<LibraryEnds>, TransferSize);
    add("TransferFloor", RequestFloor<RawEnds>, TransferSize);
}

#endif
