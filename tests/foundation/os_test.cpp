// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "fixture.h"
#include "foundation/os.h"
#include "leak_check.h"

namespace {

bool cloexec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

std::string read_all(FILE *f)
{
    std::string out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        out.append(buf, n);
    return out;
}

TEST(Gateway, AbsolutePathsResolveInsideTheRootAndComeBackAsOnTheRealSystem)
{
    tqtest::Fixture fx;
    fx.write("/proc/mounts", "/dev/sda2 / ext4 rw 0 0\n");
    fx.block_device("/dev/sda2");
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");

    tq::os::UniqueFile f = tq::os::fopen("/proc/mounts", "r");
    ASSERT_TRUE(f);
    EXPECT_EQ(read_all(f.get()), "/dev/sda2 / ext4 rw 0 0\n");

    char resolved[PATH_MAX];
    ASSERT_TRUE(tq::os::realpath("/dev/disk/by-uuid/1234-ABCD", resolved));
    EXPECT_STREQ(resolved, "/dev/sda2");

    struct stat st;
    ASSERT_EQ(tq::os::stat("/dev/disk/by-uuid/1234-ABCD", &st), 0);
    EXPECT_TRUE(S_ISBLK(st.st_mode)); // a fake block device, through the link
    ASSERT_EQ(tq::os::lstat("/dev/disk/by-uuid/1234-ABCD", &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(tq::os::stat("/proc/mounts", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    EXPECT_EQ(tq::os::host_path("/dev/sda2"), fx.host("/dev/sda2"));
    EXPECT_EQ(tq::os::host_path("relative"), "relative");

    char tmpl[] = "/tmp/gpgdir-XXXXXX";
    fx.mkdir("/tmp");
    ASSERT_TRUE(tq::os::mkdtemp(tmpl));
    EXPECT_EQ(std::string(tmpl).rfind("/tmp/gpgdir-", 0), 0u);
    EXPECT_TRUE(std::filesystem::is_directory(fx.host(tmpl)));
}

TEST(Gateway, EveryDescriptorIsCloseOnExec)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write("/etc/f", "x");
    fx.mkdir("/tmp");
    {
        tq::UniqueFD fd = tq::os::open("/etc/f", O_RDONLY);
        ASSERT_TRUE(fd);
        EXPECT_TRUE(cloexec(fd.get()));
        tq::os::UniqueFile f = tq::os::fopen("/etc/f", "r");
        ASSERT_TRUE(f);
        EXPECT_TRUE(cloexec(fileno(f.get())));
        tq::os::UniqueDir d = tq::os::opendir("/etc");
        ASSERT_TRUE(d);
        EXPECT_TRUE(cloexec(dirfd(d.get())));
        tq::UniqueFD s = tq::os::socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_TRUE(s);
        EXPECT_TRUE(cloexec(s.get()));
        char tmpl[] = "/tmp/pubkey_XXXXXX";
        tq::UniqueFD t = tq::os::mkstemp(tmpl);
        ASSERT_TRUE(t);
        EXPECT_TRUE(cloexec(t.get()));
        tq::os::Pipe p = tq::os::popen("true");
        ASSERT_TRUE(p);
        EXPECT_EQ(fileno(p.get()), -1); // the output is collected already: no descriptor stays open
        EXPECT_EQ(p.close(), 0);
    }
    EXPECT_TRUE(leaks.clean());
}

TEST(Gateway, HelperProgramsRunUnderTheRootAndPathArgumentsAreInert)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.program("/usr/sbin/smartctl", "recorded report\n");
    fx.mkdir("/dev");

    std::string weird = "/dev/x'; touch " + fx.host("/pwned") + "; echo '$(touch " + fx.host("/pwned2") + ")`id`";
    tq::os::Pipe p = tq::os::popen("/usr/sbin/smartctl -i " + tq::os::path_arg(weird));
    ASSERT_TRUE(p);
    EXPECT_EQ(read_all(p.get()), "recorded report\n");
    EXPECT_EQ(p.close(), 0);
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned")));
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned2")));
    ASSERT_EQ(fx.calls("/usr/sbin/smartctl").size(), 1u);
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl")[0], "-i " + fx.host(weird)); // one argument, verbatim

    EXPECT_EQ(tq::os::shell_quote("it's"), "'it'\\''s'");
    EXPECT_EQ(WEXITSTATUS(tq::os::system("/usr/sbin/smartctl >/dev/null")), 0);
    EXPECT_TRUE(leaks.clean());
}

TEST(Gateway, SpawnRunsWithoutShellOrEnvironmentAndIsReaped)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.script("/usr/sbin/dmsetup", "printf 'args:%s\\nenv:%s\\n' \"$*\" \"${HOME:-none}${PATH:-none}\"");
    const char *argv[] = {"/usr/sbin/dmsetup", "deps", "-o", "devname", "/dev/dm-0; reboot", nullptr};
    tq::os::Child child = tq::os::spawn(argv);
    ASSERT_TRUE(child.started);
    // dash falls back to its own default search path, but nothing is inherited.
    EXPECT_EQ(child.out.substr(0, child.out.find("env:")), "args:deps -o devname /dev/dm-0; reboot\n");
    EXPECT_EQ(child.out.find("env:none"), child.out.find("env:"));
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);

    const char *missing[] = {"/usr/sbin/absent", nullptr};
    testing::internal::CaptureStderr();
    tq::os::Child failed = tq::os::spawn(missing);
    ASSERT_TRUE(failed.started);
    EXPECT_EQ(WEXITSTATUS(failed.status), 127);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("execve: "), std::string::npos);
    EXPECT_TRUE(leaks.clean());
}

