// SPDX-License-Identifier: LGPL-2.1-or-later
#include "foundation/fileutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
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

void empty_directory(UniqueFD dir, int depth) noexcept
{
    const int fd = dir.get();
    os::UniqueDir stream = os::fdopendir(std::move(dir));
    if (!stream)
        return;
    while (struct dirent *entry = ::readdir(stream.get())) {
        const char *name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        // A folder (or an entry of unreported type) is emptied through its own
        // descriptor; when it is a link or no folder by now, it is unlinked.
        if ((entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) && depth < kRemoveDepthMax) {
            UniqueFD child = os::openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK);
            if (child) {
                empty_directory(std::move(child), depth + 1);
                os::unlinkat(fd, name, AT_REMOVEDIR);
                continue;
            }
        }
        os::unlinkat(fd, name, 0);
    }
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

// Unlike a walk that lists a folder and then reopens each subfolder by its
// path, which a link swapped in between the two leads out of the tree, every
// step here is taken relative to the descriptor of the folder being emptied,
// and a subfolder is only ever opened as a directory that is not a link
// (O_DIRECTORY | O_NOFOLLOW). A link given as the top (with or without
// trailing slashes) is removed as a link; a link met inside is removed as a
// link; an entry swapped for a link mid-walk is removed as the link it has
// become. Names are never joined into paths, so no path length limit applies;
// in a tree deeper than kRemoveDepthMax levels, the folders down to its deep
// part stay.
void remove_directory(const char *path) noexcept
{
    if (!path)
        return;
    // "link/" would name the link's target: the top is taken without them.
    char top_path[PATH_MAX];
    size_t len = strnlen(path, sizeof(top_path));
    if (len == 0 || len == sizeof(top_path))
        return;
    std::memcpy(top_path, path, len + 1);
    while (len > 1 && top_path[len - 1] == '/')
        top_path[--len] = '\0';

    tq::UniqueFD top = tq::os::open(top_path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK);
    if (!top) {
        struct stat st;
        if (tq::os::lstat(top_path, &st) == 0 && S_ISLNK(st.st_mode))
            tq::os::unlink(top_path);
        return; // missing, or not a directory
    }
    tq::empty_directory(std::move(top), 0);
    tq::os::rmdir(top_path);
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
