// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary lvdisplay and pvdisplay reports (split at the first zero byte):
// values come out cleaned and bounded.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "disk/logical_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    size_t split = bytes.find('\0');
    std::string lv = bytes.substr(0, split);
    std::string pv = split == std::string::npos ? lv : bytes.substr(split + 1);

    std::string vg = tq::lvdisplay_volume_group(lv);
    if (vg.size() > 510 || vg.find_first_of(" \n") != std::string::npos)
        std::abort();
    std::optional<std::string> volume = tq::pvdisplay_physical_volume(pv, vg);
    if (volume && (volume->empty() || volume->size() > 510 || vg.empty()))
        std::abort();
    tq::lsblk_type_is_lvm(lv);
    return 0;
}
