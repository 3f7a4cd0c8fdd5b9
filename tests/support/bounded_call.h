// SPDX-License-Identifier: LGPL-2.1-or-later
// Runs one library call in a child process with a time limit, and tells how
// far the call raised the child's peak memory: a call that hangs or floods
// memory fails the test instead of stopping the suite.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "foundation/unique_fd.h"

namespace tqtest {

struct BoundedCall {
    std::string answer; // what call returned; "<hung>" when it did not end in time
    long grown_kib = 0; // rise of the peak resident size during the call
};

// The child dies of SIGALRM when the call outlives the time limit; its output
// then never ends in the peak-memory line.
inline BoundedCall bounded_call(const std::function<std::string()> &call, int timeout_seconds = 10)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return {"<no pipe>"};
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        ::alarm(static_cast<unsigned>(timeout_seconds));
        struct rusage before {}, after {};
        ::getrusage(RUSAGE_SELF, &before);
        std::string answer = call();
        ::getrusage(RUSAGE_SELF, &after);
        answer += "\n" + std::to_string(after.ru_maxrss - before.ru_maxrss);
        (void)!::write(fds[1], answer.data(), answer.size());
        ::_exit(0);
    }
    ::close(fds[1]);
    std::unique_ptr<FILE, int (*)(FILE *)> in(::fdopen(fds[0], "r"), ::fclose);
    std::string out;
    char buf[4096];
    for (size_t n; in && (n = std::fread(buf, 1, sizeof buf, in.get())) > 0;)
        out.append(buf, n);
    int status = 0;
    while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const size_t nl = out.rfind('\n');
    if (pid < 0 || !WIFEXITED(status) || nl == std::string::npos)
        return {"<hung>"};
    return {out.substr(0, nl), std::stol(out.substr(nl + 1))};
}

// A FIFO and a character device that never ends, made at fixture paths
// (host paths given), for calls that must refuse both at once.
[[nodiscard]] inline bool make_fifo_and_zero(const std::string &fifo_host, const std::string &zero_host)
{
    return ::mkfifo(fifo_host.c_str(), 0644) == 0 && ::symlink("/dev/zero", zero_host.c_str()) == 0;
}

// A sparse file of size bytes at a host path: huge, yet free to make.
inline bool make_sparse(const std::string &host, off_t size)
{
    tq::UniqueFD fd(::open(host.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd && ::ftruncate(fd.get(), size) == 0;
}

// Four times what a call may add to its peak memory: large enough to show a
// copy of the whole file, small enough for a helper to read through quickly.
inline constexpr off_t kHugeFile = off_t{256} << 20;
// What a call may add to its peak memory, whatever its input.
inline constexpr long kMemoryGrowthLimitKib = 64 * 1024;

// Whether a call stayed within that. Under AddressSanitizer every allocation
// is padded and freed memory is held back, so peak memory says nothing about
// the code there: the bound is checked in plain builds only.
inline ::testing::AssertionResult within_memory_bound(long grown_kib)
{
#if defined(__SANITIZE_ADDRESS__)
    grown_kib = 0;
#endif
    if (grown_kib < kMemoryGrowthLimitKib)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "peak memory grew by " << grown_kib << " KiB";
}

} // namespace tqtest
