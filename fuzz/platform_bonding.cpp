// SPDX-License-Identifier: LGPL-2.1-or-later
// Feeds arbitrary bytes to the bonding status file parser and checks what a
// slave record promises: a short, blank-free name and one lower-case address
// in both address fields.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_stream.h"
#include "platform/network_mac.h"

namespace {

bool blank_free(const std::string &s)
{
    for (char c : s) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f')
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    auto parsed = fuzz::parse_stream(bytes, [](FILE *stream) { return tq::parse_bonding_slaves(stream); });
    if (!parsed)
        return 0;
    const tq::InterfaceMacList &slaves = *parsed;

    for (const tq::InterfaceMacRecord &r : slaves) {
        if (r.name.empty() || r.name.size() > 127 || !blank_free(r.name))
            std::abort();
        if (r.permanent_mac.empty() || r.permanent_mac.size() > 127 || !blank_free(r.permanent_mac))
            std::abort();
        if (r.mac != r.permanent_mac)
            std::abort();
        for (char c : r.permanent_mac) {
            if (c >= 'A' && c <= 'Z')
                std::abort();
        }
    }
    // Every record needs its own "Slave Interface:" line (sscanf lets the
    // blanks between the words vary).
    size_t lines = 0;
    for (size_t at = bytes.find("Interface:"); at != std::string::npos; at = bytes.find("Interface:", at + 1))
        ++lines;
    if (slaves.size() > lines)
        std::abort();
    return 0;
}
