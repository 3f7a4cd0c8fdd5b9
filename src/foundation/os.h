// SPDX-License-Identifier: LGPL-2.1-or-later
// The library's one gateway to the operating system.
//
// Every read of /proc, /sys, /dev, /etc and /var/log, every helper program and
// every kernel call the library makes passes through here, so that tests can
// point the library at a recorded fixture tree and fake the kernel calls
// (see tq::os::testing below). In the shipped library the root is the real
// "/" and the kernel calls are the real ones; nothing outside this process's
// own statically linked test code can change that.
//
// Every descriptor opened here is close-on-exec, because the library starts
// child processes.
#pragma once

#include <dirent.h>
#include <ifaddrs.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <climits>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/unique_fd.h"

namespace tq::os {

struct FileCloser {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR *d) const noexcept { ::closedir(d); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

struct IfAddrsFree {
    void operator()(struct ifaddrs *list) const noexcept;
};
using UniqueIfAddrs = std::unique_ptr<struct ifaddrs, IfAddrsFree>;

// The output of a finished helper program, read as a stream (fgets, fread)
// the way a shell pipe was read. The helper has already been reaped when
// the Pipe exists; close() hands back its wait status.
class Pipe {
public:
    Pipe() noexcept = default;
    // Takes the helper's output and wait status; empty (false) when no stream
    // could be made over the text.
    Pipe(std::string output, int status) noexcept;
    Pipe(Pipe &&other) noexcept;
    Pipe &operator=(Pipe &&other) noexcept;
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() { close(); }

    FILE *get() const noexcept { return f_; }
    explicit operator bool() const noexcept { return f_ != nullptr; }
    // The wait status of the command, or -1.
    int close() noexcept;

