// SPDX-License-Identifier: BSD-2-Clause
// A full list of faults loaded from its file, saved, and each of its elements looked up. The sizes show that the cost of
// an element does not grow with the list.
#include "Misc/FaultId.h"

#include <cstring>
#include <fstream>
#include <string>
#include <unordered_set>
#include <vector>

#include <unistd.h>

#include "bench/require.h"
#include <benchmark/benchmark.h>

namespace {

// A file of this process, gone with it.
class File {
public:
    File() : name("/tmp/FaultId_bench." + std::to_string(getpid())) {}
    ~File() { unlink(name.c_str()); }
    const char* Name() const { return name.c_str(); }

private:
    const std::string name;
};

// All numbers differ, as on one node, or all nodes do.
enum Kind { Numbers, Nodes };

std::vector<FaultId> Ids(const benchmark::State& state, Kind kind)
{
    std::vector<FaultId> ids;
    for (long i = 0; i < state.range(0); i++)
        ids.push_back(kind == Numbers ? FaultId(i, "alpha") : FaultId(1, ("node" + std::to_string(i)).c_str()));
    return ids;
}

void WriteList(const char* name, const std::vector<FaultId>& ids)
{
    FaultIdList list(name);
    for (const FaultId& id : ids)
        list.AddFaultId(id);
    list.Save();
}

void Report(benchmark::State& state) { state.SetItemsProcessed(state.range(0) * state.iterations()); }

void Load(benchmark::State& state, Kind kind)
{
    const File file;
    WriteList(file.Name(), Ids(state, kind));
    for (auto _ : state) {
        FaultIdList list(file.Name());
        list.Load();
        Require(list.MyQuantity() == state.range(0), "faults in the list");
    }
    Report(state);
}

void Add(benchmark::State& state, Kind kind)
{
    const std::vector<FaultId> ids = Ids(state, kind);
    for (auto _ : state) {
        FaultIdList list("");
        for (const FaultId& id : ids)
            list.AddFaultId(id);
        benchmark::DoNotOptimize(list.MyQuantity());
    }
    Report(state);
}

void Save(benchmark::State& state)
{
    const File file;
    const std::vector<FaultId> ids = Ids(state, Numbers);
    FaultIdList list(file.Name());
    for (const FaultId& id : ids)
        list.AddFaultId(id);
    for (auto _ : state)
        list.Save();
    Report(state);
}

// An identifier that the list has is looked up when it is added again.
void LookUp(benchmark::State& state, Kind kind)
{
    const std::vector<FaultId> ids = Ids(state, kind);
    FaultIdList list("");
    for (const FaultId& id : ids)
        list.AddFaultId(id);
    for (auto _ : state)
        for (const FaultId& id : ids)
            list.AddFaultId(id);
    Require(list.MyQuantity() == state.range(0), "faults in the list");
    Report(state);
}

void LoadSaveLookUp(benchmark::State& state)
{
    const File file;
    const std::vector<FaultId> ids = Ids(state, Numbers);
    WriteList(file.Name(), ids);
    for (auto _ : state) {
        FaultIdList list(file.Name());
        list.Load();
        list.Save();
        for (const FaultId& id : ids)
            list.AddFaultId(id);
        Require(list.MyQuantity() == state.range(0), "faults in the list");
    }
    Report(state);
}

void DeleteAll(benchmark::State& state)
{
    const std::vector<FaultId> ids = Ids(state, Numbers);
    for (auto _ : state) {
        FaultIdList list("");
        for (const FaultId& id : ids)
            list.AddFaultId(id);
        for (std::size_t i = 0; i < ids.size(); i++)
            list.DeleteOne(ids[i * 7919 % ids.size()]);
        Require(list.MyQuantity() == 0, "an empty list");
    }
    Report(state);
}

// What the three must do: read the bytes, keep a number and two texts of each element and a hash of them, write the bytes.
void LoadSaveLookUpFloor(benchmark::State& state)
{
    const File file;
    const std::vector<FaultId> ids = Ids(state, Numbers);
    WriteList(file.Name(), ids);
    struct Element {
        int number;
        std::string node, text;
    };
    for (auto _ : state) {
        std::ifstream in(file.Name(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::vector<Element> elements;
        std::unordered_set<std::string> known;
        const char* at = bytes.data() + 2;
        const auto number = [&at](int width) {
            unsigned n = 0;
            for (; width > 0; width--)
                n = n << 8 | static_cast<unsigned char>(*at++);
            return n;
        };
        const auto text = [&] {
            const unsigned n = number(2);
            at += n;
            return std::string(at - n, n);
        };
        while (at < bytes.data() + bytes.size()) {
            Element e;
            e.number = static_cast<int>(number(4));
            e.node = text();
            e.text = text();
            if (known.insert(e.text).second)
                elements.push_back(e);
        }
        std::ofstream(file.Name(), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        std::size_t found = 0;
        for (const FaultId& id : ids)
            found += known.count(static_cast<const char*>(id));
        Require(found == elements.size(), "faults found");
    }
    Report(state);
}

void Sizes(benchmark::internal::Benchmark* b)
{
    b->ArgName("faults")->Arg(1000)->Arg(8000)->Arg(32767)->Unit(benchmark::kMillisecond);
}

BENCHMARK(LoadSaveLookUp)->Apply(Sizes);
BENCHMARK(LoadSaveLookUpFloor)->Apply(Sizes);
BENCHMARK_CAPTURE(Load, numbers, Numbers)->Apply(Sizes);
BENCHMARK_CAPTURE(Load, nodes, Nodes)->Apply(Sizes);
BENCHMARK_CAPTURE(Add, numbers, Numbers)->Apply(Sizes);
BENCHMARK_CAPTURE(Add, nodes, Nodes)->ArgName("faults")->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(Save)->Apply(Sizes);
BENCHMARK_CAPTURE(LookUp, numbers, Numbers)->Apply(Sizes);
BENCHMARK_CAPTURE(LookUp, nodes, Nodes)->ArgName("faults")->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(DeleteAll)->Apply(Sizes);

} // namespace
