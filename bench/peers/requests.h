// SPDX-License-Identifier: BSD-2-Clause
// The rows of a package that carries requests: those of Request and UnpinnedRequest, between two processes.
#ifndef BENCH_PEERS_REQUESTS_H
#define BENCH_PEERS_REQUESTS_H

#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>

#include <sys/wait.h>

#include <benchmark/benchmark.h>

#include "bench/two_processes.h"

/// How long a client waits for what does not come, in seconds.
const int ResponseLimit = 5;

/// A process that serves as long as this object lives.
class Server {
public:
    explicit Server(const std::function<void()>& serve) : pid(Fork(serve)) {}
    ~Server()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    pid_t pid;
};

/// `Ends` is made with the number of bytes of a request, and has a server in a process of its own. Its Request() sends
/// those bytes, takes a response without data, and tells whether it came.
template <class Ends>
bool RegisterRequests(const std::string& package, std::initializer_list<int64_t> sizes)
{
    for (const bool isPinned : {true, false}) {
        const std::string name = (isPinned ? "Request_" : "UnpinnedRequest_") + package;
        auto* benchmark = benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
            const Pin pin(isPinned);
            Ends ends(static_cast<size_t>(state.range(0)));
            if (!ends.Request()) // the first one may wait for the server to get ready
                state.SkipWithError("no response");
            for (auto _ : state)
                if (!ends.Request()) {
                    state.SkipWithError("no response");
                    break;
                }
            state.SetBytesProcessed(state.iterations() * state.range(0));
        });
        for (const int64_t size : sizes)
            benchmark->Arg(size);
        benchmark->ArgName("bytes")->UseRealTime();
    }
    return true;
}

/// For packages that carry bytes: the record of a request or response of `size` bytes, which its length precedes.
inline std::string StreamRecord(uint32_t size)
{
    std::string record(sizeof size + size, 'r');
    std::memcpy(record.data(), &size, sizeof size);
    return record;
}

/// Takes one record, through receive(bytes, size), which returns how many bytes it has put there, and 0 or below at the
/// end. The other end sends no second record before this one is answered.
template <class Receive>
bool TakeRecord(std::string& bytes, const Receive& receive)
{
    uint32_t size = 0;
    size_t taken = 0;
    while (taken < sizeof size + size) {
        if (bytes.size() < sizeof size + size + 1)
            bytes.resize(sizeof size + size + BlockSize);
        const auto n = receive(&bytes[taken], bytes.size() - taken);
        if (n <= 0)
            return false;
        taken += static_cast<size_t>(n);
        if (taken >= sizeof size)
            std::memcpy(&size, bytes.data(), sizeof size);
    }
    return true;
}

#endif
