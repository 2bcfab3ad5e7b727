// The start of a child, beside posix_spawn and fork, and the capture of its output, beside fork, exec, pipe and read
// without the library.
#include "Misc/unixproc.h"

#include <cstdlib>
#include <string>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
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

// Memory that was written to, as that of a large program.
class Ballast {
public:
    explicit Ballast(long megabytes)
        : size(static_cast<size_t>(megabytes) << 20), block(static_cast<char*>(std::malloc(size)))
    {
        if (block == nullptr)
            std::abort();
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

// In a parent with so many megabytes: the library, the host's own call for it, and a fork.
void Start(benchmark::State& state)
{
    const Ballast ballast(state.range(0));
    const char* argv[] = {"/bin/true", nullptr};
    for (auto _ : state)
        UnixProcess process(argv, UnixProcess::wait_at_construction);
}

void PosixSpawn(benchmark::State& state)
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
        state.counters["peak MB"] = static_cast<double>(usage.ru_maxrss) * 1024 / 1e6;
        waitpid(static_cast<pid_t>(process.pid()), nullptr, 0);
        const std::string end(static_cast<const char*>(output) + (state.range(0) << 20));
        const std::string cut = "\n******** Output cut, ";
        const std::string banner = "\n\n******** Process max wait time exceeded **********\n";
        if (end.find(cut) != 0 || end.find(banner) != end.size() - banner.size())
            state.SkipWithError("no flood");
        else
            state.counters["left out MB"] = std::strtod(end.c_str() + cut.size(), nullptr) / 1e6;
    }
    UnixProcess::SetGlobalMaxOutput(0);
}

void InParents(benchmark::internal::Benchmark* row)
{
    row->ArgName("MB")->Arg(10)->Arg(256)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);
    row->Repetitions(5)->ReportAggregatesOnly();
}

BENCHMARK(Flood)->Arg(64)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// Small ones first: a fork copies the page tables of whatever an earlier benchmark has left in the heap.
BENCHMARK(PosixSpawn)->Apply(InParents);
BENCHMARK(Start)->Apply(InParents);
BENCHMARK(Fork)->Apply(InParents);
BENCHMARK(RawCapture)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Capture)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RawCapture)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Capture)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace
