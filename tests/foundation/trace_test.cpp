// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <thread>

#include "fixture.h"
#include "foundation/os.h"
#include "foundation/trace.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

constexpr char kLog[] = "/var/log/tavro-quenda/libtavro-quenda.log";

// The permission bits of a host file.
std::filesystem::perms mode_of(const std::string &host) { return std::filesystem::status(host).permissions(); }

// Every line is exactly one line of at most 1023 bytes: what a caller passes on
// cannot start another one, hide the next one or reach a terminal, and a cut
// line keeps its line end. The first line makes the log and its directory.
TEST(Trace, EveryLineIsOneStampedLineWhateverTheText)
{
    tqtest::Fixture fx;
    ::umask(0); // the directory is never writable by others, whatever the umask
    EXPECT_EQ(quenda_trace("model = %s, %d%%", "Samsung", 100), 1);
    char year[8];
    const time_t now = time(nullptr);
    strftime(year, sizeof year, "%Y-", localtime(&now)); // a stamp of this year, not of a zeroed date
    const std::string prefix =
        std::string(year) + R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[)" + std::to_string(getpid()) + R"(\]: )";
    EXPECT_TRUE(std::regex_match(fx.trace_log(), std::regex(prefix + "model = Samsung, 100%\n"))) << fx.trace_log();
    EXPECT_EQ(mode_of(fx.host(kLog)), std::filesystem::perms(0644));
    EXPECT_EQ(mode_of(fx.host("/var/log/tavro-quenda")), std::filesystem::perms(0755));
    const size_t p = std::string(time_string()).size() + std::to_string(getpid()).size() + 5;
    const struct {
        std::string text, written; // the message, and the line after the prefix
    } cases[] = {
        {"/tmp/x\n2026-01-01 00:00:00.000 [1]: forged", "/tmp/x\\n2026-01-01 00:00:00.000 [1]: forged\n"},
        {"\x1b[31mred a\rb\tc\x7f\x01 C:\\dir", "\\x1b[31mred a\\rb\\tc\\x7f\\x01 C:\\dir\n"},
        {"two line ends\n\n", "two line ends\\n\n"},
        {"", "\n"},
        {std::string(1022 - p, 'e'), std::string(1022 - p, 'e') + "\n"},          // 1023 bytes: whole
        {std::string(5000, 'L'), std::string(1022 - p, 'L') + "\n"},              // cut, line end kept
        {std::string(1020 - p, 'c') + "\x1b", std::string(1020 - p, 'c') + "\n"}, // never half an escape
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.written.substr(0, 40));
        size_t before = fx.trace_log().size();
        EXPECT_EQ(quenda_trace("%s", c.text.c_str()), 1);
        std::string line = fx.trace_log().substr(before);
        EXPECT_TRUE(std::regex_match(line.substr(0, p), std::regex(prefix)));
        EXPECT_EQ(line.substr(p), c.written);
    }
}

// A planted file in place of the library's own log, and of a caller's
// log_write file: refused at once, said once per process, and the file behind
// it stays as it was.
TEST(Trace, NoLineGoesIntoAPlantedFile)
{
    const struct {
        const char *reason; // after "Open log file failed: "
        bool caller_too;    // a caller's own name may be a link: it chose it
        std::function<int(const char *log, const char *victim)> plant;
    } cases[] = {
        {"Too many levels of symbolic links", false, [](auto log, auto victim) { return symlink(victim, log); }},
        {"No such device or address", false, [](auto log, auto) { return mkfifo(log, 0666); }}, // no reader
        {"Too many links", true, [](auto log, auto victim) { return link(victim, log); }},
        {"Is a directory", true, [](auto log, auto) { return mkdir(log, 0755); }},
        // Last: the only row that needs root (as anyone else, the library
        // rightly writes into a log its own user owns).
        {"Owned by another user", true, [](auto log, auto) {
             close(open(log, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
             return chown(log, 65534, 65534);
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reason);
        if (&c == std::end(cases) - 1 && geteuid() != 0)
            GTEST_SKIP() << "refusing a log another user owns is for processes running as root";
        tqtest::Fixture fx;
        fx.write("/etc/victim", "untouched");
        fx.mkdir("/var/log/tavro-quenda");
        std::string victim = fx.host("/etc/victim"), own = fx.host("/caller.log");
        ASSERT_EQ(c.plant(fx.host(kLog).c_str(), victim.c_str()), 0);
        tqtest::LeakCheck leaks;
        tq::os::testing::rearm_trace_log_report();
        testing::internal::CaptureStderr();
        EXPECT_EQ(quenda_trace("planted"), 0);
        EXPECT_EQ(quenda_trace("planted again"), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("Open log file failed: ") + c.reason + "\n");
        tq::os::testing::reset(); // callers name real paths
        if (c.caller_too) {
            ASSERT_EQ(c.plant(own.c_str(), victim.c_str()), 0);
            log_write(own.c_str(), "planted", "II", 1);
            EXPECT_FALSE(tqtest::contains(tqtest::read_file(own), "planted"));
        }
        EXPECT_EQ(fx.read("/etc/victim"), "untouched");
        EXPECT_TRUE(leaks.clean());
    }
}

TEST(Trace, ConcurrentProcessesAndThreadsWriteWholeLines)
{
    tqtest::Fixture fx;
    constexpr int kProcesses = 4, kThreads = 4, kLines = 300;
    std::vector<pid_t> children(kProcesses);
    for (int p = 0; p < kProcesses; ++p) {
        if ((children[p] = fork()) != 0)
            continue;
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([p, t] {
                for (int i = 0; i < kLines; ++i)
                    quenda_trace("worker %d/%d line %d %s end", p, t, i, std::string(400, 'f').c_str());
            });
        threads.clear(); // joined
        _exit(0);
    }
    int status = 0;
    for (pid_t pid : children)
        ASSERT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const std::regex line_re(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\]: worker (\d/\d line \d+) f{400} end)");
    std::set<std::string> seen;
    auto lines = tqtest::lines_of(fx.trace_log());
    for (const std::string &line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, line_re)) << line.substr(0, 120);
        seen.insert(m[1].str());
    }
    EXPECT_EQ(lines.size(), size_t(kProcesses * kThreads * kLines)); // each exactly once
    EXPECT_EQ(seen.size(), lines.size());
}

TEST(LogWrite, TaggedStampedLines)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    ::umask(022);
    std::string path = fx.host("/caller.log");
    tq::os::testing::reset(); // callers name real paths
    log_write(path.c_str(), "nothing", "II", 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0); // disabled: not even created
    log_write(path.c_str(), "started", "II", 1);
    log_write(path.c_str(), std::string(2000, 'm').c_str(), "EE", 1);
    log_write((path + "-dir/missing/x.log").c_str(), "silently", "WW", 1);
    // A line holds at most 1023 bytes; a cut one has no line end.
    const std::string stamp = R"(Time: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\t\tMessage: )";
    EXPECT_TRUE(std::regex_match(tqtest::read_file(path),
                                 std::regex("\\(II\\) " + stamp + "started\n\\(EE\\) " + stamp + "m{982}")));
    EXPECT_EQ(mode_of(path), std::filesystem::perms(0640));
    EXPECT_TRUE(leaks.clean());
}

} // namespace
