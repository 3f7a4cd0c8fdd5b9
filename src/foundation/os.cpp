// SPDX-License-Identifier: LGPL-2.1-or-later
#include "foundation/os.h"

#include <blkid/blkid.h>
#include <cdio/cdio.h>
#include <cdio/device.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>

extern char **environ;

namespace tq::os {
namespace {

struct Hooks {
    std::string root;
    std::function<void(int, const char *)> before_openat;
    std::function<bool(const char *)> is_block;
    std::function<int(int, unsigned long, void *)> ioctl;
    std::function<int(struct ifaddrs **)> getifaddrs;
    std::function<void(struct ifaddrs *)> freeifaddrs;
    std::function<int(const char *)> whole_disk;
    std::function<std::optional<std::array<std::string, 3>>()> optical_drive;
    int helper_time_limit_ms = 0;
};

Hooks &hooks()
{
    static Hooks h;
    return h;
}

bool rooted() noexcept { return !hooks().root.empty(); }

// Strips the test root from a host path, in place.
void strip_root(char *path) noexcept
{
    const std::string &root = hooks().root;
    if (root.empty() || std::strncmp(path, root.c_str(), root.size()) != 0)
        return;
    const char *rest = path + root.size();
    if (*rest == '\0')
        std::strcpy(path, "/");
    else if (*rest == '/')
        std::memmove(path, rest, std::strlen(rest) + 1);
}

} // namespace

void IfAddrsFree::operator()(struct ifaddrs *list) const noexcept
{
    if (hooks().freeifaddrs)
        hooks().freeifaddrs(list);
    else
        ::freeifaddrs(list);
}

struct Pipe::Output {
    std::string text;
    size_t pos = 0;
    int status = -1;
};

namespace {

ssize_t output_read(void *cookie, char *buf, size_t size)
{
    auto *out = static_cast<Pipe::Output *>(cookie);
    size_t n = std::min(size, out->text.size() - out->pos);
    std::memcpy(buf, out->text.data() + out->pos, n);
    out->pos += n;
    return static_cast<ssize_t>(n);
}

} // namespace

Pipe::Pipe(std::string output, int status) noexcept
{
    out_ = new (std::nothrow) Output;
    if (!out_)
        return;
    out_->text = std::move(output);
    out_->status = status;
    cookie_io_functions_t io{};
    io.read = output_read;
    f_ = ::fopencookie(out_, "r", io);
    if (!f_) {
        delete out_;
        out_ = nullptr;
    }
}

Pipe::Pipe(Pipe &&other) noexcept
    : f_(std::exchange(other.f_, nullptr)), out_(std::exchange(other.out_, nullptr))
{
}

Pipe &Pipe::operator=(Pipe &&other) noexcept
{
    if (this != &other) {
        close();
        f_ = std::exchange(other.f_, nullptr);
        out_ = std::exchange(other.out_, nullptr);
    }
    return *this;
}

int Pipe::close() noexcept
{
    if (!f_)
        return -1;
    std::fclose(f_);
    f_ = nullptr;
    int status = out_->status;
    delete out_;
    out_ = nullptr;
    return status;
}

HostPath::HostPath(const char *path) noexcept
{
    if (!path)
        return;
    const std::string &root = hooks().root;
    if (root.empty() || path[0] != '/') {
        p_ = path;
        return;
    }
    size_t n = std::strlen(path);
    if (root.size() + n >= sizeof(buf_)) {
        errno = ENAMETOOLONG;
        return;
    }
    std::memcpy(buf_, root.data(), root.size());
    std::memcpy(buf_ + root.size(), path, n + 1);
    p_ = buf_;
}

UniqueFD open(const char *path, int flags, mode_t mode) noexcept
{
    HostPath p(path);
    if (!p.c_str())
        return UniqueFD();
    return UniqueFD(::open(p.c_str(), flags | O_CLOEXEC, mode));
}

UniqueFile fopen(const char *path, const char *mode) noexcept
{
    HostPath p(path);
    char m[16];
    if (!p.c_str() || !mode || std::strlen(mode) + 2 > sizeof(m))
        return nullptr;
    std::strcpy(m, mode);
    std::strcat(m, "e");
    return UniqueFile(::fopen(p.c_str(), m));
}

UniqueDir opendir(const char *path) noexcept
{
    HostPath p(path);
    if (!p.c_str())
        return nullptr;
    // opendir() uses O_CLOEXEC itself.
    return UniqueDir(::opendir(p.c_str()));
}

int access(const char *path, int mode) noexcept
{
    HostPath p(path);
    return p.c_str() ? ::access(p.c_str(), mode) : -1;
}

int stat(const char *path, struct stat *st) noexcept
{
    HostPath p(path);
    if (!p.c_str())
        return -1;
    int r = ::stat(p.c_str(), st);
    if (r == 0 && rooted() && S_ISREG(st->st_mode) && hooks().is_block) {
        char resolved[PATH_MAX];
        if (::realpath(p.c_str(), resolved) && hooks().is_block(resolved))
            st->st_mode = (st->st_mode & ~S_IFMT) | S_IFBLK;
    }
    return r;
}

int lstat(const char *path, struct stat *st) noexcept
{
    HostPath p(path);
    return p.c_str() ? ::lstat(p.c_str(), st) : -1;
}

bool realpath(const char *path, char *resolved) noexcept
{
    HostPath p(path);
    if (!p.c_str() || !::realpath(p.c_str(), resolved))
        return false;
    strip_root(resolved);
    return true;
}

int mkdir(const char *path, mode_t mode) noexcept
{
    HostPath p(path);
    return p.c_str() ? ::mkdir(p.c_str(), mode) : -1;
}

int unlink(const char *path) noexcept
{
    HostPath p(path);
    return p.c_str() ? ::unlink(p.c_str()) : -1;
}

int rmdir(const char *path) noexcept
{
    HostPath p(path);
    return p.c_str() ? ::rmdir(p.c_str()) : -1;
}

UniqueFD openat(int dirfd, const char *name, int flags, mode_t mode) noexcept
{
    if (hooks().before_openat)
        hooks().before_openat(dirfd, name);
    HostPath p(name); // only an absolute name is rooted
    if (!p.c_str())
        return UniqueFD();
    return UniqueFD(::openat(dirfd, p.c_str(), flags | O_CLOEXEC, mode));
}

int unlinkat(int dirfd, const char *name, int flags) noexcept
{
    HostPath p(name);
    return p.c_str() ? ::unlinkat(dirfd, p.c_str(), flags) : -1;
}

UniqueDir fdopendir(UniqueFD dir) noexcept
{
    if (!dir)
        return nullptr;
    DIR *stream = ::fdopendir(dir.get());
    if (stream)
        dir.release();
    return UniqueDir(stream);
}

bool mkdtemp(char *tmpl) noexcept
{
    HostPath p(tmpl);
    if (!p.c_str())
        return false;
    char host[PATH_MAX];
    std::strcpy(host, p.c_str());
    if (!::mkdtemp(host))
        return false;
    strip_root(host);
    std::strcpy(tmpl, host);
    return true;
}

UniqueFD mkstemp(char *tmpl) noexcept
{
    HostPath p(tmpl);
    if (!p.c_str())
        return UniqueFD();
    char host[PATH_MAX];
    std::strcpy(host, p.c_str());
    UniqueFD fd(::mkostemp(host, O_CLOEXEC));
    if (fd) {
        strip_root(host);
        std::strcpy(tmpl, host);
    }
    return fd;
}

std::string host_path(std::string_view path)
{
    if (rooted() && !path.empty() && path.front() == '/')
        return hooks().root + std::string(path);
    return std::string(path);
}

std::string shell_quote(std::string_view text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

UniqueFD open_input(const char *path, InputKind kind) noexcept
{
    UniqueFD fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!fd)
        return fd;
    struct stat st;
    if (::fstat(fd.get(), &st) != 0)
        return UniqueFD();
    bool ok = S_ISREG(st.st_mode) || (kind == InputKind::regular_or_block && S_ISBLK(st.st_mode));
    int flags = ::fcntl(fd.get(), F_GETFL);
    if (!ok || flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        if (!ok)
            errno = EINVAL;
        return UniqueFD();
    }
    return fd;
}

namespace {

// Reads fd into *out. With whole, the file must end within max bytes (EFBIG
// otherwise); without, reading stops after max bytes or after the first byte
// that is one of stop.
bool read_into(int fd, size_t max, std::string_view stop, bool whole, std::string *out) noexcept
{
    try {
        std::string data;
        char buf[65536];
        for (;;) {
            size_t want = whole ? sizeof(buf) : std::min(sizeof(buf), max - data.size());
            if (want == 0)
                break;
            ssize_t n = ::read(fd, buf, want);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return false;
            if (n == 0)
                break;
            std::string_view got(buf, static_cast<size_t>(n));
            size_t end = got.find_first_of(stop);
            if (end != std::string_view::npos) {
                data.append(got.substr(0, end + 1));
                break;
            }
            if (whole && data.size() + got.size() > max) {
                errno = EFBIG;
                return false;
            }
            data.append(got);
        }
        *out = std::move(data);
        return true;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return false;
    }
}

} // namespace

bool read_bounded(int fd, size_t max, std::string *out) noexcept { return read_into(fd, max, {}, true, out); }

bool write_all(int fd, const void *data, size_t size) noexcept
{
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool read_input(const char *path, size_t max, std::string *out) noexcept
{
    UniqueFD fd = open_input(path);
    return fd && read_bounded(fd.get(), max, out);
}

bool read_input_prefix(const char *path, size_t max, std::string *out, std::string_view stop) noexcept
{
    UniqueFD fd = open_input(path);
    return fd && read_into(fd.get(), max, stop, false, out);
}

UniqueFD create_beside(const char *path, mode_t mode, std::string *temp) noexcept
{
    if (!path || !temp) {
        errno = EINVAL;
        return UniqueFD();
    }
    try {
        static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        unsigned long long seed = static_cast<unsigned long long>(now.tv_nsec) ^
                                  (static_cast<unsigned long long>(::getpid()) << 32) ^
                                  reinterpret_cast<uintptr_t>(temp);
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = std::string(path) + ".";
            for (int i = 0; i < 6; ++i) {
                seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
                name += kLetters[(seed >> 33) % (sizeof kLetters - 1)];
            }
            UniqueFD fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, mode);
            if (fd) {
                *temp = std::move(name);
                return fd;
            }
            if (errno != EEXIST)
                return fd;
        }
        errno = EEXIST;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
    }
    return UniqueFD();
}

