// SPDX-License-Identifier: LGPL-2.1-or-later
// String helpers shared inside the library.
#pragma once

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace tq {

// A malloc()ed, NUL-terminated copy for handing across the C boundary;
// null when memory is short.
inline char *dup_c(std::string_view text) noexcept
{
    char *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (!copy)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// A C-boundary copy of an optional answer; null for none.
inline char *dup_optional(const std::optional<std::string> &text) noexcept
{
    return text ? dup_c(*text) : nullptr;
}

namespace os {
// The span of one exported call on this thread (see os.h): every helper
// program the call runs shares one deadline.
void enter_call() noexcept;
void leave_call() noexcept;
} // namespace os

// One exported call; nested guarded() calls belong to the outermost one.
struct CallScope {
    CallScope() noexcept { os::enter_call(); }
    ~CallScope() { os::leave_call(); }
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;
};

// Runs body as one exported call and turns any exception (allocation failure,
// mostly) into the function's failure result, so that nothing is thrown
// across the C ABI.
template <typename Result, typename Body>
Result guarded(Result failure, Body &&body) noexcept
{
    CallScope call;
    try {
        return body();
    } catch (...) {
        return failure;
    }
}

template <typename Body>
void guarded_void(Body &&body) noexcept
{
    CallScope call;
    try {
        body();
    } catch (...) {
    }
}

// Owner for a malloc()ed C string.
struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};

} // namespace tq
