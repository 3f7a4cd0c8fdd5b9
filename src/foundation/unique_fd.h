// SPDX-License-Identifier: LGPL-2.1-or-later
// Move-only owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace tq {

class UniqueFD {
public:
    UniqueFD() noexcept = default;
    explicit UniqueFD(int fd) noexcept : fd_(fd) {}
    UniqueFD(UniqueFD &&other) noexcept : fd_(other.release()) {}
    UniqueFD &operator=(UniqueFD &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFD(const UniqueFD &) = delete;
    UniqueFD &operator=(const UniqueFD &) = delete;
    ~UniqueFD() { reset(); }

    int get() const noexcept { return fd_; }
    bool isValid() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return isValid(); }

    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        int old = std::exchange(fd_, fd);
        if (old >= 0)
            ::close(old);
    }

private:
    int fd_ = -1;
};

} // namespace tq