int rename(const char *from, const char *to) noexcept
{
    HostPath f(from), t(to);
    return f.c_str() && t.c_str() ? ::rename(f.c_str(), t.c_str()) : -1;
}

std::string path_arg(std::string_view path) { return shell_quote(host_path(path)); }

namespace {

long long now_ms() noexcept
{
    struct timespec ts = {0, 0};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int helper_time_limit_ms() noexcept
{
    int ms = hooks().helper_time_limit_ms;
    return ms > 0 ? ms : kHelperTimeLimitSeconds * 1000;
}

// The exported call running on this thread: how deeply guarded() calls are
// nested, and the deadline its first helper set (0: no helper yet).
thread_local int call_depth = 0;
thread_local long long call_deadline = 0;

// The moment by which a helper starting now must have ended.
long long helper_deadline() noexcept
{
    if (call_depth == 0)
        return now_ms() + helper_time_limit_ms();
    if (call_deadline == 0)
        call_deadline = now_ms() + helper_time_limit_ms();
    return call_deadline;
}

// How long the supervisor waits for killed processes to go.
constexpr long long kKillGraceMs = 2000;

struct RunRequest {
    const char *program;        // path to execve()
    char *const *argv;
    char *const *envp;
    bool report_exec_failure;   // "execve: reason" on the caller's stderr
};

struct RunResult {
    bool started = false;
    bool timed_out = false;
    int status = -1;
    std::string out;
};

// What the supervisor tells the library when everything it started is gone.
struct Report {
    int started;   // 0: the helper could not be started (err says why)
    int timed_out;
    int status;    // the helper's wait status
    int err;
};

// Moves fd above the standard descriptors (a caller may have closed them, and
// pipe2() or open() then hands them out), keeping it close-on-exec.
UniqueFD above_stdio(int fd) noexcept
{
    UniqueFD owned(fd);
    if (!owned || fd > STDERR_FILENO)
        return owned;
    return UniqueFD(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool make_pipe(UniqueFD *read_end, UniqueFD *write_end) noexcept
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    UniqueFD r(fds[0]), w(fds[1]); // both owned before either is moved
    *read_end = above_stdio(r.release());
    *write_end = above_stdio(w.release());
    return *read_end && *write_end;
}

// A fork()-like clone of the calling thread. With exit_signal 0 the child is
// invisible to the caller's SIGCHLD handler and to waitpid(-1) without __WALL,
// and never reaped automatically, so it stays the library's until reaped.
pid_t clone_process(int exit_signal) noexcept
{
    return static_cast<pid_t>(::syscall(SYS_clone, static_cast<unsigned long>(exit_signal), nullptr, nullptr,
                                        nullptr, nullptr));
}

// ---- the helper and its supervisor: after clone, plain system calls only ----

long long left_ms(long long until) noexcept { return until - now_ms(); }

// Waits for a SIGCHLD (blocked in the supervisor) until the given moment.
bool wait_sigchld(long long until) noexcept
{
    long long left = left_ms(until);
    if (left <= 0)
        return false;
    sigset_t chld;
    ::sigemptyset(&chld);
    ::sigaddset(&chld, SIGCHLD);
    struct timespec ts = {static_cast<time_t>(left / 1000), static_cast<long>(left % 1000) * 1000000L};
    ::sigtimedwait(&chld, nullptr, &ts);
    return true;
}

bool has_ended(pid_t pid) noexcept
{
    siginfo_t info;
    std::memset(&info, 0, sizeof(info));
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno != EINTR;
    return info.si_pid == pid;
}

// Kills every living child of the supervisor (descendants of the helper that
// left its group and were adopted when their parents died), with the group
// each of them leads. They are unreaped children, so no number is stale.
bool kill_children() noexcept
{
    int fd = ::open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buf[4096];
    ssize_t n = ::read(fd, buf, sizeof(buf) - 1);
    ::close(fd);
    if (n <= 0)
        return false;
    buf[n] = '\0';
    bool any = false;
    for (const char *p = buf; *p;) {
        pid_t pid = 0;
        while (*p >= '0' && *p <= '9')
            pid = pid * 10 + (*p++ - '0');
        while (*p && (*p < '0' || *p > '9'))
            ++p;
        if (pid > 0) {
            ::kill(-pid, SIGKILL);
            ::kill(pid, SIGKILL);
            any = true;
        }
    }
    return any;
}

// Ends and reaps whatever the helper left behind, until nothing is left or
// the moment passes.
void sweep(long long until) noexcept
{
    for (;;) {
        int status;
        pid_t r;
        while ((r = ::waitpid(-1, &status, WNOHANG | __WALL)) > 0) {
        }
        if (r < 0 || !kill_children() || !wait_sigchld(until))
            return;
    }
}

[[noreturn]] void exec_helper(const RunRequest &req, int null_fd, int out_fd) noexcept
{
    ::setpgid(0, 0);
    int saved_err = req.report_exec_failure ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3) : -1;
    // Every source is above 2, so each dup2() makes a fresh, inheritable copy.
    ::dup2(null_fd, STDIN_FILENO);
    ::dup2(out_fd, STDOUT_FILENO);
    ::dup2(null_fd, STDERR_FILENO);
    // Default signal handling and an empty mask, whatever the caller set up.
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig)
        ::sigaction(sig, &dfl, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(req.program, req.argv, req.envp);
    if (saved_err >= 0) {
        const char *reason = ::strerrordesc_np(errno);
        (void)!::write(saved_err, "execve: ", 8);
        if (reason)
            (void)!::write(saved_err, reason, std::strlen(reason));
        (void)!::write(saved_err, "\n", 1);
    }
    ::_exit(127);
}

// The supervisor: a child of the library (never of the caller's SIGCHLD
// handling) that starts the helper, waits for it until the deadline, ends its
// group and everything it adopted, and reports through report_fd. It drops its
// copy of the output's read end (out_read_fd), so that the library closing its
// own ends a helper that goes on writing instead of leaving it blocked.
[[noreturn]] void supervise(const RunRequest &req, long long deadline, int null_fd, int out_fd, int out_read_fd,
                            int report_fd) noexcept
{
    ::close(out_read_fd);
    // Signals stay blocked here (the caller's handlers must not run in this
    // copy); SIGCHLD must not be ignored, or the helper's status would be lost.
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &dfl, nullptr);
    // Orphans of the helper's descendants come here instead of to init.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);

    Report report = {0, 0, -1, 0};
    // This process is itself a copy of the caller: the helper borrows its
    // memory until execve() instead of copying it again.
    pid_t pid = ::vfork();
    if (pid == 0)
        exec_helper(req, null_fd, out_fd);
    if (pid < 0) {
        report.err = errno;
    } else {
        report.started = 1;
        ::setpgid(pid, pid); // also here, so the group exists whichever runs first
        ::close(out_fd);
        while (!has_ended(pid)) {
            if (!wait_sigchld(deadline)) {
                report.timed_out = 1;
                break;
            }
        }
        // The helper is a zombie or still ours: its group number cannot be stale.
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
        const long long until = std::max(deadline, now_ms()) + kKillGraceMs;
        while (!has_ended(pid) && wait_sigchld(until)) {
        }
        if (::waitpid(pid, &report.status, WNOHANG) != pid)
            report.timed_out = 1; // stuck in the kernel: left to init
        sweep(until);
    }
    (void)!::write(report_fd, &report, sizeof(report));
    ::_exit(0);
}

// Reads what is available on fd without waiting. False at end of file or on error.
bool drain(int fd, std::string &out) noexcept
{
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK;
        if (n == 0)
            return false;
        size_t room = kHelperOutputMax - out.size();
        try {
            out.append(buf, std::min(room, static_cast<size_t>(n)));
        } catch (const std::bad_alloc &) {
            room = 0;
        }
        if (static_cast<size_t>(n) > room)
            return false; // enough: closing the pipe ends a helper that goes on writing
    }
}

