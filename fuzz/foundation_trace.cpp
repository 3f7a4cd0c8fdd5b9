// SPDX-License-Identifier: LGPL-2.1-or-later
// Feeds arbitrary message bytes to the trace line builder and checks what it
// promises: exactly one line, ending in a line feed, at most 1023 bytes, no
// control byte left raw, and the line shows the start of the message byte for
// byte (text without control bytes in its exact wording), cut only where the
// next byte's escape would not fit.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "foundation/trace.h"

namespace {

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// How one byte of a message reads in a line.
std::string shown_as(unsigned char c)
{
    static const char hex[] = "0123456789abcdef";
    if (!is_control(c))
        return std::string(1, static_cast<char>(c));
    if (c == '\n')
        return "\\n";
    if (c == '\r')
        return "\\r";
    if (c == '\t')
        return "\\t";
    return std::string("\\x") + hex[c >> 4] + hex[c & 0xf];
}

} // namespace

// First byte: prefix length (low 6 bits) and whether the text was cut (top
// bit). The rest: the formatted message, zero bytes included.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const size_t prefix = data[0] & 0x3f;
    const bool cut = (data[0] & 0x80) != 0;
    const std::string_view message(reinterpret_cast<const char *>(data + 1), size - 1);

    char line[tq::kTraceLineSize + 1];
    std::memset(line, 'p', prefix);
    line[tq::kTraceLineSize] = '#'; // must stay untouched
    const size_t n = tq::finish_trace_line(line, prefix, message, cut);

    if (n < prefix + 1 || n > tq::kTraceLineSize - 1 || line[n - 1] != '\n' || line[n] != '\0' ||
        line[tq::kTraceLineSize] != '#')
        std::abort();
    for (size_t i = 0; i < prefix; ++i) {
        if (line[i] != 'p')
            std::abort();
    }
    const std::string_view body(line + prefix, n - 1 - prefix);
    for (char c : body) {
        if (is_control(static_cast<unsigned char>(c)))
            std::abort(); // a raw control byte: a second line or a terminal sequence
    }

    // The line shows the start of the message (its own line end aside), each
    // byte whole, and stops early only where the next byte would not fit.
    std::string_view text = message;
    if (!cut && !text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    size_t pos = 0;
    for (char c : text) {
        const std::string want = shown_as(static_cast<unsigned char>(c));
        if (body.substr(pos, want.size()) == want) {
            pos += want.size();
            continue;
        }
        if (pos != body.size() || prefix + pos + want.size() <= tq::kTraceLineSize - 2)
            std::abort(); // not the message, or cut where it still fitted
        break;
    }
    if (pos != body.size())
        std::abort(); // more in the line than the message
    return 0;
}
