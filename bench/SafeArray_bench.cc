// SPDX-License-Identifier: BSD-2-Clause
// SafeArray beside std::vector<void*>: appending, walking, searching; a typed array beside a block that doubles.
#include "Misc/CstrArray.h"
#include "Misc/SafeArray.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

const unsigned Elements = 250000;
char bytes[Elements];

struct Pointers : SafeArrayBase {
    Pointers() : SafeArrayBase(0) { SetPurgeMode(1); }
    void DeleteItem(void*) override {}
};

int CompareAddresses(const void* a, const void* b)
{
    const void* x = *static_cast<void* const*>(a);
    const void* y = *static_cast<void* const*>(b);
    return x < y ? -1 : x > y;
}

template <class Array>
void Fill(Array& array, void (*append)(Array&, void*))
{
    for (unsigned i = 0; i < Elements; i++)
        append(array, bytes + i);
}

void Append(Pointers& array, void* p) { array.AddPtr(p); }
void Append(std::vector<void*>& array, void* p) { array.push_back(p); }

template <class Array>
void BM_Append(benchmark::State& state)
{
    for (auto _ : state) {
        Array array;
        Fill<Array>(array, Append);
        benchmark::DoNotOptimize(array);
    }
    state.SetItemsProcessed(state.iterations() * Elements);
}
BENCHMARK_TEMPLATE(BM_Append, Pointers)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Append, std::vector<void*>)->Unit(benchmark::kMicrosecond);

const unsigned MostElements = 256000;

void BM_AppendTyped(benchmark::State& state)
{
    CString element;
    for (auto _ : state) {
        CStringSafeArray array;
        array.SetPurgeMode(1);
        for (unsigned i = 0; i < MostElements; i++)
            array.AddPtr(&element);
        benchmark::DoNotOptimize(array);
    }
    state.SetItemsProcessed(state.iterations() * MostElements);
}
BENCHMARK(BM_AppendTyped)->Unit(benchmark::kMicrosecond);

struct DoublingBlock {
    void** list = nullptr;
    unsigned quantity = 0, capacity = 0;

    void Append(void* p)
    {
        if (quantity == capacity) {
            capacity = capacity == 0 ? 32 : 2 * capacity;
            list = static_cast<void**>(std::realloc(list, capacity * sizeof(void*)));
        }
        list[quantity++] = p;
    }
};

void BM_AppendTypedFloor(benchmark::State& state)
{
    CString element;
    for (auto _ : state) {
        DoublingBlock block;
        for (unsigned i = 0; i < MostElements; i++)
            block.Append(&element);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        std::free(block.list);
    }
    state.SetItemsProcessed(state.iterations() * MostElements);
}
BENCHMARK(BM_AppendTypedFloor)->Unit(benchmark::kMicrosecond);

void BM_IterateSafeArray(benchmark::State& state)
{
    Pointers array;
    Fill<Pointers>(array, Append);
    for (auto _ : state)
        for (SafeArrayIterBase iter(array); iter.curr() != nullptr; iter.next())
            benchmark::DoNotOptimize(iter.curr());
    state.SetItemsProcessed(state.iterations() * Elements);
}
BENCHMARK(BM_IterateSafeArray)->Unit(benchmark::kMicrosecond);

void BM_IndexSafeArray(benchmark::State& state)
{
    Pointers array;
    Fill<Pointers>(array, Append);
    for (auto _ : state)
        for (unsigned i = 0; i < array.Quantity(); i++)
            benchmark::DoNotOptimize(array.at(i));
    state.SetItemsProcessed(state.iterations() * Elements);
}
BENCHMARK(BM_IndexSafeArray)->Unit(benchmark::kMicrosecond);

void BM_IterateVector(benchmark::State& state)
{
    std::vector<void*> array;
    Fill<std::vector<void*>>(array, Append);
    for (auto _ : state)
        for (void* p : array)
            benchmark::DoNotOptimize(p);
    state.SetItemsProcessed(state.iterations() * Elements);
}
BENCHMARK(BM_IterateVector)->Unit(benchmark::kMicrosecond);

// The keys are visited in an order that defeats the caches alike for both.
unsigned NextKey(unsigned key) { return (key + 104729) % Elements; }

void BM_SearchSafeArray(benchmark::State& state)
{
    Pointers array;
    Fill<Pointers>(array, Append);
    unsigned key = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(array.search(bytes + key, CompareAddresses));
        key = NextKey(key);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SearchSafeArray);

void BM_SearchVector(benchmark::State& state)
{
    std::vector<void*> array;
    Fill<std::vector<void*>>(array, Append);
    unsigned key = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::lower_bound(array.begin(), array.end(), static_cast<void*>(bytes + key)));
        key = NextKey(key);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SearchVector);

} // namespace
