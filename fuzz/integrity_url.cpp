// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary text through both URL transforms, each writing into a buffer of
// exactly the size it is allowed to need; accepted Base64-alphabet text comes
// back unchanged from the round trip.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "tavro-quenda.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > 4096)
        return 0;
    std::string bytes(reinterpret_cast<const char *>(data), size);
    int32_t len = static_cast<int32_t>(size);

    std::unique_ptr<char[]> url(new char[3 * size + 1]);
    uint32_t url_len = 0;
    int rc = transform_to_url(bytes.c_str(), len, url.get(), &url_len);
    if (rc != 0 && rc != 64)
        std::abort();
    if (rc == 0 && (url_len > 3 * size || url[url_len] != '\0'))
        std::abort();

    std::unique_ptr<char[]> plain(new char[size + 1]);
    uint32_t plain_len = 0;
    int back = transform_from_url(bytes.c_str(), len, plain.get(), &plain_len);
    if (back != 0 && back != 64 && back != 66)
        std::abort();
    if (back == 0 && (plain_len > size || plain[plain_len] != '\0'))
        std::abort();

    if (rc == 0 && url_len > 0 && std::strchr(bytes.c_str(), '%') == nullptr) {
        std::unique_ptr<char[]> round(new char[url_len + 1]);
        uint32_t round_len = 0;
        if (transform_from_url(url.get(), static_cast<int32_t>(url_len), round.get(), &round_len) != 0 ||
            std::strcmp(round.get(), bytes.c_str()) != 0)
            std::abort();
    }
    return 0;
}
