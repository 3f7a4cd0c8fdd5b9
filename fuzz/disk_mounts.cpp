// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary mount tables: the root entry, when one is chosen, is a "/" line's source.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "disk/root_device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::optional<std::string> source = tq::root_mount_source(text);
    if (source && source->size() > size)
        std::abort();
    return 0;
}
