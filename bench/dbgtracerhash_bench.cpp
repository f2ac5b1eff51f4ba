// How long the hash table takes to fill and to answer, for string names and for 16-byte file identities.
//
// Stands alone:  c++ -std=c++17 -O2 -I debug/tserver bench/dbgtracerhash_bench.cpp debug/tserver/dbgtracerhash.cpp
//                    -lbenchmark -lpthread
//
// Array keys are hashed by the sum of their bytes, of which real identities have a few thousand at most: their chains
// grow with the number of entries, and the large array cases show what that costs.

#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "dbgtracerhash.h"

namespace {

constexpr uint32_t kIdentitySize = 16;
constexpr size_t kLookUpStep = 7919;  // a prime: look-ups jump through the keys and reach all of them

std::vector<std::string> make_names(size_t count)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i)
        names.push_back("/home/user/project/package_" + std::to_string(i / 100) + "/module_" + std::to_string(i) +
                        ".py");
    return names;
}

// One device, consecutive file numbers.
std::vector<std::string> make_identities(size_t count)
{
    std::vector<std::string> identities;
    for (size_t i = 0; i < count; ++i) {
        const uint64_t identity[2] = {2049, 1310720 + i};
        identities.emplace_back(reinterpret_cast<const char*>(identity), kIdentitySize);
    }
    return identities;
}

void fill(CUt_HashTable* table, const std::vector<std::string>& keys)
{
    int is_new = 0;
    for (const std::string& key : keys)
        benchmark::DoNotOptimize(table->createProc(table, key.c_str(), &is_new));
}

void insert(benchmark::State& state, uint32_t key_type, const std::vector<std::string>& keys)
{
    for (auto _ : state) {
        CUt_HashTable table;
        CU_InitHashTable(&table, key_type);
        fill(&table, keys);
        if (table.numEntries != keys.size())
            abort();
        state.PauseTiming();
        CU_DeleteHashTable(&table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keys.size()));
}

void find(benchmark::State& state, uint32_t key_type, const std::vector<std::string>& keys)
{
    CUt_HashTable table;
    CU_InitHashTable(&table, key_type);
    fill(&table, keys);
    size_t at = 0;
    for (auto _ : state) {
        if (!table.findProc(&table, keys[at].c_str()))
            abort();
        at = (at + kLookUpStep) % keys.size();
    }
    state.SetItemsProcessed(state.iterations());
    CU_DeleteHashTable(&table);
}

void BM_InsertString(benchmark::State& state)
{
    insert(state, 0, make_names(static_cast<size_t>(state.range(0))));
}

void BM_FindString(benchmark::State& state)
{
    find(state, 0, make_names(static_cast<size_t>(state.range(0))));
}

void BM_InsertArray(benchmark::State& state)
{
    insert(state, kIdentitySize, make_identities(static_cast<size_t>(state.range(0))));
}

void BM_FindArray(benchmark::State& state)
{
    find(state, kIdentitySize, make_identities(static_cast<size_t>(state.range(0))));
}

}  // namespace

BENCHMARK(BM_InsertString)->RangeMultiplier(10)->Range(10, 1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindString)->RangeMultiplier(10)->Range(10, 1000000);
BENCHMARK(BM_InsertArray)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_InsertArray)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindArray)->RangeMultiplier(10)->Range(10, 100000);
// A fixed number of look-ups: finding the number anew would fill the table anew each time.
BENCHMARK(BM_FindArray)->Arg(1000000)->Iterations(10000);

BENCHMARK_MAIN();
