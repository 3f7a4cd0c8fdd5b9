// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <sstream>
#include <tuple>

#include "bounded_call.h"
#include "fixture.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "leak_check.h"

namespace {

namespace fs = std::filesystem;

// Every file call resolves absolute paths inside the root, hands back names
// as on the real system, and opens close-on-exec descriptors.
TEST(Gateway, FileCallsResolveInsideTheRootAndOpenCloseOnExec)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write("/proc/mounts", "/dev/sda2 / ext4 rw 0 0\n");
    fx.block_device("/dev/sda2");
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");
    fx.mkdir("/tmp");
    char resolved[PATH_MAX], temp_file[] = "/tmp/pubkey_XXXXXX", temp_dir[] = "/tmp/gpgdir-XXXXXX";
    ASSERT_TRUE(tq::os::realpath("/dev/disk/by-uuid/1234-ABCD", resolved) && tq::os::mkdtemp(temp_dir));
    EXPECT_STREQ(resolved, "/dev/sda2");
    EXPECT_TRUE(fs::is_directory(fx.host(temp_dir)));
    struct stat st;
    EXPECT_TRUE(tq::os::stat("/dev/disk/by-uuid/1234-ABCD", &st) == 0 && S_ISBLK(st.st_mode)); // through the link
    {
        tq::UniqueFD fd = tq::os::open("/proc/mounts", O_RDONLY), t = tq::os::mkstemp(temp_file);
        tq::UniqueFD s = tq::os::socket(AF_INET, SOCK_DGRAM, 0);
        tq::os::UniqueFile f = tq::os::fopen("/proc/mounts", "r");
        tq::os::UniqueDir d = tq::os::opendir("/tmp");
        ASSERT_TRUE(f && d);
        char line[64] = "";
        EXPECT_STREQ(fgets(line, sizeof line, f.get()), "/dev/sda2 / ext4 rw 0 0\n");
        EXPECT_TRUE(fs::is_regular_file(fx.host(temp_file)));
        for (int each : {fd.get(), t.get(), s.get(), fileno(f.get()), dirfd(d.get())})
            EXPECT_TRUE(each >= 0 && (fcntl(each, F_GETFD) & FD_CLOEXEC)) << each;
    }
    // Too long once the root is put in front: refused, never cut.
    std::string deep = "/" + std::string(PATH_MAX - 2, 'd');
    EXPECT_FALSE(tq::os::open(deep.c_str(), O_RDONLY) || tq::os::realpath(deep.c_str(), resolved));
    EXPECT_TRUE(leaks.clean());
}

