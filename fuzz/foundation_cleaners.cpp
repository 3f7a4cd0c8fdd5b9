// SPDX-License-Identifier: LGPL-2.1-or-later
// Feeds arbitrary bytes to the in-place string cleaners and find_string, and
// checks what each promises: nothing grows, removed bytes are gone, order kept.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavro-quenda.h"

namespace {

void check_removed(const std::string &before, const char *after, const char *removed)
{
    std::string expected;
    for (char c : before) {
        if (!std::strchr(removed, c) || c == '\0')
            expected += c;
    }
    if (expected != after)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    std::string text(bytes.c_str()); // up to the first zero byte

    std::string work = text;
    removeSpaces(work.data());
    check_removed(text, work.c_str(), " \n");

    work = text;
    removeSpecialChar(work.data());
    check_removed(text, work.c_str(), " \n()");

    work = text;
    removeSpacesTabs(work.data());
    check_removed(text, work.c_str(), " \t");

    work = text;
    toLowerCase(work.data());
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        unsigned char want = (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 32) : c;
        if (static_cast<unsigned char>(work[i]) != want)
            std::abort();
    }

    // remove_null_chars over the raw bytes, with a terminator beyond the range.
    std::string raw = bytes;
    raw.push_back('\0');
    remove_null_chars(raw.data(), bytes.size());
    std::string kept;
    for (char c : bytes) {
        if (c != '\0')
            kept += c;
    }
    if (raw.compare(0, kept.size(), kept) != 0)
        std::abort();

    // find_string: the haystack is the text after the first zero byte.
    size_t split = text.size() < bytes.size() ? text.size() + 1 : bytes.size();
    std::string haystack(bytes.c_str() + split);
    const char *hit = find_string(haystack.c_str(), text.c_str());
    const char *want = std::strstr(haystack.c_str(), text.c_str());
    if (hit != want)
        std::abort();
    return 0;
}
