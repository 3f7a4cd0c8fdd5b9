// SPDX-License-Identifier: LGPL-2.1-or-later
// Feeds arbitrary bytes to the Kirin 990/9006C/9A0 recogniser of cpuinfo and
// checks its answer against a plain reading of the same lines.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_stream.h"
#include "platform/machine_family.h"

namespace {

// The lines as fgets() with a 1024-byte buffer cuts them, lower-cased, blanks
// and tabs removed, each up to its first zero byte.
bool reference(const std::string &bytes)
{
    size_t pos = 0;
    while (pos < bytes.size()) {
        size_t end = bytes.find('\n', pos);
        end = end == std::string::npos ? bytes.size() : end + 1;
        if (end - pos > 1023)
            end = pos + 1023;
        std::string line;
        for (size_t i = pos; i < end && bytes[i] != '\0'; ++i) {
            char c = bytes[i];
            if (c == ' ' || c == '\t')
                continue;
            line += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
        }
        if (line.compare(0, 8, "hardware") == 0) {
            for (const char *needle : {"kirin990", "kirin9006c", "kirin9a0"}) {
                if (line.find(needle) != std::string::npos)
                    return true;
            }
        }
        pos = end;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    auto found = fuzz::parse_stream(bytes, [](FILE *stream) { return tq::cpuinfo_names_kirin_9x0(stream); });
    if (found && *found != reference(bytes))
        std::abort();
    return 0;
}
