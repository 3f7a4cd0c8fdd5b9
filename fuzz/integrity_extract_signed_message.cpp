// SPDX-License-Identifier: LGPL-2.1-or-later
// Feeds arbitrary text to extract_signed_message with a body buffer exactly as
// long as the text, and checks what it promises: a body cut out of the text
// right before a signature marker, with its length, or -1.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "tavro-quenda.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exactly sized heap copies, so that any read or write beyond them shows.
    std::string bytes(reinterpret_cast<const char *>(data), size);
    const size_t text_len = std::strlen(bytes.c_str());
    std::unique_ptr<char[]> text(new char[text_len + 1]);
    std::memcpy(text.get(), bytes.c_str(), text_len + 1);
    std::unique_ptr<char[]> body(new char[text_len + 1]);

    size_t body_len = SIZE_MAX;
    int32_t result = extract_signed_message(text.get(), body.get(), &body_len);
    const char *signed_marker = std::strstr(text.get(), "-----BEGIN PGP SIGNED MESSAGE-----");
    if (result != 0) {
        if (result != -1 || body_len != SIZE_MAX)
            std::abort();
        return 0;
    }
    if (!signed_marker || body_len != std::strlen(body.get()))
        std::abort();
    // The body is a piece of the text after the marker, and the signature
    // marker follows it at once.
    const char *at = text.get() + (signed_marker - text.get());
    bool found = false;
    for (const char *p = std::strstr(at, body.get()); p && !found; p = std::strstr(p + 1, body.get()))
        found = std::strncmp(p + body_len, "-----BEGIN PGP SIGNATURE-----", 29) == 0;
    if (!found || std::strstr(body.get(), "-----BEGIN PGP SIGNATURE-----"))
        std::abort();
    return 0;
}