// A process that is gone, or a zombie waiting for init: nothing runs any more.
bool not_running(pid_t pid)
{
    std::string stat = tqtest::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.substr(paren + 2, 1) == "Z");
}

// Each way of running a helper, as the library's readers use it.
enum class Runner { popen, system, spawn };
const Runner kRunners[] = {Runner::popen, Runner::system, Runner::spawn};

// Runs the program at fixture path prog; true when the call counted as a success.
bool run_helper(Runner how, const char *prog, std::string *out = nullptr)
{
    if (how == Runner::popen) {
        tq::os::Pipe p = tq::os::popen(prog);
        if (p && out)
            *out = read_all(p.get());
        return p && p.close() == 0;
    }
    if (how == Runner::system)
        return tq::os::system(std::string(prog) + " >/dev/null") == 0;
    const char *argv[] = {prog, nullptr};
    tq::os::Child c = tq::os::spawn(argv);
    if (out)
        *out = c.out;
    EXPECT_TRUE(c.started);
    return c.status == 0;
}

TEST(Gateway, AHelperPastItsTimeLimitIsEndedWithItsWholeGroup)
{
    EXPECT_EQ(tq::os::kHelperTimeLimitSeconds, 30);
    for (Runner how : kRunners) {
        tqtest::Fixture fx;
        tqtest::LeakCheck leaks;
        tq::os::testing::set_helper_time_limit_ms(1000);
        std::string pids = fx.host("/pids");
        // The helper starts a grandchild in its group and both hang.
        fx.script("/usr/sbin/dmidecode", "sleep 60 & echo $$ $! > '" + pids + "'; echo partial; wait");
        auto start = std::chrono::steady_clock::now();
        std::string out;
        EXPECT_FALSE(run_helper(how, "/usr/sbin/dmidecode", &out));
        EXPECT_EQ(out, "") << "what a failed helper said does not count";
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_GE(seconds, 0.9);
        EXPECT_LT(seconds, 10.0);
        std::istringstream ids(tqtest::read_file(pids));
        pid_t helper = 0, grandchild = 0;
        ASSERT_TRUE(ids >> helper >> grandchild) << static_cast<int>(how);
        // SIGKILL is delivered asynchronously to the processes the library did not reap itself.
        for (int i = 0; i < 100 && !(not_running(helper) && not_running(grandchild)); ++i)
            usleep(10000);
        EXPECT_TRUE(not_running(helper));
        EXPECT_TRUE(not_running(grandchild)) << static_cast<int>(how);
        EXPECT_TRUE(leaks.clean());
    }
    // A quick helper is untouched by the limit, and popen() hands over its output.
    tqtest::Fixture fx;
    fx.program("/usr/sbin/dmidecode", "whole output\n");
    std::string out;
    EXPECT_TRUE(run_helper(Runner::popen, "/usr/sbin/dmidecode", &out));
    EXPECT_EQ(out, "whole output\n");
}

TEST(Gateway, HelpersNeverWriteOnTheCallersStandardError)
{
    for (Runner how : kRunners) {
        tqtest::Fixture fx;
        tqtest::LeakCheck leaks;
        fx.script("/usr/sbin/dmidecode", "echo '/dev/mem: No such file or directory' >&2; echo fact");
        testing::internal::CaptureStderr();
        std::string out;
        EXPECT_TRUE(run_helper(how, "/usr/sbin/dmidecode", &out));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << static_cast<int>(how);
        if (how != Runner::system) {
            EXPECT_EQ(out, "fact\n");
        }
        EXPECT_TRUE(leaks.clean());
    }
    // A command line that sends its standard error somewhere itself still does.
    tqtest::Fixture fx;
    fx.script("/usr/sbin/dmidecode", "echo complaint >&2");
    tq::os::Pipe p = tq::os::popen("/usr/sbin/dmidecode 2>&1");
    ASSERT_TRUE(p);
    EXPECT_EQ(read_all(p.get()), "complaint\n");
}

