// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "bounded_call.h"
#include "fixture.h"
#include "foundation/fileutil.h"
#include "foundation/os.h"
#include "leak_check.h"
#include "tavro-quenda.h"

namespace {

// The walk never leaves the tree: not through links inside it, not through a
// link given as the top (removed as a link, even with a trailing slash), not
// through a subfolder swapped for a link between the listing of its folder
// and the descent into it.
TEST(RemoveDirectory, NeverLeavesTheTree)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write("/outside/keep.txt", "keep");
    fx.write("/tree/a/b/c.txt", "c");
    fx.write("/tree/d/e/f.txt", "f");
    fx.symlink(fx.host("/outside"), "/tree/link-to-dir");
    fx.symlink(fx.host("/outside/keep.txt"), "/tree/link-to-file");
    fx.symlink(fx.host("/outside"), "/top-link");
    const std::string a = fx.host("/tree/a"), moved = fx.host("/moved"), outside = fx.host("/outside");
    bool swapped = false;
    tq::os::testing::set_before_openat([&](int, const char *name) {
        if (!swapped && std::string(name) == "a")
            swapped = rename(a.c_str(), moved.c_str()) == 0 && symlink(outside.c_str(), a.c_str()) == 0;
    });
    remove_directory("/top-link/");
    remove_directory("/tree");
    EXPECT_TRUE(swapped);
    EXPECT_EQ(tqtest::read_file(outside + "/keep.txt"), "keep");
    EXPECT_FALSE(std::filesystem::exists(fx.host("/tree")) || std::filesystem::is_symlink(fx.host("/top-link")));
    EXPECT_TRUE(leaks.clean());
}

TEST(RedirectStdio, FillsOnlyClosedDescriptorsAndKeepsThemAcrossExec)
{
    for (const auto &[stdout_closed, want] : {std::pair{false, "kept kept kept"}, {true, "kept null kept"}}) {
        // In a child process, so that the test keeps its own descriptors.
        const tqtest::BoundedCall got = tqtest::bounded_call([stdout_closed] {
            tqtest::LeakCheck leaks;
            if (stdout_closed)
                close(1);
            struct stat before[3] = {}, now;
            for (int fd = 0; fd < 3; ++fd)
                fstat(fd, &before[fd]);
            redirect_stdio();
            std::string answer;
            for (int fd = 0; fd < 3; ++fd) {
                const bool is_null = fstat(fd, &now) == 0 && S_ISCHR(now.st_mode) && !(fcntl(fd, F_GETFD) & FD_CLOEXEC);
                answer += now.st_ino == before[fd].st_ino ? "kept " : is_null ? "null " : "other ";
            }
            return answer.substr(0, answer.size() - 1) + (leaks.clean() ? "" : " leaked");
        });
        EXPECT_EQ(got.answer, want);
    }
}

// Cut where fgets() into a 1024-byte buffer would have cut it.
TEST(FactReader, FirstLineIsReadOnlyAsFarAsItsBufferHolds)
{
    tqtest::Fixture fx;
    fx.write("/sys/fact", std::string(2000, 'x'));
    EXPECT_EQ(tq::read_fact_file("/sys/fact"), std::string(1023, 'x'));
    EXPECT_EQ(tq::read_fact_file("/sys/missing"), std::nullopt);
}

TEST(FileStat, NothingToExamineIsZero)
{
    EXPECT_EQ(file_stat("/nonexistent/file", 0777), 0);
    EXPECT_EQ(file_stat(nullptr, 0777), 0);
}

} // namespace
