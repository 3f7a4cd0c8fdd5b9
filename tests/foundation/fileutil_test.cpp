// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "fixture.h"
#include "foundation/fileutil.h"
#include "foundation/os.h"
#include "leak_check.h"
#include "tavro-quenda.h"

namespace {

TEST(FileStat, IsAMaskedModeProbe)
{
    tqtest::Fixture fx;
    fx.write("/etc/f", "x", 0644);
    std::string path = fx.host("/etc/f");
    tq::os::testing::reset(); // file_stat takes real paths here
    EXPECT_EQ(file_stat(path.c_str(), 0700), 0600);
    EXPECT_EQ(file_stat((path + "-missing").c_str(), 0777), 0);
    EXPECT_EQ(file_stat(nullptr, 0777), 0);
}

// The walk never leaves the tree: not through links inside it, not through a
// link given as the top (removed as a link), not through a subfolder swapped
// for a link between the listing of its folder and the descent into it. A
// missing path or a file is left alone.
TEST(RemoveDirectory, NeverLeavesTheTree)
{
    const struct {
        const char *top;
        bool swap;
    } cases[] = {{"/tree", false},    {"/top-link", false}, {"/top-link/", false},
                 {"/tree", true},     {"/missing", false},  {"/outside/keep.txt", false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.top) + (c.swap ? ", a subfolder swapped for a link" : ""));
        tqtest::Fixture fx;
        tqtest::LeakCheck leaks;
        fx.write("/outside/keep.txt", "keep");
        fx.write("/tree/a/b/c.txt", "c");
        fx.write("/tree/top.txt", "t");
        fx.symlink(fx.host("/outside"), "/tree/link-to-dir");
        fx.symlink(fx.host("/outside/keep.txt"), "/tree/link-to-file");
        fx.symlink(fx.host("/outside"), "/top-link");
        std::string a = fx.host("/tree/a"), moved = fx.host("/moved"), outside = fx.host("/outside");
        tq::os::testing::reset(); // remove_directory takes real paths here
        bool swapped = false;
        if (c.swap) {
            tq::os::testing::set_before_openat([&](int, const char *name) {
                if (!swapped && std::string(name) == "a")
                    swapped = rename(a.c_str(), moved.c_str()) == 0 && symlink(outside.c_str(), a.c_str()) == 0;
            });
        }
        remove_directory(fx.host(c.top).c_str());
        EXPECT_EQ(swapped, c.swap);
        EXPECT_EQ(tqtest::read_file(outside + "/keep.txt"), "keep");
        EXPECT_NE(std::filesystem::exists(fx.host("/tree")), c.top == std::string("/tree"));
        // A top link is removed as a link, not followed.
        EXPECT_NE(std::filesystem::is_symlink(fx.host("/top-link")), std::string(c.top).rfind("/top-link", 0) == 0);
        EXPECT_TRUE(leaks.clean());
    }
}

// Runs body in a child process; true when it exited with 0.
template <typename Body>
bool in_child(Body body)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(RedirectStdio, FillsOnlyClosedDescriptors)
{
    EXPECT_TRUE(in_child([] {
        struct stat before0, before2, after, now0, now2;
        fstat(0, &before0);
        fstat(2, &before2);
        close(1);
        redirect_stdio();
        if (fstat(1, &after) != 0 || !S_ISCHR(after.st_mode) || (fcntl(1, F_GETFD) & FD_CLOEXEC))
            return 1; // must survive exec like any standard descriptor
        fstat(0, &now0);
        fstat(2, &now2);
        return now0.st_ino == before0.st_ino && now2.st_ino == before2.st_ino ? 0 : 2;
    }));
    EXPECT_TRUE(in_child([] {
        tqtest::LeakCheck leaks;
        redirect_stdio();
        return leaks.clean() ? 0 : 1;
    }));
}

TEST(FactReader, FirstLineCutAtCarriageReturnOrLineFeed)
{
    tqtest::Fixture fx;
    fx.write("/sys/a", "4c4c4544-0042\r\nsecond\n");
    fx.write("/sys/empty-line", "\nsecond\n");
    fx.write("/sys/empty", "");
    fx.write("/sys/long", std::string(2000, 'x'));
    EXPECT_EQ(tq::read_fact_file("/sys/a"), "4c4c4544-0042");
    EXPECT_EQ(tq::read_fact_file("/sys/empty-line"), "");
    EXPECT_EQ(tq::read_fact_file("/sys/empty"), std::nullopt);
    EXPECT_EQ(tq::read_fact_file("/sys/missing"), std::nullopt);
    EXPECT_EQ(tq::read_fact_file("/sys/long"), std::string(1023, 'x'));
}

TEST(FactReader, CommandRunsOnlyWithAnExecutableDmidecode)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    const std::string command = "/usr/sbin/dmidecode -s system-serial-number";
    EXPECT_EQ(tq::read_dmidecode_fact(command), std::nullopt);
    fx.program("/usr/sbin/dmidecode", "PF 12 AB\r\n");
    EXPECT_EQ(tq::read_dmidecode_fact(command), "PF 12 AB");
    chmod(fx.host("/usr/sbin/dmidecode").c_str(), 0644);
    EXPECT_EQ(tq::read_dmidecode_fact(command), std::nullopt);
    EXPECT_EQ(fx.calls("/usr/sbin/dmidecode"), std::vector<std::string>{"-s system-serial-number"});
    EXPECT_TRUE(leaks.clean());
}

} // namespace
