// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "results.h"
#include "foundation/os.h"
#include "leak_check.h"
#include "tavro-quenda.h"

#if !defined(__SANITIZE_ADDRESS__)
// Counts this thread's malloc() calls while counting is on (the sanitizers
// replace malloc themselves, so this runs in the plain build only).
extern "C" void *__libc_malloc(size_t size);
namespace {
thread_local bool counting_mallocs = false;
thread_local int mallocs = 0;
} // namespace
extern "C" void *malloc(size_t size)
{
    if (counting_mallocs)
        ++mallocs;
    return __libc_malloc(size);
}
#endif

namespace {

constexpr char kLog[] = "/var/log/tavro-quenda/libtavro-quenda.log";

std::string prefix_pattern()
{
    return R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[)" + std::to_string(getpid()) + R"(\]: )";
}

// Length of this process's line prefix: the stamp has a fixed width.
size_t prefix_length() { return std::string(time_string()).size() + std::to_string(getpid()).size() + 5; }


TEST(TimeString, DateMinuteSecondsAndMilliseconds)
{
    std::string stamp = time_string();
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"))) << stamp;
    EXPECT_EQ(time_string(), time_string()); // one static buffer (per thread)
}

TEST(Trace, PrefixAndLineEndRule)
{
    tqtest::Fixture fx;
    ::umask(022);
    EXPECT_EQ(quenda_trace("tavro_quenda_get_harddisk_id: %s", "0123ABC"), 1);
    EXPECT_EQ(quenda_trace("ends with its own line end\n"), 1);
    EXPECT_EQ(quenda_trace("%s", ""), 1);
    EXPECT_EQ(quenda_trace("percent %d%% kept", 50), 1);

    std::string log = fx.trace_log();
    std::string p = prefix_pattern();
    EXPECT_TRUE(std::regex_match(log, std::regex(p + "tavro_quenda_get_harddisk_id: 0123ABC\n" + p +
                                                 "ends with its own line end\n" + p + "\n" + p +
                                                 "percent 50% kept\n")))
        << log;

    struct stat st;
    ASSERT_EQ(stat(fx.host(kLog).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    ASSERT_EQ(stat(fx.host("/var/log/tavro-quenda").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u); // 0777 less the umask
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(Trace, WritesWithoutAllocating)
{
    tqtest::Fixture fx;
    quenda_trace("warm up %d", 1); // the time zone is loaded once per process
    mallocs = 0;
    counting_mallocs = true;
    int written = quenda_trace("harddisk_id_nvme_new model = %s, %d%%", "Samsung", 100);
    counting_mallocs = false;
    EXPECT_EQ(written, 1);
    EXPECT_EQ(mallocs, 0);
}
#endif

TEST(Trace, LongLinesAreCutTo1022BytesAndAZeroByte)
{
    tqtest::Fixture fx;
    size_t p = prefix_length();

    std::string exact(1022 - p, 'e'); // the whole line is exactly 1022 bytes
    quenda_trace("%s", exact.c_str());
    std::string log = fx.trace_log();
    ASSERT_EQ(log.size(), 1023u);
    EXPECT_EQ(log.back(), '\n');

    std::string too_long(5000, 'L');
    quenda_trace("%s", too_long.c_str());
    quenda_trace("next");
    log = fx.trace_log();
    std::string second = log.substr(1023);
    ASSERT_GE(second.size(), 1023u);
    EXPECT_EQ(second[1022], '\0');
    EXPECT_EQ(second.substr(p, 1022 - p), std::string(1022 - p, 'L'));
    // No line end: the next line continues after the zero byte.
    EXPECT_TRUE(std::regex_match(second.substr(1023), std::regex(prefix_pattern() + "next\n")));

    std::string with_end = std::string(1021 - p, 'n') + "\n"; // 1022 bytes ending in a line end
    quenda_trace("%s", with_end.c_str());
    EXPECT_EQ(fx.trace_log().substr(log.size()).size(), 1022u);
}

TEST(Trace, UnopenableLogReportsOnStderrAndReturnsZero)
{
    tqtest::Fixture fx;
    fx.write("/var/log/tavro-quenda", "a file where the directory should be");
    testing::internal::CaptureStderr();
    EXPECT_EQ(quenda_trace("lost"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Open log file failed: Not a directory\n");
}

TEST(Trace, NeverFollowsOrBlocksOnAPlantedFile)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write("/etc/victim", "untouched");
    fx.symlink(fx.host("/etc/victim"), kLog);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quenda_trace("through a link"), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Open log file failed: "), std::string::npos);
    EXPECT_EQ(fx.read("/etc/victim"), "untouched");

    unlink(fx.host(kLog).c_str());
    ASSERT_EQ(mkfifo(fx.host(kLog).c_str(), 0666), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quenda_trace("into a fifo"), 0); // returns instead of waiting for a reader
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Open log file failed: "), std::string::npos);
    EXPECT_TRUE(leaks.clean());
}

TEST(Trace, TheLogDirectoryIsNeverWritableByOthers)
{
    tqtest::Fixture fx;
    mode_t old = ::umask(0);
    EXPECT_EQ(quenda_trace("made under umask 0"), 1);
    ::umask(old);
    struct stat st;
    ASSERT_EQ(stat(fx.host("/var/log/tavro-quenda").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

// A planted log in place of the library's own, and of a caller's log_write file:
// each is refused, and the file behind it stays as it was.
TEST(Trace, NoLineGoesIntoAHardLinkOrAForeignFile)
{
    struct Case {
        const char *what;
        const char *reason;
        std::function<void(const std::string &log, const std::string &victim)> plant;
    };
    const Case cases[] = {
        {"hard link", "Too many links",
         [](const std::string &log, const std::string &victim) { ASSERT_EQ(link(victim.c_str(), log.c_str()), 0); }},
        {"foreign owner", "Owned by another user",
         [](const std::string &log, const std::string &) {
             close(open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
             ASSERT_EQ(chown(log.c_str(), 65534, 65534), 0);
         }},
        {"directory", nullptr, [](const std::string &log, const std::string &) { ASSERT_EQ(mkdir(log.c_str(), 0755), 0); }},
    };
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to plant a file owned by another user";
    for (const Case &c : cases) {
        tqtest::Fixture fx;
        tqtest::LeakCheck leaks;
        fx.write("/etc/victim", "untouched");
        fx.mkdir("/var/log/tavro-quenda");
        std::string victim = fx.host("/etc/victim"), log = fx.host(kLog), own = fx.host("/caller.log");
        c.plant(log, victim);
        testing::internal::CaptureStderr();
        EXPECT_EQ(quenda_trace("planted"), 0) << c.what;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.rfind("Open log file failed: ", 0), 0u) << c.what;
        if (c.reason) {
            EXPECT_EQ(err, std::string("Open log file failed: ") + c.reason + "\n");
        }
        EXPECT_EQ(fx.read("/etc/victim"), "untouched");

        tq::os::testing::reset();
        c.plant(own, victim);
        log_write(own.c_str(), "planted", "II", 1);
        EXPECT_EQ(fx.read("/etc/victim"), "untouched") << c.what;
        EXPECT_EQ(tqtest::read_file(own).find("planted"), std::string::npos) << c.what;
        EXPECT_TRUE(leaks.clean());
    }
}

TEST(LogWrite, NeverBlocksOnOrWritesIntoAFifo)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    tq::os::testing::reset();
    std::string fifo = fx.host("/fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    log_write(fifo.c_str(), "no reader", "II", 1); // returns instead of waiting for one
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    log_write(fifo.c_str(), "a reader", "II", 1);
    char buf[16];
    EXPECT_LE(read(reader, buf, sizeof(buf)), 0);
    close(reader);
    EXPECT_TRUE(leaks.clean());
}

TEST(Trace, ConcurrentProcessesAndThreadsWriteWholeLines)
{
    tqtest::Fixture fx;
    constexpr int kProcesses = 4, kThreads = 4, kLines = 300;
    const std::string filler(400, 'f');
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = fork();
        if (pid == 0) {
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&, t] {
                    for (int i = 0; i < kLines; ++i)
                        quenda_trace("worker %d/%d line %d %s end", p, t, i, filler.c_str());
                });
            }
            for (auto &th : threads)
                th.join();
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    std::regex line_re(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\]: worker (\d)/(\d) line (\d+) f{400} end)");
    std::map<std::string, int> seen;
    auto lines = tqtest::lines_of(fx.trace_log());
    ASSERT_EQ(lines.size(), size_t(kProcesses * kThreads * kLines));
    for (const std::string &line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, line_re)) << line.substr(0, 120);
        ++seen[m[1].str() + "/" + m[2].str() + "/" + m[3].str()];
    }
    EXPECT_EQ(seen.size(), size_t(kProcesses * kThreads * kLines)); // each exactly once
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
    std::string log = tqtest::read_file(path);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        log, m, std::regex(R"(^\(II\) Time: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\t\tMessage: started\n)")));
    std::string second = log.substr(m.length(0));
    EXPECT_EQ(second.size(), 1023u); // cut, without a line end
    EXPECT_EQ(second.rfind("(EE) Time: ", 0), 0u);
    EXPECT_EQ(second.back(), 'm');

    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    log_write((path + "-dir/missing/x.log").c_str(), "silently", "WW", 1);
    EXPECT_TRUE(leaks.clean());
}

} // namespace
