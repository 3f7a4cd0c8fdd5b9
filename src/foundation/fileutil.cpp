// SPDX-License-Identifier: LGPL-2.1-or-later
#include "foundation/fileutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "foundation/os.h"
#include "tavro-quenda.h"

namespace tq {

std::optional<std::string> read_fact_line(FILE *stream)
{
    char buf[kFactLineSize] = {};
    if (!std::fgets(buf, sizeof(buf), stream))
        return std::nullopt;
    for (char &c : buf) {
        if (c == '\r' || c == '\n')
            c = '\0';
    }
    buf[sizeof(buf) - 1] = '\0';
    return std::string(buf);
}

std::optional<std::string> read_fact_file(const char *path)
{
    // What fgets() would read: the first line, at most 1023 bytes of it.
    std::string start;
    if (!os::read_input_prefix(path, kFactLineSize - 1, &start, "\n"))
        return std::nullopt;
    return fact_from_start(start);
}

std::optional<std::string> fact_from_start(std::string_view start)
{
    if (start.empty())
        return std::nullopt;
    return std::string(start.substr(0, start.find_first_of(std::string_view("\r\n\0", 3))));
}

std::optional<std::string> read_dmidecode_fact(const std::string &command)
{
    if (os::access(kDmidecodePath, R_OK | X_OK) != 0)
        return std::nullopt;
    os::Pipe pipe = os::run_shell_command(command);
    if (!pipe)
        return std::nullopt;
    return read_fact_line(pipe.get());
}

} // namespace tq

extern "C" {

int file_stat(const char *path, int mask) noexcept
{
    struct stat st;
    if (!path || tq::os::stat(path, &st) != 0)
        return 0;
    return static_cast<int>(st.st_mode) & mask;
}

void remove_directory(const char *path) noexcept
{
    tq::os::UniqueDir dir = tq::os::opendir(path);
    if (!dir)
        return;
    while (struct dirent *entry = ::readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        char child[1024];
        // A longer path is cut and used as it is; removing it then fails harmlessly.
        std::snprintf(child, sizeof(child), "%s/%s", path, entry->d_name);
        // Links (to directories too) are unlinked, never followed.
        if (entry->d_type == DT_DIR)
            remove_directory(child);
        else
            tq::os::unlink(child);
    }
    dir.reset();
    tq::os::rmdir(path);
}

void redirect_stdio(void) noexcept
{
    int null_fd = tq::os::open("/dev/null", O_RDWR).release();
    if (null_fd < 0)
        return;
    struct stat st;
    if (::fstat(null_fd, &st) != 0 || !S_ISCHR(st.st_mode)) {
        ::close(null_fd);
        return;
    }
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fstat(fd, &st) != 0)
            ::dup2(null_fd, fd); // dup2() leaves the copy inheritable
    }
    if (null_fd > 2)
        ::close(null_fd);
    else
        ::fcntl(null_fd, F_SETFD, 0); // it became a standard descriptor: keep it across exec
}

} // extern "C"