// A process that is gone, or a zombie waiting for init: nothing runs any more.
bool not_running(pid_t pid)
{
    std::string stat = tqtest::read_file("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || stat.substr(stat.rfind(')') + 2, 1) == "Z";
}

// "status output" of the fixture program at path, given one argument, run by
// spawn() and through the shell.
std::string run_both_ways(const char *path)
{
    const char *argv[] = {path, "x; reboot", nullptr};
    tq::os::Child c = tq::os::spawn(argv);
    tq::os::Pipe p = tq::os::run_shell_command(path + std::string(" 'x; reboot'"));
    char line[256] = "";
    std::string shell = !p ? "<none>" : fgets(line, sizeof line, p.get()) ? line : "";
    return std::to_string(c.status) + " " + c.out + std::to_string(p.close()) + " " + shell;
}

void reap_every_child(int)
{
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

// spawn() runs a program without a shell or an environment; both ways a helper
// has /dev/null as standard input and error, and its status and output come
// back whatever the caller did with SIGCHLD and its standard descriptors.
TEST(Gateway, HelpersGiveTheirStatusAndOutputWhateverTheCallersSignalsAndStandardDescriptors)
{
    tqtest::Fixture fx;
    fx.script("/usr/sbin/dmidecode", "echo complaint >&2; echo \"$*|${MARK:-none}\"; cat || echo no input; exit 3");
    fx.write("/input", "the caller's input\n");
    const std::string stderr_file = fx.host("/stderr");
    using Row = std::pair<const char *, void (*)()>; // what the caller did, and how
    const Row rows[] = {
        {"as started", [] {}},
        {"SIGCHLD ignored", [] { signal(SIGCHLD, SIG_IGN); }},
        {"a handler reaps every child", [] { signal(SIGCHLD, reap_every_child); }},
        {"stdin and stdout closed", [] { close(0), close(1); }},
        {"stdout and stderr closed", [] { close(1), close(2); }},
        {"stdin, stdout and stderr closed", [] { close(0), close(1), close(2); }},
    };
    const auto run = [&](const Row &row, const char *program) {
        // In a child process of the test, so that the test keeps its own set-up.
        return tqtest::bounded_call([&] {
            setenv("MARK", "inherited", 1);
            dup2(tq::os::open("/input", O_RDONLY).get(), STDIN_FILENO);
            dup2(tq::os::open("/stderr", O_WRONLY | O_CREAT | O_TRUNC, 0644).get(), STDERR_FILENO);
            row.second();
            tqtest::LeakCheck leaks;
            return run_both_ways(program) + (leaks.clean() ? "" : " leaked");
        }).answer;
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.first);
        EXPECT_EQ(run(row, "/usr/sbin/dmidecode"), "768 x; reboot|none\n768 x; reboot|inherited\n"); // exit 3
        EXPECT_EQ(tqtest::read_file(stderr_file), "") << "a helper's complaints are its own";
    }
    // A program that cannot start ends as a shell's would, 127, and says why.
    EXPECT_EQ(run(rows[0], "/usr/sbin/absent"), "32512 32512 ");
    EXPECT_EQ(tqtest::read_file(stderr_file).substr(0, 8), "execve: ");
}

TEST(Gateway, OneCallsHelpersShareOneDeadlineAndTakeWhatTheyStartedWithThem)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    tq::os::testing::set_helper_time_limit_ms(500);
    int subreaper = 0; // user-mode emulators refuse PR_SET_CHILD_SUBREAPER
    const bool adopts_orphans = prctl(PR_GET_CHILD_SUBREAPER, &subreaper) == 0;
    const std::string pids = "'" + fx.host("/pids") + "'";
    const std::pair<std::string, std::string> rows[] = { // helper script, answer
        // Never ends: the second helper of the call comes after the deadline.
        {"sleep 60 & echo $$ $! >> " + pids + "; echo partial; wait", "-1 -1 <none>"},
        // Ends, leaving its output open in a process in its group, or in a session of its own.
        {"sleep 60 & echo $! >> " + pids + "; echo fact", "0 fact\n0 fact\n"},
        {"setsid sleep 60 & echo $! >> " + pids + "; echo fact", "0 fact\n0 fact\n"},
    };
    for (const auto &[script, answer] : rows) {
        SCOPED_TRACE(script);
        fx.script("/usr/sbin/dmidecode", script);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(tq::guarded<std::string>("", [] { return run_both_ways("/usr/sbin/dmidecode"); }), answer);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_TRUE(answer[0] != '-' || (seconds >= 0.45 && seconds < 0.95)) << seconds;
        std::istringstream started(tqtest::read_file(fx.host("/pids")));
        for (pid_t pid; started >> pid;) {
            if (adopts_orphans)
                EXPECT_TRUE(not_running(pid)) << pid;
            else
                kill(pid, SIGKILL); // an emulator that refuses adoption leaves them to init, or running
        }
    }
    EXPECT_TRUE(leaks.clean());
}

// A helper's output comes back whole however many reads it takes; one that
// goes on writing is cut at the cap and ended there.
TEST(Gateway, HelperOutputIsWholeUpToItsCap)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    const char *argv[] = {"/usr/sbin/dmidecode", nullptr};
    fx.script(argv[0], "head -c 300000 /dev/zero");
    EXPECT_EQ(tq::os::spawn(argv).out.size(), 300000u);
    fx.script(argv[0], "exec cat /dev/zero");
    EXPECT_EQ(tq::os::spawn(argv).out.size(), tq::os::kHelperOutputMax);
    EXPECT_TRUE(leaks.clean());
}

// A caller's path may name a FIFO without a writer, a device that never ends
// or a huge file: each is refused or read only up to its bound, at once.
TEST(Gateway, CallerNamedFilesMustBeRegularAndAreReadOnlyUpToTheirBound)
{
    tqtest::Fixture fx;
    fx.write("/small", "first\nsecond\n");
    ASSERT_TRUE(tqtest::make_fifo_and_zero(fx.host("/fifo"), fx.host("/zero")) &&
                tqtest::make_sparse(fx.host("/huge"), tqtest::kHugeFile));
    // What read_input() and read_input_prefix() (stopping after a line feed)
    // answer: the bytes read, or errno (22 EINVAL, 27 EFBIG).
    const std::tuple<const char *, size_t, std::string, std::string> cases[] = {
        {"/fifo", 1000, "22", "22"}, {"/zero", 1000, "22", "22"}, {"/huge", 1 << 20, "27", std::string(1 << 20, '\0')},
        {"/small", 13, "first\nsecond\n", "first\n"}, {"/small", 3, "27", "fir"},
    };
    for (const auto &[path, max, whole, start] : cases) {
        SCOPED_TRACE(path + (" at most " + std::to_string(max)));
        const tqtest::BoundedCall got = tqtest::bounded_call([&] {
            tqtest::LeakCheck leaks;
            std::string all, first;
            errno = EINTR; // a stale EINTR is no interrupted read
            std::string answer = tq::os::read_input(path, max, &all) ? all : std::to_string(errno);
            errno = EINTR;
            answer += "|" + (tq::os::read_input_prefix(path, max, &first, "\n") ? first : std::to_string(errno));
            return answer + (leaks.clean() ? "" : " leaked");
        });
        EXPECT_EQ(got.answer, whole + "|" + start);
        EXPECT_TRUE(tqtest::within_memory_bound(got.grown_kib));
    }
}

} // namespace
