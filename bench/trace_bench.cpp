// SPDX-License-Identifier: LGPL-2.1-or-later
// Trace lines per second, from one thread and from several at once. The log
// goes to a temporary tree, not to /var/log.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "foundation/os.h"
#include "tavro-quenda.h"

namespace {

struct TempRoot {
    std::string path;
    TempRoot()
    {
        char tmpl[] = "/tmp/tq-bench-XXXXXX";
        path = ::mkdtemp(tmpl) ? tmpl : "";
        std::filesystem::create_directories(path + "/var/log");
        tq::os::testing::set_root(path);
    }
    ~TempRoot()
    {
        tq::os::testing::reset();
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

void BM_quenda_trace(benchmark::State &state)
{
    static TempRoot *root = nullptr;
    if (state.thread_index() == 0)
        root = new TempRoot;
    for (auto _ : state)
        benchmark::DoNotOptimize(quenda_trace("bench: line %d of thread %d", 42, state.thread_index()));
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        delete root;
        root = nullptr;
    }
}
BENCHMARK(BM_quenda_trace)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