// Runs the helper under a supervisor (see supervise()) and collects its
// output until the supervisor reports.
RunResult run(const RunRequest &req, const char **failed_step) noexcept
{
    RunResult result;
    const long long deadline = helper_deadline();
    if (now_ms() >= deadline) {
        // The call has used its time: this helper fails as a late one would.
        result.started = true;
        result.timed_out = true;
        errno = ETIME;
        return result;
    }
    UniqueFD null_fd = above_stdio(::open("/dev/null", O_RDWR | O_CLOEXEC));
    UniqueFD out_r, out_w, report_r, report_w;
    if (!null_fd || !make_pipe(&out_r, &out_w) || !make_pipe(&report_r, &report_w) ||
        ::fcntl(report_r.get(), F_SETFL, O_NONBLOCK) != 0 ||
        (out_r && ::fcntl(out_r.get(), F_SETFL, O_NONBLOCK) != 0)) {
        if (failed_step)
            *failed_step = "pipe";
        return result;
    }
    try {
        result.out.reserve(4096);
    } catch (...) {
        errno = ENOMEM;
        return result;
    }
    sigset_t all, saved;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &saved);
    pid_t supervisor = clone_process(0);
    if (supervisor < 0 && errno == EINVAL)
        supervisor = clone_process(SIGCHLD); // emulators refuse a silent child
    if (supervisor == 0)
        supervise(req, deadline, null_fd.get(), out_w.get(), out_r.get(), report_w.get());
    int clone_errno = errno;
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (supervisor < 0) {
        if (failed_step)
            *failed_step = "fork";
        errno = clone_errno;
        return result;
    }
    out_w.reset();
    report_w.reset();
    null_fd.reset();

    // The supervisor bounds every wait of its own, so this ends.
    Report report = {0, 0, -1, 0};
    bool reported = false;
    while (report_r) {
        struct pollfd p[2] = {{report_r.get(), POLLIN, 0}, {out_r ? out_r.get() : -1, POLLIN, 0}};
        if (::poll(p, 2, -1) < 0 && errno != EINTR)
            break;
        if (p[1].revents && !drain(out_r.get(), result.out))
            out_r.reset();
        if (p[0].revents) {
            ssize_t n = ::read(report_r.get(), &report, sizeof(report));
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            reported = n == static_cast<ssize_t>(sizeof(report));
            report_r.reset();
        }
    }
    // Everything the helper's processes wrote is in the pipe now; nothing
    // still holding it open is waited for.
    if (out_r)
        drain(out_r.get(), result.out);
    while (::waitpid(supervisor, nullptr, __WALL) < 0 && errno == EINTR) {
    }
    result.started = !reported || report.started;
    if (!reported) {
        errno = ECHILD;
    } else if (!report.started) {
        if (failed_step)
            *failed_step = "fork";
        errno = report.err;
    } else if (report.timed_out) {
        result.timed_out = true;
        errno = ETIME;
    } else {
        result.status = report.status;
    }
    return result;
}

