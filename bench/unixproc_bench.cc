// SPDX-License-Identifier: BSD-2-Clause
// The start of a child, beside posix_spawn and fork, and the capture of its output, beside posix_spawn, pipe and read.
#include "Misc/unixproc.h"

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/require.h"
#include <benchmark/benchmark.h>

namespace {

std::string Command(long bytes) { return "exec head -c " + std::to_string(bytes) + " /dev/zero"; }

// Memory that was written to, as that of a large program.
class Ballast {
public:
    explicit Ballast(long megabytes)
        : size(static_cast<size_t>(megabytes) << 20), block(static_cast<char*>(std::malloc(size)))
    {
        Require(block != nullptr, "memory for the parent");
        madvise(block, size, MADV_NOHUGEPAGE);
        for (size_t i = 0; i < size; i += 4096)
            block[i] = 1;
        benchmark::DoNotOptimize(block);
    }
    ~Ballast() { std::free(block); }

private:
    const size_t size;
    char* const block;
};

// In a parent with so many megabytes, so many bytes of output.
void Capture(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    const std::string command = Command(state.range(1));
    for (auto _ : state) {
        Buffer output;
        UnixProcess process(command.c_str(), output);
        if (output.Size() != state.range(1))
            state.SkipWithError("output lost");
    }
    state.SetBytesProcessed(state.iterations() * state.range(1));
}

// The host's own call, and the same blocks read into a block that is large enough from the start.
void CaptureFloor(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    std::string command = Command(state.range(1));
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char* const argv[] = {shell, option, command.data(), nullptr};
    for (auto _ : state) {
        int ends[2];
        Require(pipe2(ends, O_CLOEXEC) == 0, "pipe from the child");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        pid_t pid;
        Require(posix_spawn(&pid, shell, &actions, nullptr, argv, environ) == 0, "start of a child");
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        char* block = static_cast<char*>(std::malloc(static_cast<size_t>(state.range(1)) + 16384));
        long used = 0;
        for (ssize_t n; (n = read(ends[0], block + used, 16384)) > 0;)
            used += n;
        std::free(block);
        close(ends[0]);
        int status;
        waitpid(pid, &status, 0);
        if (used != state.range(1))
            state.SkipWithError("output lost");
    }
    state.SetBytesProcessed(state.iterations() * state.range(1));
}

// The library, the host's own call for it, and a fork.
void Start(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    const char* argv[] = {"/bin/true", nullptr};
    for (auto _ : state)
        UnixProcess process(argv, UnixProcess::wait_at_construction);
}

void StartFloor(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    char program[] = "/bin/true";
    char* const argv[] = {program, nullptr};
    for (auto _ : state) {
        pid_t pid;
        int status;
        if (posix_spawn(&pid, program, nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &status, 0) != pid)
            state.SkipWithError("no child");
    }
}

void Fork(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/true", "/bin/true", static_cast<char*>(nullptr));
            _exit(1);
        }
        int status;
        waitpid(pid, &status, 0);
    }
}

// A child that writes without end, bounded in time (a second) and in bytes, as a daemon would have it.
void Flood(benchmark::State& state)
{
    UnixProcess::SetGlobalMaxOutput(state.range(0) << 20);
    for (auto _ : state) {
        Buffer output;
        UnixProcess process("exec yes", output, 1);
        struct rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        waitpid(static_cast<pid_t>(process.pid()), nullptr, 0);
        const std::string end(static_cast<const char*>(output) + (state.range(0) << 20));
        const std::string cut = "\n******** Output cut, ";
        const std::string banner = "\n\n******** Process max wait time exceeded **********\n";
        if (end.find(cut) != 0 || end.find(banner) != end.size() - banner.size())
            state.SkipWithError("no flood");
        else
            state.SetLabel("left out " + std::to_string(std::strtol(end.c_str() + cut.size(), nullptr, 10) / 1000000) +
                           " MB; peak " + std::to_string(usage.ru_maxrss / 1024) + " MiB");
    }
    UnixProcess::SetGlobalMaxOutput(0);
}

void InParents(benchmark::internal::Benchmark* row)
{
    row->ArgName("MB")->Arg(10)->Arg(256)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);
}

void OfSizes(benchmark::internal::Benchmark* row)
{
    row->ArgNames({"MB", "bytes"})->Args({10, 0})->Args({10, 64 << 10})->Args({256, 64 << 10})->Args({10, 16 << 20});
    row->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(Flood)->Arg(64)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// Small ones first: a fork copies the page tables of whatever an earlier benchmark has left in the heap.
BENCHMARK(StartFloor)->Apply(InParents);
BENCHMARK(Start)->Apply(InParents);
BENCHMARK(Fork)->Apply(InParents);
BENCHMARK(CaptureFloor)->Apply(OfSizes);
BENCHMARK(Capture)->Apply(OfSizes);

} // namespace
