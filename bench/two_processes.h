// SPDX-License-Identifier: BSD-2-Clause
// What the benchmarks with two processes share: a request of some size with its response, through a client of the library
// and over the bare calls of the host, with both ends on one core, and where the scheduler puts them.
#ifndef BENCH_TWO_PROCESSES_H
#define BENCH_TWO_PROCESSES_H

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Misc/buffer.h"

const int BlockSize = 1700;

/// Keeps this process, and those it forks, on one core while it lives.
class Pin {
public:
    explicit Pin(bool isWanted = true)
    {
        sched_getaffinity(0, sizeof allowed, &allowed);
        int core = 0;
        while (core < CPU_SETSIZE - 1 && !CPU_ISSET(core, &allowed))
            core++;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(core, &one);
        if (isWanted)
            sched_setaffinity(0, sizeof one, &one);
    }
    ~Pin() { sched_setaffinity(0, sizeof allowed, &allowed); }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

private:
    cpu_set_t allowed;
};

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

/// Sends as many bytes as the argument says and takes the response, through the Client() of `Ends`.
template <class Ends>
void Request(benchmark::State& state)
{
    Ends ends;
    const std::string request(static_cast<size_t>(state.range(0)), 'r');
    short event;
    Buffer data;
    for (auto _ : state)
        if (ends.Client().send_event_with_response(1, request.data(), state.range(0)) != 0 ||
            ends.Client().receive_response(event, data) != 0)
            state.SkipWithError("no response");
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

/// The same over the bare calls: `Ends` has Send(data, length, last) for a block and TakeAnswer() for what comes back
/// after the last one.
template <class Ends>
void RequestFloor(benchmark::State& state)
{
    Ends ends;
    const std::string request(static_cast<size_t>(state.range(0)), 'r');
    const auto send = [&](size_t from) {
        const size_t length = std::min<size_t>(BlockSize, request.size() - from);
        return ends.Send(request.data() + from, length, from + length == request.size());
    };
    for (auto _ : state) {
        bool isSent = true;
        for (size_t from = 0; from == 0 || from < request.size(); from += BlockSize)
            isSent = isSent && send(from);
        if (!isSent || !ends.TakeAnswer())
            state.SkipWithError("no response");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

/// Registers the benchmarks of a pair of ends, for requests of these sizes: `Request` and `RequestFloor` with `prefix`
/// before them; with both ends on one core if `isPinned`.
template <class LibraryEnds, class RawEnds>
bool RegisterRequests(const std::string& prefix, bool isPinned, std::initializer_list<int64_t> sizes)
{
    const auto add = [&](const char* name, auto run) {
        auto* benchmark = benchmark::RegisterBenchmark((prefix + name).c_str(), [=](benchmark::State& state) {
            const Pin pin(isPinned);
            run(state);
        });
        for (const int64_t size : sizes)
            benchmark->Arg(size);
        benchmark->ArgName("bytes")->UseRealTime();
    };
    add("Request", Request<LibraryEnds>);
    add("RequestFloor", RequestFloor<RawEnds>);
    return true;
}

/// With both ends on one core, and where the scheduler puts them.
template <class LibraryEnds, class RawEnds>
bool RegisterRequests()
{
    return RegisterRequests<LibraryEnds, RawEnds>("", true, {0, 100, 1699, 16 << 10, 1 << 20, 16 << 20}) &&
           RegisterRequests<LibraryEnds, RawEnds>("Unpinned", false, {0, 1699, 1 << 20});
}

#endif