RunResult run_shell(const std::string &command) noexcept
{
    try {
        std::string line = command;
        if (!line.empty() && line.front() == '/')
            line = host_path(line);
        char sh[] = "sh", dash_c[] = "-c";
        char *const argv[] = {sh, dash_c, line.data(), nullptr};
        return run({"/bin/sh", argv, environ, false}, nullptr);
    } catch (...) {
        errno = ENOMEM;
        return RunResult{};
    }
}

} // namespace

Pipe run_shell_command(const std::string &command) noexcept
{
    RunResult r = run_shell(command);
    if (!r.started || r.timed_out || r.status == -1)
        return Pipe();
    return Pipe(std::move(r.out), r.status);
}


Child spawn(const char *const argv[], const char **failed_step) noexcept
{
    Child child;
    HostPath program(argv[0]);
    if (!program.c_str()) {
        if (failed_step)
            *failed_step = "pipe";
        return child;
    }
    char *const empty_env[] = {nullptr};
    RunResult r = run({program.c_str(), const_cast<char *const *>(argv), empty_env, true}, failed_step);
    child.started = r.started;
    // A helper past the deadline, or one whose end went unseen, failed:
    // no status, and nothing it said counts.
    if (r.started && !r.timed_out && r.status != -1) {
        child.status = r.status;
        child.out = std::move(r.out);
    }
    return child;
}

