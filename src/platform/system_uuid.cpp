// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/system_uuid.h"

#include <strings.h>

#include "foundation/fileutil.h"
#include "foundation/strutil.h"
#include "platform/dmidecode_pipeline.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr const char *kPlaceholderUuids[] = {
    "12345678-1234-5678-90ab-cddeefaabbcc",
    "03000200-0400-0500-0006-000700080009",
    "fefefefe-fefe-fefe-fefe-fefefefefefe",
    "ffffffff-ffff-ffff-ffff-ffffffffffff",
};

constexpr char kSysfsUuid[] = "/sys/devices/virtual/dmi/id/product_uuid";

std::optional<std::string> unless_placeholder(std::optional<std::string> uuid)
{
    if (uuid && is_placeholder_uuid(uuid->c_str()))
        return std::nullopt;
    return uuid;
}

} // namespace

bool is_placeholder_uuid(const char *text) noexcept
{
    for (const char *placeholder : kPlaceholderUuids) {
        if (strcasecmp(text, placeholder) == 0)
            return true;
    }
    return false;
}

std::optional<std::string> read_uuid_file(const char *path) { return unless_placeholder(read_fact_file(path)); }

std::optional<std::string> read_uuid_dmidecode() { return unless_placeholder(read_dmidecode_pipeline(kUuidPipeline)); }

} // namespace tq

extern "C" {

char *system_uuid(void) noexcept
{
    return tq::guarded<char *>(nullptr, [] {
        // A placeholder in sysfs also leads to dmidecode.
        std::optional<std::string> uuid = tq::read_uuid_file(tq::kSysfsUuid);
        if (!uuid)
            uuid = tq::read_uuid_dmidecode();
        return tq::dup_optional(uuid);
    });
}

char *tavro_quenda_get_system_uuid(void) noexcept { return system_uuid(); }

} // extern "C"
