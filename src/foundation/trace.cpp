// SPDX-License-Identifier: LGPL-2.1-or-later
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "foundation/os.h"
#include "tavro-quenda.h"

namespace {

constexpr char kLogDirectory[] = "/var/log/tavro-quenda/";
constexpr char kLogFile[] = "/var/log/tavro-quenda/libtavro-quenda.log";
constexpr size_t kLineSize = 1024;

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
    if (::geteuid() == 0 && st.st_uid != 0)
        return "Owned by another user";
    return nullptr;
}

// Opens the trace log for one append. The directory may be writable by others:
// never follow a planted link, never block on a planted FIFO, and check the
// opened file itself, not its name. *why receives the reason of a refusal.
tq::UniqueFD open_trace_log(const char **why) noexcept
{
    *why = nullptr;
    tq::UniqueFD fd =
        tq::os::open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0644);
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

extern "C" {

bool quenda_logger_env_init(void) noexcept
{
    // Usually exists already; the open that follows decides. A directory made
    // here gets 0755 whatever the umask: never writable by others. One that
    // exists is left as it is: its owner chose its mode, and the log file is
    // checked on its own when it is opened.
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

int quenda_trace(const char *format, ...) noexcept
{
    if (!quenda_logger_env_init())
        return 0;
    if (!quenda_is_tracing())
        return 0;

    const char *why = nullptr;
    tq::UniqueFD fd = open_trace_log(&why);
    if (!fd) {
        if (why)
            std::fprintf(stderr, "Open log file failed: %s\n", why);
        else
            std::perror("Open log file failed");
        return 0;
    }

    char line[kLineSize];
    std::snprintf(line, sizeof(line), "%s [%d]: ", time_string(), static_cast<int>(::getpid()));
    size_t prefix = strnlen(line, sizeof(line));

    va_list args;
    va_start(args, format);
    int expanded = std::vsnprintf(line + prefix, kLineSize - 1 - prefix, format, args);
    va_end(args);
    if (expanded < 0)
        expanded = 0;

    // n is the length the whole line would have had. A line that does not fit
    // is cut to 1022 bytes plus the zero byte, without a line end.
    size_t n = prefix + static_cast<size_t>(expanded);
    if (n <= kLineSize - 2 && line[n - 1] != '\n')
        line[n++] = '\n';
    if (n > kLineSize - 1)
        n = kLineSize - 1;
    line[n] = '\0';

    if (::write(fd.get(), line, n) < 0)
        std::perror("Write to log file failed");
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
