// SPDX-License-Identifier: LGPL-2.1-or-later
#include <optional>
#include <string>

#include "foundation/fileutil.h"
#include "foundation/strutil.h"
#include "platform/dmidecode_pipeline.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr char kSerialFile[] = "/sys/class/dmi/id/product_serial";
constexpr char kVendorFile[] = "/sys/class/dmi/id/sys_vendor";
constexpr char kModelFile[] = "/sys/class/dmi/id/product_sku";

// One fact read by reader (a file or a dmidecode command line) for the C boundary.
template <typename Reader>
char *fact_from(Reader reader, const char *source) noexcept
{
    return guarded<char *>(nullptr, [&]() -> char * { return source ? dup_optional(reader(source)) : nullptr; });
}

char *fact_from_file(const char *path) noexcept
{
    return fact_from([](const char *p) { return read_fact_file(p); }, path);
}

char *fact_from_command(const char *command) noexcept
{
    return fact_from([](const char *c) { return read_dmidecode_fact(c); }, command);
}

// sysfs first; only a missing answer (not an empty one) leads to dmidecode,
// whose report is filtered in-process as the pipeline filtered it.
char *fact(char *(*from_file)(const char *), const char *path, const DmidecodePipeline &pipeline) noexcept
{
    char *answer = from_file(path);
    if (answer)
        return answer;
    return guarded<char *>(nullptr, [&] { return dup_optional(read_dmidecode_pipeline(pipeline)); });
}

} // namespace
} // namespace tq

extern "C" {

// The two command readers take a shell command line by contract, so they, and
// only they, still run it through /bin/sh; the getters below never do.
char *get_machine_info_from_sysfs(const char *path) noexcept { return tq::fact_from_file(path); }

char *get_machine_info_from_dmidecode(const char *command) noexcept { return tq::fact_from_command(command); }

char *get_service_tag_from_sysfs(const char *path) noexcept { return tq::fact_from_file(path); }

char *get_service_tag_from_dmidecode(const char *command) noexcept { return tq::fact_from_command(command); }

char *tavro_quenda_get_service_tag(void) noexcept
{
    return tq::fact(get_machine_info_from_sysfs, tq::kSerialFile, tq::kSerialNumberPipeline);
}

char *tavro_quenda_get_product_serial(void) noexcept
{
    char *serial = tq::fact(get_service_tag_from_sysfs, tq::kSerialFile, tq::kSerialNumberPipeline);
    if (serial)
        quenda_trace("tavro_quenda_get_product_serial: %s", serial);
    return serial;
}

char *tavro_quenda_get_vendor(void) noexcept
{
    return tq::fact(get_machine_info_from_sysfs, tq::kVendorFile, tq::kVendorPipeline);
}

char *tavro_quenda_get_model(void) noexcept
{
    return tq::fact(get_machine_info_from_sysfs, tq::kModelFile, tq::kModelPipeline);
}

} // extern "C"
