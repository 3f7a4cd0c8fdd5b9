// SPDX-License-Identifier: LGPL-2.1-or-later
// Trace lines per second, from one thread and from several at once, and the
// system calls one line costs. The log goes to a temporary tree, not to
// /var/log.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

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

// System-call stops of a traced child that writes lines trace lines between
// two stops of its own (after one line that has made the log's folder), or
// -1 when the child cannot be traced.
long system_call_stops(int lines)
{
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(1);
        quenda_trace("bench: the first line makes the folder");
        raise(SIGSTOP);
        for (int i = 0; i < lines; ++i)
            quenda_trace("bench: line %d", i);
        raise(SIGSTOP);
        _exit(0);
    }
    long stops = 0;
    int status = 0, stopped = 0;
    bool alive = true;
    while (alive) {
        alive = waitpid(pid, &status, 0) == pid && WIFSTOPPED(status);
        if (!alive)
            break;
        int sig = WSTOPSIG(status);
        if (sig == SIGSTOP && ++stopped == 2)
            break;
        if (sig == SIGSTOP)
            ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD);
        else if (sig == (SIGTRAP | 0x80))
            ++stops; // one on entry, one on exit
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
    }
    if (alive) { // stopped at its second marker: end it
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return stopped == 2 ? stops : -1;
}

// System calls one trace line costs in a log that exists (open, fstat, getpid,
// write, close; geteuid too when the log is not root's): at most 6. Counted,
// not timed, by tracing a child with ptrace; the stops of the child's own
// markers cancel out against a run without lines.
void BM_quenda_trace_system_calls(benchmark::State &state)
{
    TempRoot root;
    constexpr int kLines = 100;
    for (auto _ : state) {
        long with = system_call_stops(kLines), without = system_call_stops(0);
        if (with < 0 || without < 0) {
            state.SkipWithError("cannot trace a child process here");
            return;
        }
        state.counters["syscalls_per_line"] = double(with - without) / 2 / kLines;
    }
}
BENCHMARK(BM_quenda_trace_system_calls)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
