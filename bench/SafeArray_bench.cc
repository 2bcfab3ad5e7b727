// SafeArray beside std::vector<void*>: appending, walking, searching.
#include "Misc/SafeArray.h"

#include <algorithm>
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
