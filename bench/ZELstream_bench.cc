// SPDX-License-Identifier: BSD-2-Clause
// Object streams over a Buffer, each beside the least that the same bytes can cost: one from_chars or to_chars per
// number, one memcpy per run. The sizes show that the cost per byte does not grow with the buffer.
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/records.h"

namespace {

// Numbers of all lengths whose encoding fills `size` bytes.
std::vector<int> NumbersFilling(std::size_t size)
{
    std::mt19937 random(1);
    std::vector<int> numbers;
    for (std::size_t filled = 0; filled < size;) {
        numbers.push_back(static_cast<int>(random()) >> random() % 32);
        filled += std::to_string(numbers.back()).size() + 1;
    }
    return numbers;
}

void Encode(const std::vector<int>& numbers, Buffer& b)
{
    std::string text;
    for (const int n : numbers)
        text += std::to_string(n) + "|";
    b.PurgeContents();
    b.Append(text.data(), static_cast<unsigned>(text.size()));
}

void Report(benchmark::State& state, std::size_t bytes, std::size_t items)
{
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(items) * state.iterations());
}

void ReadNumbers(benchmark::State& state)
{
    const std::vector<int> numbers = NumbersFilling(static_cast<std::size_t>(state.range(0)) << 20);
    Buffer b;
    Encode(numbers, b);
    for (auto _ : state) {
        ZEListream in(b);
        long sum = 0;
        for (std::size_t i = 0; i < numbers.size(); i++) {
            int n;
            in >> n;
            sum += n;
        }
        benchmark::DoNotOptimize(sum);
    }
    Report(state, b.Size(), numbers.size());
}

void ReadNumbersFloor(benchmark::State& state)
{
    const std::vector<int> numbers = NumbersFilling(static_cast<std::size_t>(state.range(0)) << 20);
    Buffer b;
    Encode(numbers, b);
    for (auto _ : state) {
        const char* at = static_cast<const char*>(b.operator const void*());
        const char* const end = at + b.Size();
        long sum = 0;
        for (std::size_t i = 0; i < numbers.size(); i++) {
            int n = 0;
            at = std::from_chars(at, end, n).ptr + 1;
            sum += n;
        }
        benchmark::DoNotOptimize(sum);
    }
    Report(state, b.Size(), numbers.size());
}

void WriteNumbers(benchmark::State& state)
{
    const std::vector<int> numbers = NumbersFilling(static_cast<std::size_t>(state.range(0)) << 20);
    Buffer b;
    for (auto _ : state) {
        b.PurgeContents();
        ZELostream out(b);
        for (const int n : numbers)
            out << n;
        out.flush();
        benchmark::DoNotOptimize(b.operator const void*());
    }
    Report(state, b.Size(), numbers.size());
}

void WriteNumbersFloor(benchmark::State& state)
{
    const std::vector<int> numbers = NumbersFilling(static_cast<std::size_t>(state.range(0)) << 20);
    std::size_t size = 0;
    for (auto _ : state) {
        std::vector<char> bytes(numbers.size() * 12);
        char* at = bytes.data();
        for (const int n : numbers) {
            at = std::to_chars(at, at + 11, n).ptr;
            *at++ = '|';
        }
        size = static_cast<std::size_t>(at - bytes.data());
        benchmark::DoNotOptimize(bytes.data());
    }
    Report(state, size, numbers.size());
}

const unsigned TextLength = 40;

void ReadStrings(benchmark::State& state)
{
    const std::size_t count = (static_cast<std::size_t>(state.range(0)) << 20) / (TextLength + 3);
    Buffer b;
    {
        ZELostream out(b);
        const CString text(std::string(TextLength, 'x').c_str());
        for (std::size_t i = 0; i < count; i++)
            out << text;
    }
    for (auto _ : state) {
        ZEListream in(b);
        CString s;
        for (std::size_t i = 0; i < count; i++)
            in >> s;
        benchmark::DoNotOptimize(static_cast<const char*>(s));
    }
    Report(state, b.Size(), count);
}

// A text block for each string, as any reader must make, and nothing else.
void ReadStringsFloor(benchmark::State& state)
{
    const std::size_t count = (static_cast<std::size_t>(state.range(0)) << 20) / (TextLength + 3);
    const std::string encoding = std::to_string(TextLength) + "|" + std::string(TextLength, 'x');
    std::string bytes;
    for (std::size_t i = 0; i < count; i++)
        bytes += encoding;
    for (auto _ : state) {
        const char* at = bytes.data();
        for (std::size_t i = 0; i < count; i++) {
            unsigned short n = 0;
            at = std::from_chars(at, bytes.data() + bytes.size(), n).ptr + 1;
            char* text = new char[n + 1u];
            std::memcpy(text, at, n);
            text[n] = '\0';
            at += n;
            benchmark::DoNotOptimize(text);
            delete[] text;
        }
    }
    Report(state, bytes.size(), count);
}

// One digit run or white space run as long as the buffer.
void ReadOneRun(benchmark::State& state, char c)
{
    const std::string text = std::string(static_cast<std::size_t>(state.range(0)) << 20, c) + "1|";
    Buffer b;
    b.Append(text.data(), static_cast<unsigned>(text.size()));
    for (auto _ : state) {
        ZEListream in(b);
        int n = 0;
        in >> n;
        benchmark::DoNotOptimize(n);
    }
    Report(state, b.Size(), 1);
}