void enter_call() noexcept
{
    if (call_depth++ == 0)
        call_deadline = 0;
}

void leave_call() noexcept { --call_depth; }

UniqueFD socket(int domain, int type, int protocol) noexcept
{
    return UniqueFD(::socket(domain, type | SOCK_CLOEXEC, protocol));
}

int ioctl(int fd, unsigned long request, void *arg) noexcept
{
    if (hooks().ioctl)
        return hooks().ioctl(fd, request, arg);
    return ::ioctl(fd, request, arg);
}

int getifaddrs(UniqueIfAddrs *list) noexcept
{
    struct ifaddrs *head = nullptr;
    int r = hooks().getifaddrs ? hooks().getifaddrs(&head) : ::getifaddrs(&head);
    if (r != 0)
        return -1;
    list->reset(head);
    return 0;
}

int probe_is_whole_disk(const char *path) noexcept
{
    if (!path)
        return 0;
    if (hooks().whole_disk)
        return hooks().whole_disk(path);
    HostPath p(path);
    if (!p.c_str())
        return 0;
    blkid_probe probe = blkid_new_probe_from_filename(p.c_str());
    if (!probe)
        return 0;
    int whole = blkid_probe_is_wholedisk(probe);
    blkid_free_probe(probe);
    return whole;
}

