// SPDX-License-Identifier: BSD-2-Clause
// The records of the benchmarks that write and read them: numbers of all lengths, and a text of twelve characters.
#ifndef BENCH_RECORDS_H
#define BENCH_RECORDS_H

#include <cstddef>
#include <random>
#include <vector>

const unsigned RecordText = 12;
const char Text[RecordText + 1] = "twelve bytes";

struct Record {
    short number;
    int position;
    unsigned size;
};

/// The same numbers in every program and run.
inline std::vector<Record> Records(std::size_t count)
{
    std::mt19937 random(1);
    std::vector<Record> records;
    for (std::size_t i = 0; i < count; i++)
        records.push_back({static_cast<short>(static_cast<short>(random()) >> random() % 16),
                           static_cast<int>(random()) >> random() % 32,
                           static_cast<unsigned>(random()) >> random() % 32});
    return records;
}

#endif
