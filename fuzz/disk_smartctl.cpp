// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary smartctl reports: an identity has two non-empty halves of at most
// 510 bytes, with no blank or line feed left in them.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "disk/disk_readers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view report(reinterpret_cast<const char *>(data), size);
    std::optional<std::string> id = tq::parse_smartctl_identity(report);
    if (!id)
        return 0;
    if (id->size() < 3 || id->size() > 1021 || id->find_first_of(" \n") != std::string::npos)
        std::abort();
    return 0;
}
