// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary files as encrypted records: reading never overruns and always
// yields a C string inside the record buffer, or null.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavro-quenda.h"

namespace {
std::string path;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char tmpl[] = "/tmp/tq-fuzz-record-XXXXXX";
    int fd = ::mkstemp(tmpl);
    if (fd < 0)
        std::abort();
    ::close(fd);
    path = tmpl;
    std::atexit([] { ::unlink(path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FILE *f = std::fopen(path.c_str(), "we");
    if (!f)
        std::abort();
    if (size && std::fwrite(data, size, 1, f) != 1)
        std::abort();
    std::fclose(f);

    char *text = read_decrypt_file_to_str(path.c_str());
    if (text) {
        if (size == 0 || size > 1024 || ::strnlen(text, 1024) >= 1024)
            std::abort();
        std::free(text);
    } else if (size > 0 && size <= 1024) {
        std::abort();
    }
    return 0;
}
