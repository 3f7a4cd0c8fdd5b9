// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>

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
        EXPECT_TRUE(cloexec(fileno(p.get())));
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
    ASSERT_GT(child.pid, 0);
    EXPECT_TRUE(cloexec(child.out.get()));
    std::string out;
    char buf[256];
    for (ssize_t n; (n = read(child.out.get(), buf, sizeof(buf))) > 0;)
        out.append(buf, static_cast<size_t>(n));
    // dash falls back to its own default search path, but nothing is inherited.
    EXPECT_EQ(out.substr(0, out.find("env:")), "args:deps -o devname /dev/dm-0; reboot\n");
    EXPECT_EQ(out.find("env:none"), out.find("env:"));
    child.out.reset();
    int status = tq::os::wait_child(child.pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    const char *missing[] = {"/usr/sbin/absent", nullptr};
    testing::internal::CaptureStderr();
    tq::os::Child failed = tq::os::spawn(missing);
    ASSERT_GT(failed.pid, 0);
    failed.out.reset();
    status = tq::os::wait_child(failed.pid);
    EXPECT_EQ(WEXITSTATUS(status), 127);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("execve: "), std::string::npos);
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
