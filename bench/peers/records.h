// SPDX-License-Identifier: BSD-2-Clause
// The rows of a package that writes and reads records: those of WriteRecords and ReadRecords.
#ifndef BENCH_PEERS_RECORDS_H
#define BENCH_PEERS_RECORDS_H

#include <string>

#include <benchmark/benchmark.h>

#include "bench/records.h"

/// `Coder` has an Encoding, which is made empty for each run, and
///   static void Write(const std::vector<Record>& records, Encoding& bytes);
///   static std::size_t Size(const Encoding& bytes);
///   template <class Take> static bool Read(const Encoding& bytes, std::size_t count, const Take& take);
/// that calls take(record, text) for each record, and tells whether all could be read.
template <class Coder>
class RecordRows {
public:
    static bool Register(const std::string& package)
    {
        const int64_t count = 1000000;
        benchmark::RegisterBenchmark(("WriteRecords_" + package).c_str(), Write)
            ->ArgName("records")
            ->Arg(count)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("ReadRecords_" + package).c_str(), Read)
            ->ArgName("records")
            ->Arg(count)
            ->Unit(benchmark::kMillisecond);
        return true;
    }

private:
    using Encoding = typename Coder::Encoding;

    static void Report(benchmark::State& state, const Encoding& bytes)
    {
        state.SetBytesProcessed(static_cast<int64_t>(Coder::Size(bytes)) * state.iterations());
        state.SetItemsProcessed(state.range(0) * state.iterations());
    }

    static void Write(benchmark::State& state)
    {
        const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
        for (auto _ : state) {
            Encoding bytes;
            Coder::Write(records, bytes);
            benchmark::DoNotOptimize(Coder::Size(bytes));
        }
        Encoding bytes;
        Coder::Write(records, bytes);
        Report(state, bytes);
    }

    static void Read(benchmark::State& state)
    {
        const std::vector<Record> records = Records(static_cast<std::size_t>(state.range(0)));
        Encoding bytes;
        Coder::Write(records, bytes);
        const long expected = Sum(records);
        for (auto _ : state) {
            long sum = 0;
            const auto take = [&](const Record& r, const auto& text) { sum += Sum(r, text[0]); };
            if (!Coder::Read(bytes, records.size(), take) || sum != expected) {
                state.SkipWithError("the records read are not those written");
                break;
            }
        }
        Report(state, bytes);
    }

    static long Sum(const Record& r, char first) { return 0L + r.number + r.position + r.size + first; }
    static long Sum(const std::vector<Record>& records)
    {
        long sum = 0;
        for (const Record& r : records)
            sum += Sum(r, Text[0]);
        return sum;
    }
};

#endif
