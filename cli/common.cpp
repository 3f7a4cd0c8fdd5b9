// SPDX-License-Identifier: LGPL-2.1-or-later
#include "common.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <getopt.h>

namespace cli {

namespace {

void vmessage(const char *cmd, const char *format, va_list args)
{
    std::fflush(stdout);
    std::fprintf(stderr, "tavro-quenda: %s: ", cmd);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

struct Fd {
    int fd = -1;
    ~Fd()
    {
        if (fd > 2)
            ::close(fd);
    }
};

// Reads fd to its end; errno is kept on failure.
bool read_all(int fd, size_t max, std::string &out, bool &too_big)
{
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        if (out.size() + static_cast<size_t>(n) > max) {
            too_big = true;
            return true;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

} // namespace

bool write_all(int fd, const void *data, size_t size)
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

int fail(int status, const char *cmd, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vmessage(cmd, format, args);
    va_end(args);
    return status;
}

int usage_error(const char *cmd, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vmessage(cmd, format, args);
    va_end(args);
    std::fprintf(stderr, "Try 'tavro-quenda %s --help'.\n", cmd);
    return kUsage;
}

int bad_option(const char *cmd, char **argv, int c)
{
    if (c == ':')
        return usage_error(cmd, "option '%s' requires an argument", argv[optind - 1]);
    if (optopt)
        return usage_error(cmd, "invalid option -- '%c'", optopt);
    return usage_error(cmd, "unrecognized option '%s'", argv[optind - 1]);
}

bool parse_json_mode(const char *arg, Json &mode)
{
    // "-J=short" reaches here as "=short"; users write it like --json=short.
    if (arg && *arg == '=')
        ++arg;
    if (!arg || std::strcmp(arg, "pretty") == 0)
        mode = Json::kPretty;
    else if (std::strcmp(arg, "short") == 0)
        mode = Json::kShort;
    else
        return false;
    return true;
}

void print_json(const cJSON *root, Json mode)
{
    if (mode == Json::kShort) {
        CString text(cJSON_PrintUnformatted(root));
        if (text)
            std::printf("%s\n", text.get());
        return;
    }
    CString text(cJSON_Print(root));
    if (!text)
        return;
    // cJSON indents with tabs and puts one after each colon; strings carry
    // their tabs escaped, so every raw tab is layout.
    std::string out;
    bool line_start = true;
    for (const char *p = text.get(); *p; ++p) {
        if (*p == '\t') {
            out += line_start ? "  " : " ";
            continue;
        }
        line_start = *p == '\n';
        out += *p;
    }
    std::printf("%s\n", out.c_str());
}

int open_named(const char *cmd, const char *path, int &fd, struct stat &st, bool wait_for_writer)
{
    if (!*path)
        return usage_error(cmd, "the file name is empty");
    const char *shown = shown_name(path);
    fd = -1;
    int first = 0;
    if (std::strcmp(path, "-") != 0) {
        // O_NONBLOCK: a device or FIFO that waits in open() does not hang the tool.
        first = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (first < 0)
            return fail(kSystem, cmd, "%s: %s", shown, std::strerror(errno));
        int flags = ::fcntl(first, F_GETFL);
        if (flags >= 0)
            ::fcntl(first, F_SETFL, flags & ~O_NONBLOCK);
    }
    Fd owner{first};
    if (::fstat(first, &st) != 0)
        return fail(kSystem, cmd, "%s: %s", shown, std::strerror(errno));
    if (first > 2 && wait_for_writer && S_ISFIFO(st.st_mode)) {
        // Opened without waiting, a FIFO whose writer has not come yet reads
        // as empty: open it again, waiting for the writer as cat does, while
        // the first descriptor keeps a writer already there from seeing no
        // reader at all.
        Fd second{::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY)};
        if (second.fd < 0 || ::fstat(second.fd, &st) != 0)
            return fail(kSystem, cmd, "%s: %s", shown, std::strerror(errno));
        std::swap(owner.fd, second.fd);
    }
    fd = owner.fd;
    owner.fd = -1;
    return kOk;
}

int read_whole(const char *cmd, const char *path, size_t max, std::string &out)
{
    const char *shown = shown_name(path);
    Fd fd;
    struct stat st {};
    if (int status = open_named(cmd, path, fd.fd, st, true))
        return status;
    if (S_ISDIR(st.st_mode))
        return fail(kSystem, cmd, "%s: %s", shown, std::strerror(EISDIR));
    bool too_big = false;
    out.clear();
    if (!read_all(fd.fd, max, out, too_big))
        return fail(kSystem, cmd, "%s: %s", shown, std::strerror(errno));
    if (too_big)
        return fail(kRejected, cmd, "%s: longer than %zu bytes", shown, max);
    return kOk;
}

InputPath::~InputPath()
{
    if (temporary_)
        ::unlink(path_.c_str());
}

int InputPath::open(const char *cmd, const char *path, size_t max, bool streams)
{
    // The library reports a missing or unreadable file only as a failed
    // result; look first, so the message can say why.
    path_ = shown_ = shown_name(path);
    Fd fd;
    struct stat st {};
    if (int status = open_named(cmd, path, fd.fd, st, streams))
        return status;
    if (S_ISDIR(st.st_mode))
        return fail(kSystem, cmd, "%s: %s", shown_.c_str(), std::strerror(EISDIR));
    const bool is_stdin = std::strcmp(path, "-") == 0;
    const bool stream = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
    if (!is_stdin && !S_ISREG(st.st_mode) && !(streams && stream))
        return fail(kSystem, cmd, "%s: not a regular file", path);
    if (!is_stdin && !stream) {
        if (static_cast<unsigned long long>(st.st_size) > max)
            return fail(kRejected, cmd, "%s: longer than %zu bytes", path, max);
        return kOk;
    }
    // Standard input or a stream is read once, into a private copy the
    // library can open.
    std::string data;
    bool too_big = false;
    if (!read_all(fd.fd, max, data, too_big))
        return fail(kSystem, cmd, "%s: %s", shown_.c_str(), std::strerror(errno));
    if (too_big)
        return fail(kRejected, cmd, "%s: longer than %zu bytes", shown_.c_str(), max);
    const char *dir = std::getenv("TMPDIR");
    std::string templ = std::string(dir && *dir ? dir : "/tmp") + "/tavro-quenda-XXXXXX";
    Fd copy;
    copy.fd = ::mkostemp(templ.data(), O_CLOEXEC);
    if (copy.fd < 0)
        return fail(kSystem, cmd, "%s: %s", templ.c_str(), std::strerror(errno));
    path_ = templ;
    temporary_ = true;
    if (!write_all(copy.fd, data.data(), data.size()))
        return fail(kSystem, cmd, "%s: %s", path_.c_str(), std::strerror(errno));
    return kOk;
}

int help_only(const char *cmd, int argc, char **argv, const char *help)
{
    static const option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        if (c != 'h')
            return bad_option(cmd, argv, c);
        std::fputs(help, stdout);
        return kOk;
    }
    return -1;
}

int check_operands(const char *cmd, int argc, char **argv, int least, int most, const char *missing)
{
    int count = argc - optind;
    if (count < least)
        return usage_error(cmd, "%s", missing);
    if (count > most)
        return usage_error(cmd, "unexpected argument '%s'", argv[optind + most]);
    return kOk;
}

const char *shown_name(const char *path) { return std::strcmp(path, "-") == 0 ? "standard input" : path; }

} // namespace cli
