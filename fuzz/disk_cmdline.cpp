// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary kernel command lines: the answer never outgrows its 4095-byte buffer.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "disk/root_device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    std::optional<std::string> device = tq::root_device_from_command_line(text);
    if (device && (device->empty() || device->size() > 4095))
        std::abort();
    return 0;
}
