// SPDX-License-Identifier: LGPL-2.1-or-later
#include <memory>

#include "foundation/strutil.h"
#include "tavro-quenda.h"

extern "C" {

char *tavro_quenda_get_harddisk_id(void) noexcept
{
    // One call: the readers below share its helpers' deadline.
    return tq::guarded<char *>(nullptr, []() -> char * {
        std::unique_ptr<char, tq::FreeDeleter> root(root_device());
        if (!root)
            return nullptr;
        // Fixed order; the first answer stands as it is.
        char *id = harddisk_id(root.get());
        if (!id)
            id = harddisk_id_smartctl(root.get());
        if (!id && is_logical_volume(root.get()) == 1)
            id = harddisk_id_lvm(root.get());
        if (!id)
            return nullptr;
        quenda_trace("tavro_quenda_get_harddisk_id: %s", id);
        return id;
    });
}

} // extern "C"
