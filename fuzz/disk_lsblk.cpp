// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary lsblk JSON through both readers of it: the root-disk finder and
// the model/serial lookup (the first input line names the device sought).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "disk/disk_readers.h"
#include "disk/root_device.h"
#include "foundation/os.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    size_t nl = bytes.find('\n');
    std::string name = nl == std::string::npos ? "sda" : bytes.substr(0, nl);
    std::string json = nl == std::string::npos ? bytes : bytes.substr(nl + 1);

    // The lookup traces every device it passes: point the trace log at a
    // root that does not exist rather than at the real one. The complaints on
    // standard error are quieted with -close_fd_mask=2.
    static const bool rerooted = [] {
        tq::os::testing::set_root("/nonexistent-tavro-quenda-fuzz");
        return true;
    }();
    (void)rerooted;
    tq::find_root_disk(json);
    std::optional<std::string> id = tq::lsblk_identity_from_json(json, name);
    if (id && (id->size() > 1023 || id->find('_') == std::string::npos))
        std::abort();
    return 0;
}