TEST(Gateway, CallerNamedFilesMustBeRegularAndFitTheirBound)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    tq::os::testing::reset(); // callers name real paths
    std::string fifo = fx.host("/fifo"), big = fx.host("/big"), small = fx.host("/small");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    fx.write("/big", std::string(100, 'b'));
    fx.write("/small", "first\nsecond\n");
    struct Case {
        std::string path;
        size_t max;
        bool ok;
        int err;
        std::string text;
    };
    const Case cases[] = {
        {fifo, 1000, false, EINVAL, ""},        // returns at once instead of waiting for a writer
        {"/dev/zero", 1000, false, EINVAL, ""}, // never read forever
        {fx.root(), 1000, false, EINVAL, ""},
        {big, 99, false, EFBIG, ""},
        {big, 100, true, 0, std::string(100, 'b')},
        {"/proc/self/cmdline", 1 << 20, true, 0, ""}, // size 0 in stat, yet it has content
        {fx.host("/absent"), 1000, false, ENOENT, ""},
    };
    for (const Case &c : cases) {
        std::string out = "untouched";
        errno = 0;
        EXPECT_EQ(tq::os::read_input(c.path.c_str(), c.max, &out), c.ok) << c.path;
        if (!c.ok) {
            EXPECT_EQ(errno, c.err) << c.path;
            EXPECT_EQ(out, "untouched");
        } else if (!c.text.empty()) {
            EXPECT_EQ(out, c.text);
        } else {
            EXPECT_FALSE(out.empty()) << c.path;
        }
        std::string start;
        EXPECT_EQ(tq::os::read_input_prefix(c.path.c_str(), c.max, &start), c.ok || c.err == EFBIG) << c.path;
    }
    EXPECT_TRUE(tq::os::open_input("/dev/zero", tq::os::InputKind::regular_or_block).get() < 0);

    // The start of a file: up to the bound, or up to and including a stop byte.
    std::string start;
    ASSERT_TRUE(tq::os::read_input_prefix(small.c_str(), 1000, &start, "\n"));
    EXPECT_EQ(start, "first\n");
    ASSERT_TRUE(tq::os::read_input_prefix(small.c_str(), 3, &start, "\n"));
    EXPECT_EQ(start, "fir");
    ASSERT_TRUE(tq::os::read_input_prefix(small.c_str(), 1000, &start));
    EXPECT_EQ(start, "first\nsecond\n");
    EXPECT_TRUE(leaks.clean());
}

TEST(Gateway, KernelCallsCanBeFaked)
{
    tqtest::Fixture fx;
    fx.block_device("/dev/sda");
    unsigned long seen = 0;
    tq::os::testing::set_ioctl([&](int, unsigned long request, void *) {
        seen = request;
        return 0;
    });
    tq::UniqueFD fd = tq::os::open("/dev/sda", O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(fd);
    EXPECT_EQ(tq::os::ioctl(fd.get(), HDIO_GET_IDENTITY, nullptr), 0);
    EXPECT_EQ(seen, static_cast<unsigned long>(HDIO_GET_IDENTITY));

    tq::os::testing::set_whole_disk([](const char *path) { return std::strcmp(path, "/dev/sda") == 0; });
    EXPECT_EQ(tq::os::probe_is_whole_disk("/dev/sda"), 1);
    EXPECT_EQ(tq::os::probe_is_whole_disk("/dev/sda1"), 0);
    EXPECT_EQ(tq::os::probe_is_whole_disk(nullptr), 0);

    EXPECT_FALSE(tq::os::optical_drive_hwinfo()); // never the host's drive inside a fixture
}

TEST(Gateway, TooLongMappedPathsFailCleanly)
{
    tqtest::Fixture fx;
    std::string deep = "/" + std::string(PATH_MAX - 2, 'd');
    EXPECT_FALSE(tq::os::open(deep.c_str(), O_RDONLY));
    EXPECT_EQ(tq::os::access(deep.c_str(), F_OK), -1);
    char resolved[PATH_MAX];
    EXPECT_FALSE(tq::os::realpath(deep.c_str(), resolved));
}

} // namespace
