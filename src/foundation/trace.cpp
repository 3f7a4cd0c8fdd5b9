// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "foundation/trace.h"

#include "foundation/os.h"
#include "tavro-quenda.h"

namespace {

constexpr char kLogDirectory[] = "/var/log/tavro-quenda/";
constexpr char kLogFile[] = "/var/log/tavro-quenda/libtavro-quenda.log";
constexpr size_t kLineSize = tq::kTraceLineSize;

// Set once the trace log's trouble has been reported on standard error.
std::atomic<bool> trouble_reported{false};

// Reports a failure to open or write the trace log: the first one in this
// process only. A program that may not write the log (an unprivileged one)
// would otherwise get one line on standard error for every line it traces.
// why, when not null, replaces the system's reason for errno.
void report_trouble(const char *what, const char *why) noexcept
{
    int saved = errno;
    if (trouble_reported.exchange(true))
        return;
    if (why)
        std::fprintf(stderr, "%s: %s\n", what, why);
    else
        std::fprintf(stderr, "%s: %s\n", what, std::strerror(saved));
}

// Why an opened log is refused, or nullptr when it may be written. Only a
// plain file of its own is written to: not a device or FIFO, not a file that
// is also reachable under another name (a planted hard link to some other
// file), and for root not a file that someone else owns.
const char *refusal(int fd) noexcept
{
    struct stat st;
    if (::fstat(fd, &st) != 0)
        return std::strerror(errno);
    if (!S_ISREG(st.st_mode))
        return "Not a regular file";
    if (st.st_nlink != 1)
        return "Too many links";
    if (st.st_uid != 0 && ::geteuid() == 0) // a root-owned log costs no geteuid()
        return "Owned by another user";
    return nullptr;
}

// Opens the trace log for one append. The directory may be writable by others:
// never follow a planted link, never block on a planted FIFO, and check the
// opened file itself, not its name. *why receives the reason of a refusal.
// The directory is made only when the open finds it missing, then the open is
// tried once more: a line in an existing log costs no mkdir().
tq::UniqueFD open_trace_log(const char **why) noexcept
{
    *why = nullptr;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    tq::UniqueFD fd = tq::os::open(kLogFile, kFlags, 0644);
    if (!fd && errno == ENOENT && quenda_logger_env_init())
        fd = tq::os::open(kLogFile, kFlags, 0644);
    if (!fd)
        return fd;
    if ((*why = refusal(fd.get())) != nullptr)
        return tq::UniqueFD();
    return fd;
}

// The same rules for a log file that a caller names, links followed (the
// caller chose the name). Failure: an empty descriptor.
tq::UniqueFD open_caller_log(const char *path) noexcept
{
    tq::UniqueFD fd = tq::os::open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY, 0640);
    if (!fd || refusal(fd.get()))
        return tq::UniqueFD();
    return fd;
}

} // namespace

namespace tq {

size_t finish_trace_line(char *line, size_t prefix, std::string_view message, bool cut) noexcept
{
    static constexpr char kHex[] = "0123456789abcdef";
    constexpr size_t kBeforeLineEnd = kTraceLineSize - 2;
    size_t n = std::min(prefix, kBeforeLineEnd);
    if (!cut && !message.empty() && message.back() == '\n')
        message.remove_suffix(1); // the caller's own line end
    for (char ch : message) {
        unsigned char c = static_cast<unsigned char>(ch);
        char escape[4] = {'\\', 0, 0, 0};
        size_t len = 2;
        if (c >= 0x20 && c != 0x7f) {
            escape[0] = ch;
            len = 1;
        } else if (c == '\n') {
            escape[1] = 'n';
        } else if (c == '\r') {
            escape[1] = 'r';
        } else if (c == '\t') {
            escape[1] = 't';
        } else {
            escape[1] = 'x';
            escape[2] = kHex[c >> 4];
            escape[3] = kHex[c & 0xf];
            len = 4;
        }
        if (n + len > kBeforeLineEnd)
            break;
        std::memcpy(line + n, escape, len);
        n += len;
    }
    line[n++] = '\n';
    line[n] = '\0';
    return n;
}

} // namespace tq