void EncodeRecords(const std::vector<Record>& records, Buffer& b)
{
    ZELostream out(b);
    const CString text(Text);
    for (const Record& r : records)
        out << r.number << r.position << r.size << text;
}

void WriteRecords(benchmark::State& state)
{
    const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
    std::size_t size = 0;
    for (auto _ : state) {
        Buffer b;
        EncodeRecords(records, b);
        size = b.Size();
    }
    Report(state, size, records.size());
}

// A block that doubles, and the numbers and texts formatted straight into it.
class Doubling {
public:
    ~Doubling() { std::free(block); }
    std::size_t Size() const { return used; }

    template <class N>
    void Number(N n)
    {
        MakeRoom(24);
        char* end = std::to_chars(block + used, block + capacity, n).ptr;
        *end++ = '|';
        used = static_cast<std::size_t>(end - block);
    }

    void Bytes(const char* p, std::size_t n)
    {
        MakeRoom(n);
        std::memcpy(block + used, p, n);
        used += n;
    }

private:
    void MakeRoom(std::size_t n)
    {
        if (used + n > capacity)
            block = static_cast<char*>(std::realloc(block, capacity = 2 * capacity + 1024));
    }

    char* block = nullptr;
    std::size_t used = 0, capacity = 0;
};

void WriteRecordsFloor(benchmark::State& state)
{
    const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
    std::size_t size = 0;
    for (auto _ : state) {
        Doubling out;
        for (const Record& r : records) {
            out.Number(r.number);
            out.Number(r.position);
            out.Number(r.size);
            out.Number(RecordText);
            out.Bytes(Text, RecordText);
        }
        benchmark::DoNotOptimize(size = out.Size());
    }
    Report(state, size, records.size());
}

void ReadRecords(benchmark::State& state)
{
    const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
    Buffer b;
    EncodeRecords(records, b);
    for (auto _ : state) {
        ZEListream in(b);
        long sum = 0;
        CString text;
        for (std::size_t i = 0; i < records.size(); i++) {
            Record r;
            in >> r.number >> r.position >> r.size >> text;
            sum += r.number + r.position + r.size + text[0];
        }
        benchmark::DoNotOptimize(sum);
    }
    Report(state, b.Size(), records.size());
}

// The same with the text read into the reader's own block.
void ReadRecordsRaw(benchmark::State& state)
{
    const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
    Buffer b;
    EncodeRecords(records, b);
    for (auto _ : state) {
        ZEListream in(b);
        long sum = 0;
        for (std::size_t i = 0; i < records.size(); i++) {
            Record r;
            unsigned short length = 0;
            char text[RecordText + 1];
            in >> r.number >> r.position >> r.size >> length;
            in.read(text, RecordText);
            benchmark::DoNotOptimize(text);
            sum += r.number + r.position + r.size + length;
        }
        benchmark::DoNotOptimize(sum);
    }
    Report(state, b.Size(), records.size());
}

void ReadRecordsFloor(benchmark::State& state)
{
    const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
    Buffer b;
    EncodeRecords(records, b);
    for (auto _ : state) {
        const char* at = static_cast<const char*>(b.operator const void*());
        const char* const end = at + b.Size();
        long sum = 0;
        for (std::size_t i = 0; i < records.size(); i++) {
            Record r = {0, 0, 0};
            unsigned short length = 0;
            char text[RecordText + 1];
            at = std::from_chars(at, end, r.number).ptr + 1;
            at = std::from_chars(at, end, r.position).ptr + 1;
            at = std::from_chars(at, end, r.size).ptr + 1;
            at = std::from_chars(at, end, length).ptr + 1;
            std::memcpy(text, at, RecordText);
            at += RecordText;
            benchmark::DoNotOptimize(text);
            sum += r.number + r.position + r.size + length;
        }
        benchmark::DoNotOptimize(sum);
    }
    Report(state, b.Size(), records.size());
}

void Sizes(benchmark::internal::Benchmark* b)
{
    b->ArgName("MB")->Arg(1)->Arg(5)->Arg(20)->Unit(benchmark::kMillisecond);
}

BENCHMARK(ReadNumbers)->Apply(Sizes);
BENCHMARK(ReadNumbersFloor)->Apply(Sizes);
BENCHMARK(WriteNumbers)->Apply(Sizes);
BENCHMARK(WriteNumbersFloor)->Apply(Sizes);
BENCHMARK(ReadStrings)->Apply(Sizes);
BENCHMARK(ReadStringsFloor)->Apply(Sizes);
BENCHMARK(WriteRecords)->ArgName("records")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(WriteRecordsFloor)->ArgName("records")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadRecords)->ArgName("records")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadRecordsRaw)->ArgName("records")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadRecordsFloor)->ArgName("records")->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadOneRun, digits, '9')->Apply(Sizes);
BENCHMARK_CAPTURE(ReadOneRun, blanks, ' ')->Apply(Sizes);

} // namespace
