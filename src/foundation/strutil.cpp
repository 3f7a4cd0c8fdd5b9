// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tavro-quenda.h"

#include <cstring>

namespace {

// Removes, in place, every byte for which drop() is true.
template <typename Pred>
void remove_if_in_place(char *str, Pred drop) noexcept
{
    char *out = str;
    for (const char *in = str; *in; ++in) {
        if (!drop(static_cast<unsigned char>(*in)))
            *out++ = *in;
    }
    *out = '\0';
}

} // namespace

extern "C" {

void toLowerCase(char *str) noexcept
{
    if (!str)
        return;
    // ASCII only: bytes of UTF-8 sequences must not change with the locale.
    for (unsigned char *p = reinterpret_cast<unsigned char *>(str); *p; ++p) {
        if (*p >= 'A' && *p <= 'Z')
            *p = static_cast<unsigned char>(*p - 'A' + 'a');
    }
}

void removeSpaces(char *str) noexcept
{
    if (str)
        remove_if_in_place(str, [](unsigned char c) { return c == ' ' || c == '\n'; });
}

void removeSpecialChar(char *str) noexcept
{
    if (str)
        remove_if_in_place(str, [](unsigned char c) { return c == ' ' || c == '\n' || c == '(' || c == ')'; });
}

void removeSpacesTabs(char *str) noexcept
{
    remove_if_in_place(str, [](unsigned char c) { return c == ' ' || c == '\t'; });
}

void remove_null_chars(char *buf, size_t len) noexcept
{
    // The tail is deliberately not cleared: callers find the end through a
    // terminator they placed beyond the range.
    size_t i = 0;
    while (i < len) {
        if (buf[i] == '\0') {
            std::memmove(buf + i, buf + i + 1, len - i - 1);
            --len;
        } else {
            ++i;
        }
    }
}

char *find_string(const char *haystack, const char *needle) noexcept
{
    return const_cast<char *>(std::strstr(haystack, needle));
}

} // extern "C"