    struct Output;

private:
    FILE *f_ = nullptr;
    Output *out_ = nullptr;
};

// A path as the host sees it: the caller's absolute path under the test root,
// built without allocating (the trace path must not allocate). Relative paths
// pass unchanged.
class HostPath {
public:
    explicit HostPath(const char *path) noexcept;
    HostPath(const HostPath &) = delete;
    HostPath &operator=(const HostPath &) = delete;
    // Null when path was null or the mapped path would not fit.
    const char *c_str() const noexcept { return p_; }

private:
    char buf_[PATH_MAX];
    const char *p_ = nullptr;
};

// ---- files and directories -------------------------------------------------
UniqueFD open(const char *path, int flags, mode_t mode = 0) noexcept;  // adds O_CLOEXEC
UniqueFile fopen(const char *path, const char *mode) noexcept;         // adds "e"
UniqueDir opendir(const char *path) noexcept;
int access(const char *path, int mode) noexcept;
int stat(const char *path, struct stat *st) noexcept;
int lstat(const char *path, struct stat *st) noexcept;
// realpath() into resolved (PATH_MAX bytes); the answer reads as on the real system.
bool realpath(const char *path, char *resolved) noexcept;
int mkdir(const char *path, mode_t mode) noexcept;
int unlink(const char *path) noexcept;
int rmdir(const char *path) noexcept;
// openat() (adds O_CLOEXEC) and unlinkat() on a name relative to an open
// directory, for walks that must not leave a tree through a renamed folder.
UniqueFD openat(int dirfd, const char *name, int flags, mode_t mode = 0) noexcept;
int unlinkat(int dirfd, const char *name, int flags) noexcept;
// A directory stream that takes dir over; null (dir closed) on failure.
UniqueDir fdopendir(UniqueFD dir) noexcept;
// mkdtemp()/mkstemp() on a template such as "/tmp/gpgdir-XXXXXX"; the template
// receives the name as the real system would show it.
bool mkdtemp(char *tmpl) noexcept;
UniqueFD mkstemp(char *tmpl) noexcept;
// A path string for libraries that open paths themselves (GLib, libblkid).
std::string host_path(std::string_view path);

// ---- caller-named files ----------------------------------------------------
// A path a caller hands in may name a FIFO, a character device or a huge file.
// open_input() opens it without blocking, insists on a regular file (or, with
// regular_or_block, also a block device: a disk image is worth a digest) and
// then turns blocking back on. Failure: an empty UniqueFD with errno set
// (EINVAL for the wrong kind of file).
enum class InputKind { regular, regular_or_block };
UniqueFD open_input(const char *path, InputKind kind = InputKind::regular) noexcept;
// Reads fd to its end into *out, at most max bytes; more than that is EFBIG.
// /proc files report size 0, so the size is never trusted. On failure *out is
// untouched and errno is set.
bool read_bounded(int fd, size_t max, std::string *out) noexcept;
// Writes all of data to fd, going on after EINTR and short writes; errno on failure.
bool write_all(int fd, const void *data, size_t size) noexcept;
// open_input() then read_bounded().
bool read_input(const char *path, size_t max, std::string *out) noexcept;
// open_input() then reads the start of the file: at most max bytes, and no
// further than the first byte that is one of stop (for readers that look at
// the first line only). On failure *out is untouched and errno is set.
bool read_input_prefix(const char *path, size_t max, std::string *out, std::string_view stop = {}) noexcept;

// ---- replacing caller-named files ------------------------------------------
// A new file beside path, named "<path>.XXXXXX", created exclusively (never
// through a link) with mode less the process's umask and open for writing.
// *temp receives its name, in the same form as path. Failure: an empty
// UniqueFD with errno set.
UniqueFD create_beside(const char *path, mode_t mode, std::string *temp) noexcept;
// rename(); replaces a link at to, never what it points to.
int rename(const char *from, const char *to) noexcept;

// ---- helper programs -------------------------------------------------------
// Single-quotes text for /bin/sh so that no character in it is interpreted.
std::string shell_quote(std::string_view text);
// A path argument for a shell command line: host_path, then shell_quote.
std::string path_arg(std::string_view path);
// Every helper program runs in a process group of its own with standard input
// and standard error on /dev/null (a helper's complaints are its own business,
// not the calling program's), default signal handling and no blocked signals.
//
// Unlike a plain fork() and waitpid(), each helper is started by a supervisor:
// a short-lived child of the library that the caller's SIGCHLD set-up cannot
// touch (it sends the caller no SIGCHLD and waitpid(-1) does not see it). The
// supervisor learns the helper's wait status and hands it back through a
// pipe, so a caller that ignores SIGCHLD or reaps every child in a handler
// still gets right answers, and only processes that are still the
// supervisor's own are ever signalled. When the helper ends, or at the
// deadline, the supervisor kills the helper's whole group (SIGKILL). As the
// subreaper of everything the helper started, it also kills and reaps
// descendants that left the group (setsid()) once their parents are gone, so
// nothing a helper started outlives the call, except a process stuck in the
// kernel that SIGKILL cannot end within two seconds. That needs
// PR_SET_CHILD_SUBREAPER and /proc/thread-self/children; without them (a
// user-mode emulator) only the group is killed, and init reaps it.
//
// Time: one exported call (the span of its outermost tq::guarded) has
// kHelperTimeLimitSeconds for all its helpers together, counted from the
// start of its first helper. A helper still running at the deadline is ended
// and fails as if it could not give an answer; a helper asked for after the
// deadline fails at once without running. Outside an exported call each
// helper has the whole limit.
inline constexpr int kHelperTimeLimitSeconds = 30;
// Output kept from one helper; a helper that prints more is ended there, as a
// reader that stopped reading would have ended it.
inline constexpr size_t kHelperOutputMax = 16 * 1024 * 1024;

// Runs command through /bin/sh -c and collects its standard output; only for
// the exported functions whose argument is a shell command line. A command
// line that starts with an absolute program path runs that program under the
// root; others are found through PATH. Failure (not started, past the
// deadline, or no status learned): an empty Pipe with errno set (ETIME for
// the deadline).
Pipe run_shell_command(const std::string &command) noexcept;

// A finished child started with execve() (no shell, empty environment).
struct Child {
    bool started = false;
    // Its wait status; -1 (never a real status) when the runner failed: past
    // the deadline or no status learned (errno says which, ETIME for the
    // deadline). A result built on -1 says nothing about the file or machine
    // and must not be remembered.
    int status = -1;
    std::string out;   // its standard output (empty when status is -1)
};
// argv[0] is the absolute program path. Not started: started false, errno
// set, and "pipe" or "fork" in *failed_step says which step failed. A program
// that cannot be executed ends with status 127 and "execve: reason" on the
// caller's standard error.
Child spawn(const char *const argv[], const char **failed_step = nullptr) noexcept;

// ---- kernel and device calls -----------------------------------------------
UniqueFD socket(int domain, int type, int protocol) noexcept;
int ioctl(int fd, unsigned long request, void *arg) noexcept;
// getifaddrs(); -1 on failure, else 0 with *list owning the result.
int getifaddrs(UniqueIfAddrs *list) noexcept;
// libblkid's whole-disk test; 1, 0, or 0 when the device cannot be probed.
int probe_is_whole_disk(const char *path) noexcept;
// Vendor, model and revision of the default optical drive (libcdio).
std::optional<std::array<std::string, 3>> optical_drive_hwinfo();

} // namespace tq::os

// Seams for the library's own tests. These symbols are hidden in the shared
// library; only code linked statically with the library objects reaches them.
namespace tq::os::testing {

// Absolute paths resolve below root ("" is the real system).
void set_root(std::string root);
const std::string &root();
// Regular files under the root for which this answers true stat() as block devices.
void set_block_devices(std::function<bool(const char *host_path)> is_block);
// Called at the start of every openat(), e.g. to change a tree between a
// walk's listing of a folder and its descent into it.
void set_before_openat(std::function<void(int dirfd, const char *name)> hook);
void set_ioctl(std::function<int(int fd, unsigned long request, void *arg)> fake);
void set_getifaddrs(std::function<int(struct ifaddrs **)> fake,
                    std::function<void(struct ifaddrs *)> free_fake);
void set_whole_disk(std::function<int(const char *path)> fake);
void set_optical_drive(std::function<std::optional<std::array<std::string, 3>>()> fake);
// The time limit of one call's helpers in milliseconds (0: kHelperTimeLimitSeconds).
void set_helper_time_limit_ms(int ms);
// Back to the real system.
void reset();

} // namespace tq::os::testing