std::optional<std::array<std::string, 3>> optical_drive_hwinfo()
{
    if (hooks().optical_drive)
        return hooks().optical_drive();
    if (rooted())
        return std::nullopt;
    // DRIVER_DEVICE selects the default local drive in this libcdio.
    CdIo_t *cdio = cdio_open(nullptr, DRIVER_DEVICE);
    if (!cdio)
        return std::nullopt;
    cdio_hwinfo_t info{};
    bool ok = cdio_get_hwinfo(cdio, &info);
    cdio_destroy(cdio);
    if (!ok)
        return std::nullopt;
    return std::array<std::string, 3>{info.psz_vendor, info.psz_model, info.psz_revision};
}

} // namespace tq::os

namespace tq::os::testing {

void set_root(std::string root)
{
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    hooks().root = std::move(root);
}
const std::string &root() { return hooks().root; }
void set_block_devices(std::function<bool(const char *)> is_block) { hooks().is_block = std::move(is_block); }
void set_before_openat(std::function<void(int, const char *)> hook) { hooks().before_openat = std::move(hook); }
void set_ioctl(std::function<int(int, unsigned long, void *)> fake) { hooks().ioctl = std::move(fake); }
void set_getifaddrs(std::function<int(struct ifaddrs **)> fake, std::function<void(struct ifaddrs *)> free_fake)
{
    hooks().getifaddrs = std::move(fake);
    hooks().freeifaddrs = std::move(free_fake);
}
void set_whole_disk(std::function<int(const char *)> fake) { hooks().whole_disk = std::move(fake); }
void set_optical_drive(std::function<std::optional<std::array<std::string, 3>>()> fake)
{
    hooks().optical_drive = std::move(fake);
}
void set_helper_time_limit_ms(int ms) { hooks().helper_time_limit_ms = ms; }
void reset() { hooks() = Hooks{}; }

} // namespace tq::os::testing