namespace tq::os::testing {

void rearm_trace_log_report() { trouble_reported = false; }

} // namespace tq::os::testing

extern "C" {

bool quenda_logger_env_init(void) noexcept
{
    // Called by quenda_trace() when the log's directory is missing; the open
    // that follows decides. A directory made here gets 0755 whatever the
    // umask: never writable by others. One that exists is left as it is: its
    // owner chose its mode, and the log file is checked on its own when it is
    // opened.
    if (tq::os::mkdir(kLogDirectory, 0700) == 0) {
        tq::UniqueFD dir = tq::os::open(kLogDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (dir)
            ::fchmod(dir.get(), 0755);
    }
    return true;
}

bool quenda_is_tracing(void) noexcept { return true; }

char *time_string(void) noexcept
{
    // Per thread, so that concurrent tracers never read a half-written stamp.
    thread_local char seconds[20];
    thread_local char minute[49];
    thread_local char result[70];

    time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    // A second, unreconciled clock reading: at a minute boundary the stamp may
    // pair the old minute with the new seconds.
    struct timespec ts = {0, 0};
    clock_gettime(CLOCK_REALTIME, &ts);

    std::snprintf(seconds, sizeof(seconds), "%02d.%03d", static_cast<int>(ts.tv_sec % 60),
                  static_cast<int>(ts.tv_nsec / 1000000));
    std::strftime(minute, sizeof(minute), "%Y-%m-%d %H:%M", &local);
    std::snprintf(result, sizeof(result), "%s:%s", minute, seconds);
    return result;
}

// Three things here depart on purpose from the simplest way to trace:
// - The directory is not made before every line but only when the open finds
//   it missing (quenda_logger_env_init(), then one more open): a line in an
//   existing log costs one system call less.
// - The message is not copied as it is: its control bytes are escaped and a
//   cut line keeps its line end (tq::finish_trace_line()), so that no text a
//   caller passes on can forge a line or hide the next one.
// - Standard error hears of a log that cannot be opened or written once per
//   process, not for every line an unprivileged program traces.
int quenda_trace(const char *format, ...) noexcept
{
    if (!quenda_is_tracing())
        return 0;

    const char *why = nullptr;
    tq::UniqueFD fd = open_trace_log(&why);
    if (!fd) {
        report_trouble("Open log file failed", why);
        return 0;
    }

    char line[kLineSize];
    std::snprintf(line, sizeof(line), "%s [%d]: ", time_string(), static_cast<int>(::getpid()));
    size_t prefix = strnlen(line, sizeof(line));

    // Room for more text than a line can hold, so that a cut is always seen.
    char text[kLineSize];
    va_list args;
    va_start(args, format);
    int expanded = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    size_t full = expanded < 0 ? 0 : static_cast<size_t>(expanded);
    size_t stored = std::min(full, sizeof(text) - 1);
    size_t n = tq::finish_trace_line(line, prefix, std::string_view(text, stored), full > stored);

    if (::write(fd.get(), line, n) < 0)
        report_trouble("Write to log file failed", nullptr);
    return 1;
}

void log_write(const char *path, const char *message, const char *tag, int enabled) noexcept
{
    if (!enabled)
        return;
    tq::UniqueFD fd = open_caller_log(path);
    if (!fd)
        return;

    char line[kLineSize] = {};
    char stamp[kLineSize] = {};
    time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    char *copy = strdup(stamp);

    const char *tag_text = tag ? tag : "(null)";
    const char *message_text = message ? message : "(null)";
    if (copy && *copy) {
        if (char *end = std::strchr(copy, '\n'))
            *end = '\0';
        std::snprintf(line, sizeof(line), "(%s) Time: %s\t\tMessage: %s\n", tag_text, copy, message_text);
    } else {
        std::snprintf(line, sizeof(line), "(%s) %s\n", tag_text, message_text);
    }
    ssize_t ignored = ::write(fd.get(), line, std::strlen(line));
    (void)ignored;
    std::free(copy);
}

} // extern "C"
