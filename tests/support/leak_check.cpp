// SPDX-License-Identifier: LGPL-2.1-or-later
#include "leak_check.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace tqtest {

namespace {

// The descriptors this process has open (tests never reach this many).
std::set<int> open_fds()
{
    std::set<int> fds;
    for (int fd = 0; fd < 4096; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1)
            fds.insert(fd);
    }
    return fds;
}

} // namespace

LeakCheck::LeakCheck(std::vector<std::string> temp_prefixes)
    : prefixes_(std::move(temp_prefixes)), fds_(open_fds()), temps_(temp_entries())
{
}

std::set<std::string> LeakCheck::temp_entries() const
{
    std::set<std::string> found;
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp", ec)) {
        std::string name = entry.path().filename().string();
        for (const std::string &prefix : prefixes_) {
            if (name.rfind(prefix, 0) == 0)
                found.insert(name);
        }
    }
    return found;
}

::testing::AssertionResult LeakCheck::clean() const
{
    std::string problems;
    for (int fd : open_fds()) {
        if (!fds_.count(fd)) {
            char target[256] = {};
            std::string link = "/proc/self/fd/" + std::to_string(fd);
            ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
            problems += "descriptor " + std::to_string(fd) + " left open (" + (n > 0 ? target : "?") + "); ";
        }
    }
    int status;
    pid_t child = ::waitpid(-1, &status, WNOHANG);
    if (child > 0)
        problems += "child " + std::to_string(child) + " was left unreaped; ";
    else if (child == 0)
        problems += "a child process is still running; ";
    for (const std::string &name : temp_entries()) {
        if (!temps_.count(name))
            problems += "/tmp/" + name + " was left behind; ";
    }
    if (problems.empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << problems;
}

} // namespace tqtest
