// The capture of a child's output, beside fork, exec, pipe and read without the library.
#include "Misc/unixproc.h"

#include <cstdlib>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace {

std::string Command(long bytes) { return "exec head -c " + std::to_string(bytes) + " /dev/zero"; }

void Capture(benchmark::State& state)
{
    const std::string command = Command(state.range(0));
    for (auto _ : state) {
        Buffer output;
        UnixProcess process(command.c_str(), output);
        if (output.Size() != state.range(0))
            state.SkipWithError("output lost");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// The floor: the same blocks read into a block that is large enough from the start.
void RawCapture(benchmark::State& state)
{
    const std::string command = Command(state.range(0));
    for (auto _ : state) {
        int ends[2];
        if (pipe(ends) != 0)
            std::abort();
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            execl("/bin/sh", "/sbin/sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(1);
        }
        close(ends[1]);
        char* block = static_cast<char*>(std::malloc(static_cast<size_t>(state.range(0)) + 16384));
        long used = 0;
        for (ssize_t n; (n = read(ends[0], block + used, 16384)) > 0;)
            used += n;
        std::free(block);
        close(ends[0]);
        int status;
        waitpid(pid, &status, 0);
        if (used != state.range(0))
            state.SkipWithError("output lost");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Start(benchmark::State& state)
{
    const char* argv[] = {"/bin/true", nullptr};
    for (auto _ : state)
        UnixProcess process(argv, UnixProcess::wait_at_construction);
}

void RawStart(benchmark::State& state)
{
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

// Small ones first: a fork copies the page tables of whatever an earlier benchmark has left in the heap.
BENCHMARK(RawStart)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Start)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RawCapture)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Capture)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RawCapture)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Capture)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace
