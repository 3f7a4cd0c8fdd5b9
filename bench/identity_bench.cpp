// SPDX-License-Identifier: LGPL-2.1-or-later
// What the identity report costs against the tools it reads: the built
// "tavro-quenda identity" and a shell script that runs "dmidecode -t 1",
// "dmidecode -s system-uuid", "smartctl -i DISK" and "lsblk -J" once each,
// side by side in one run. The "ratio" counter is the report's median time
// over the script's; "programs" is how many programs one report starts (the
// tool itself included), counted once under strace where strace can trace.
// Without one of the tools there is nothing to compare, and the benchmark says
// so and runs nothing.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/os.h"
#include "tavro-quenda.h"

extern char **environ;

namespace {

constexpr char kDmidecode[] = "/usr/sbin/dmidecode";
constexpr char kSmartctl[] = "/usr/sbin/smartctl";
constexpr char kStrace[] = "/usr/bin/strace";

bool executable(const char *path) { return ::access(path, X_OK) == 0; }

std::optional<std::string> lsblk_path()
{
    for (const char *path : {"/usr/bin/lsblk", "/bin/lsblk"}) {
        if (executable(path))
            return path;
    }
    return std::nullopt;
}

// Runs argv[0] with standard output and error on /dev/null; its exit status, or -1.
int run(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    int err = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0)
        return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double seconds_of(const std::vector<std::string> &args)
{
    auto start = std::chrono::steady_clock::now();
    run(args);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

std::string shell_quote(const std::string &text) { return tq::os::shell_quote(text); }

// Successful execve() calls of one run of args, or nullopt when strace cannot trace here.
std::optional<int> programs_started(const std::vector<std::string> &args)
{
    if (!executable(kStrace))
        return std::nullopt;
    char log[] = "/tmp/tq-bench-identity-XXXXXX";
    int fd = ::mkostemp(log, O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    ::close(fd);
    std::vector<std::string> traced = {kStrace, "-f", "-qq", "-e", "trace=execve", "-e", "status=successful", "-o", log};
    traced.insert(traced.end(), args.begin(), args.end());
    std::optional<int> count;
    if (run(traced) == 0) {
        std::ifstream in(log);
        int n = 0;
        for (std::string line; std::getline(in, line);)
            n += line.find("execve(") != std::string::npos;
        count = n;
    }
    ::unlink(log);
    return count;
}

struct Commands {
    std::vector<std::string> report, script;
    std::string missing; // why nothing can be compared, if so
};

Commands commands()
{
    Commands c;
    std::optional<std::string> lsblk = lsblk_path();
    std::unique_ptr<char, decltype(&std::free)> root(root_device(), &std::free);
    if (!executable(kDmidecode) || !executable(kSmartctl) || !lsblk)
        c.missing = "needs /usr/sbin/dmidecode, /usr/sbin/smartctl and lsblk";
    else if (!executable(TQ_CLI))
        c.missing = std::string("the tool is not built: ") + TQ_CLI;
    else if (!root)
        c.missing = "no root block device to ask smartctl about";
    if (!c.missing.empty())
        return c;
    c.report = {TQ_CLI, "identity"};
    c.script = {"/bin/sh", "-c",
                std::string(kDmidecode) + " -t 1; " + kDmidecode + " -s system-uuid; " + kSmartctl + " -i " +
                    shell_quote(root.get()) + "; " + *lsblk + " -J"};
    return c;
}

void BM_identity_report_vs_tools(benchmark::State &state, const Commands &c)
{
    std::vector<double> report, script;
    for (auto _ : state) {
        // Alternating, so that both see the same load on the machine.
        double s = seconds_of(c.script);
        double r = seconds_of(c.report);
        script.push_back(s);
        report.push_back(r);
        state.SetIterationTime(r);
    }
    state.counters["report_ms"] = median(report) * 1e3;
    state.counters["tools_ms"] = median(script) * 1e3;
    state.counters["ratio"] = median(script) > 0 ? median(report) / median(script) : 0;
    if (std::optional<int> n = programs_started(c.report))
        state.counters["programs"] = *n;
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    const Commands c = commands();
    if (!c.missing.empty()) {
        std::printf("bench_identity: skipped: %s\n", c.missing.c_str());
        return 0;
    }
    benchmark::RegisterBenchmark("BM_identity_report_vs_tools", BM_identity_report_vs_tools, c)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
