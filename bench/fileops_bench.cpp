// How long the registry of canonical names takes to fill and to answer.
//
// Stands alone:  c++ -std=c++17 -O2 -I debug/tserver bench/fileops_bench.cpp debug/tserver/*.cpp
//                    -lbenchmark -lpthread -ldl
//
// The files of the registration cases do not exist, so that a registration costs one failed stat() and the registry
// is what is measured. The identity cases register a smaller number of real, empty files. Needs no interpreter.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "fileops.h"

namespace {

constexpr size_t kLookUpStep = 7919;  // a prime: look-ups jump through the names and reach all of them

std::vector<std::string> make_names(const std::string& folder, size_t count)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i)
        names.push_back(folder + "/package_" + std::to_string(i / 100) + "/module_" + std::to_string(i) + ".py");
    return names;
}

// Creation asks the interpreter for a module; here there are none.
tFileOpsData* new_record()
{
    api.PySys_GetObject = [](const char*) -> PyObject* { return nullptr; };
    api.PyErr_Clear = [] {};
    tFileOpsData* data = create_file_ops_data(nullptr);
    if (!data)
        abort();
    return data;
}

void register_all(tFileOpsData* data, const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        if (!register_canonical_pathname(data, name.c_str(), nullptr, nullptr))
            abort();
    }
}

// Real files in a temporary folder, gone at the end.
class tRealFiles
{
  public:
    explicit tRealFiles(size_t count)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "fileops_bench_XXXXXX").string();
        if (!mkdtemp(&pattern[0]))
            abort();
        fFolder = pattern;
        names = make_names(fFolder, count);
        for (const std::string& name : names) {
            std::filesystem::create_directories(std::filesystem::path(name).parent_path());
            int file = open(name.c_str(), O_CREAT | O_WRONLY, 0600);
            if (file < 0)
                abort();
            close(file);
        }
    }
    ~tRealFiles() { std::filesystem::remove_all(fFolder); }
    tRealFiles(const tRealFiles&) = delete;
    tRealFiles& operator=(const tRealFiles&) = delete;

    std::vector<std::string> names;

  private:
    std::string fFolder;
};

void measure_registration(benchmark::State& state, const std::vector<std::string>& names)
{
    for (auto _ : state) {
        state.PauseTiming();
        tFileOpsData* data = new_record();
        state.ResumeTiming();
        register_all(data, names);
        state.PauseTiming();
        if (data->canonical_by_name.numEntries != names.size())
            abort();
        destroy_file_ops_data(data);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(names.size()));
}

// Looks NAMES up one after the other; PREPARED holds them already.
void measure_lookup(benchmark::State& state, tFileOpsData* prepared, const std::vector<std::string>& names)
{
    size_t at = 0;
    for (auto _ : state) {
        if (!lookup_canonical_pathname(prepared, names[at].c_str(), nullptr))
            abort();
        at = (at + kLookUpStep) % names.size();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_RegisterMissingFiles(benchmark::State& state)
{
    measure_registration(state, make_names("/no/such/folder", static_cast<size_t>(state.range(0))));
}

void BM_LookupByName(benchmark::State& state)
{
    std::vector<std::string> names = make_names("/no/such/folder", static_cast<size_t>(state.range(0)));
    tFileOpsData* data = new_record();
    register_all(data, names);
    measure_lookup(state, data, names);
    destroy_file_ops_data(data);
}

void BM_RegisterRealFiles(benchmark::State& state)
{
    tRealFiles files(static_cast<size_t>(state.range(0)));
    measure_registration(state, files.names);
}

// A second, unregistered form of every name: answered by the file's identity.
void BM_LookupByIdentity(benchmark::State& state)
{
    tRealFiles files(static_cast<size_t>(state.range(0)));
    tFileOpsData* data = new_record();
    register_all(data, files.names);
    std::vector<std::string> others;
    for (const std::string& name : files.names)
        others.push_back("/." + name);
    for (const std::string& name : others)
        __tracer_stat(data, name.c_str());
    measure_lookup(state, data, others);
    destroy_file_ops_data(data);
}

void BM_AbsoluteName(benchmark::State& state)
{
    tFileOpsData* data = new_record();
    std::vector<std::string> names = make_names("package/./sub/..", static_cast<size_t>(state.range(0)));
    for (const std::string& name : names)
        get_absname(data, name.c_str());
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(get_absname(data, names[at].c_str()));
        at = (at + kLookUpStep) % names.size();
    }
    state.SetItemsProcessed(state.iterations());
    destroy_file_ops_data(data);
}

}  // namespace

BENCHMARK(BM_RegisterMissingFiles)->RangeMultiplier(10)->Range(100, 1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupByName)->RangeMultiplier(10)->Range(100, 1000000);
BENCHMARK(BM_RegisterRealFiles)->RangeMultiplier(10)->Range(100, 10000)->Unit(benchmark::kMicrosecond);
// A fixed number of runs: finding the number anew would make the files anew each time.
BENCHMARK(BM_RegisterRealFiles)->Arg(100000)->Iterations(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupByIdentity)->RangeMultiplier(10)->Range(100, 10000)->Iterations(100000);
BENCHMARK(BM_LookupByIdentity)->Arg(100000)->Iterations(100000);
BENCHMARK(BM_AbsoluteName)->RangeMultiplier(10)->Range(100, 1000000);

BENCHMARK_MAIN();
