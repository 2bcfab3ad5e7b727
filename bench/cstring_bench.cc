// SPDX-License-Identifier: BSD-2-Clause
// Strings beside what their work costs at least: a copy is a count, an append a block and a memcpy of both texts.
#include "Misc/buffer.h"
#include "Misc/cstring.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

namespace {

std::size_t Length(const benchmark::State& state) { return static_cast<std::size_t>(state.range(0)); }

void Report(benchmark::State& state) { state.SetBytesProcessed(state.range(0) * state.iterations()); }

void Copy(benchmark::State& state)
{
    const CString source(std::string(Length(state), 'x').c_str());
    for (auto _ : state) {
        CString copy(source);
        benchmark::DoNotOptimize(copy); // as where it is used
    }
    Report(state);
}

// What a copy and its end cost at least: a count that goes up and down.
void CountFloor(benchmark::State& state)
{
    int count = 1;
    for (auto _ : state) {
        count++;
        benchmark::DoNotOptimize(count);
        count--;
        benchmark::DoNotOptimize(count);
    }
    Report(state);
}

void MakeFromText(benchmark::State& state)
{
    const std::string source(Length(state), 'x');
    for (auto _ : state) {
        CString made(source.c_str());
        benchmark::DoNotOptimize(static_cast<const char*>(made));
    }
    Report(state);
}

void CopyFloor(benchmark::State& state)
{
    const std::string source(Length(state), 'x');
    for (auto _ : state) {
        char* text = static_cast<char*>(std::malloc(source.size() + 1));
        std::memcpy(text, source.c_str(), source.size() + 1);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
        std::free(text);
    }
    Report(state);
}

void Append(benchmark::State& state)
{
    const CString source(std::string(Length(state), 'x').c_str());
    const CString tail("0123456789");
    for (auto _ : state) {
        CString s(source);
        s += tail;
        benchmark::DoNotOptimize(static_cast<const char*>(s));
    }
    Report(state);
}

void AppendFloor(benchmark::State& state)
{
    const std::string source(Length(state), 'x');
    for (auto _ : state) {
        char* text = static_cast<char*>(std::malloc(source.size() + 11));
        std::memcpy(text, source.c_str(), source.size());
        std::memcpy(text + source.size(), "0123456789", 11);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
        std::free(text);
    }
    Report(state);
}

void AppendCharacter(benchmark::State& state)
{
    const CString source(std::string(Length(state), 'x').c_str());
    for (auto _ : state) {
        CString s(source);
        s += 'y';
        benchmark::DoNotOptimize(static_cast<const char*>(s));
    }
    Report(state);
}

void AppendCharacterFloor(benchmark::State& state)
{
    const std::string source(Length(state), 'x');
    for (auto _ : state) {
        char* text = static_cast<char*>(std::malloc(source.size() + 2));
        std::memcpy(text, source.c_str(), source.size());
        text[source.size()] = 'y';
        text[source.size() + 1] = '\0';
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
        std::free(text);
    }
    Report(state);
}

// A text built character by character through chunks of 1,000, and by std::string, which has spare capacity.
void Collect(benchmark::State& state)
{
    for (auto _ : state) {
        CStringBuff b(1000);
        for (std::size_t i = 0; i < Length(state); i++)
            b += 'x';
        benchmark::DoNotOptimize(static_cast<const char*>(b.GetCString()));
    }
    Report(state);
}

void CollectFloor(benchmark::State& state)
{
    for (auto _ : state) {
        std::string b;
        for (std::size_t i = 0; i < Length(state); i++)
            b += 'x';
        benchmark::DoNotOptimize(b.data());
    }
    Report(state);
}

// Appends of 1,024 bytes, the staging area of an object stream, up to the size; a growing block copies ever more.
void BufferAppend(benchmark::State& state)
{
    const std::string run(1024, 'x');
    for (auto _ : state) {
        Buffer b;
        while (b.Size() < Length(state))
            b.Append(run.data(), 1024);
        benchmark::DoNotOptimize(b.operator const void*());
    }
    Report(state);
}

void BufferAppendFloor(benchmark::State& state)
{
    const std::string run(1024, 'x');
    for (auto _ : state) {
        char* block = static_cast<char*>(std::malloc(Length(state) + 1024));
        for (std::size_t at = 0; at < Length(state); at += 1024)
            std::memcpy(block + at, run.data(), 1024);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        std::free(block);
    }
    Report(state);
}

void Lengths(benchmark::internal::Benchmark* b)
{
    b->ArgName("bytes")->Arg(16)->Arg(256)->Arg(4096)->Arg(65536)->Arg(1 << 20);
}

BENCHMARK(Copy)->Apply(Lengths);
BENCHMARK(CountFloor)->ArgName("bytes")->Arg(16);
BENCHMARK(MakeFromText)->Apply(Lengths);
BENCHMARK(CopyFloor)->Apply(Lengths);
BENCHMARK(Append)->Apply(Lengths);
BENCHMARK(AppendFloor)->Apply(Lengths);
BENCHMARK(AppendCharacter)->ArgName("bytes")->Arg(64)->Arg(1024);
BENCHMARK(AppendCharacterFloor)->ArgName("bytes")->Arg(64)->Arg(1024);
BENCHMARK(Collect)->ArgName("bytes")->Arg(256)->Arg(4096)->Arg(65536);
BENCHMARK(CollectFloor)->ArgName("bytes")->Arg(256)->Arg(4096)->Arg(65536);
BENCHMARK(BufferAppend)->ArgName("bytes")->Arg(1 << 20)->Arg(5 << 20)->Arg(20 << 20);
BENCHMARK(BufferAppendFloor)->ArgName("bytes")->Arg(1 << 20)->Arg(5 << 20)->Arg(20 << 20);

} // namespace
