// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary files as signed data files: get_custom_info reads the file and
// either refuses it or hands back a body from its first 4095 bytes, with its
// length; and the one-message rule of the command-line verifiers accepts only
// a text with exactly one of each marker, each alone on its line.
//
// The file is a memory file reached through /proc/self/fd, so no input
// touches a disk.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "integrity/gnupg.h"
#include "tavro-quenda.h"

namespace {

int file = -1;
std::string path;

size_t count(std::string_view text, std::string_view what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    file = ::memfd_create("signed", MFD_CLOEXEC);
    if (file < 0)
        std::abort();
    path = "/proc/self/fd/" + std::to_string(file);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (::ftruncate(file, 0) != 0 || (size && ::pwrite(file, data, size, 0) != static_cast<ssize_t>(size)))
        std::abort();
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);

    size_t len = SIZE_MAX;
    char *body = get_custom_info(path.c_str(), &len);
    if (body) {
        // The body lies inside the first 4095 bytes and ends at a signature marker.
        const std::string_view head = bytes.substr(0, 4095);
        if (len != std::strlen(body) || len >= 4095 ||
            head.find(std::string(body) + "-----BEGIN PGP SIGNATURE-----") == std::string_view::npos)
            std::abort();
        std::free(body);
    } else if (len != SIZE_MAX) {
        std::abort();
    }

    if (tq::single_clear_signed_message(bytes)) {
        const std::string_view first = bytes.substr(bytes.find_first_not_of(" \t\r\n"));
        if (count(bytes, "-----BEGIN PGP SIGNED MESSAGE-----") != 1 ||
            count(bytes, "-----BEGIN PGP SIGNATURE-----") != 1 || count(bytes, "-----END PGP SIGNATURE-----") != 1 ||
            first.rfind("-----BEGIN PGP SIGNED MESSAGE-----", 0) != 0)
            std::abort();
    }
    return 0;
}
