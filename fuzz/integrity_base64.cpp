// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary text through the strict and lenient Base64 decoders: the strict
// one either refuses with its code or decodes into in_len bytes, and what it
// accepts re-encodes to the same text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tavro-quenda.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The lenient decoder reports every call on stdout.
    if (!std::freopen("/dev/null", "w", stdout))
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    std::string text(bytes.c_str());

    std::vector<unsigned char> out(size + 1);
    uint32_t out_len = 0;
    int rc = base64_decode(text.c_str(), static_cast<uint32_t>(size), out.data(), &out_len);
    if (rc != 0 && (rc < 59 || rc > 63))
        std::abort();
    if (rc == 0) {
        if (out_len > size)
            std::abort();
        if (out_len > 0 && text.size() == size) {
            std::vector<char> again(4 * ((out_len + 2) / 3));
            uint32_t again_len = 0;
            if (base64_encode(out.data(), out_len, again.data(), &again_len) != 0 ||
                again_len > again.size())
                std::abort();
        }
    }

    int32_t clean_len = 0;
    unsigned char *clean = base64_decode_clean(text.c_str(), &clean_len);
    if (clean) {
        if (clean_len <= 0 || static_cast<size_t>(clean_len) > text.size() * 3 / 4 + 4)
            std::abort();
        std::free(clean);
    }
    return 0;
}
