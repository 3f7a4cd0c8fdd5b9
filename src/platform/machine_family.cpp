// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/machine_family.h"

#include <strings.h>
#include <unistd.h>

#include <cstring>

#include "foundation/fileutil.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "platform/dmidecode_pipeline.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr char kCpuinfo[] = "/proc/cpuinfo";
constexpr char kBootProductName[] = "/proc/bootdevice/product_name";
constexpr char kBootCid[] = "/proc/bootdevice/cid";
constexpr const char *kKirinNeedles[] = {"kirin990", "kirin9006c", "kirin9a0"};
// Each part of the OEM text is at most 127 bytes.
constexpr size_t kOemFieldSize = 128;

using OemField = char[kOemFieldSize];

// The field's text ends at its first CR or LF and within its 128 bytes.
std::string finish_field(OemField &field)
{
    for (char &c : field) {
        if (c == '\r' || c == '\n')
            c = '\0';
    }
    field[kOemFieldSize - 1] = '\0';
    return field;
}

// The serial as fgets() into the 128-byte field read the pipeline's output.
std::optional<std::string> oem_serial()
{
    std::optional<std::string> output = dmidecode_pipeline_output(kSerialNumberPipeline);
    if (!output)
        return std::nullopt;
    return fact_from_start(std::string_view(*output).substr(0, kOemFieldSize - 1));
}

// Up to 128 raw bytes of a boot-device attribute.
std::optional<std::string> oem_boot_device_part(const char *path)
{
    OemField field = {};
    os::UniqueFile file = os::fopen(path, "r");
    if (!file || std::fread(field, 1, sizeof(field), file.get()) == 0)
        return std::nullopt;
    return finish_field(field);
}

} // namespace

bool cpuinfo_names_kirin_9x0(FILE *stream)
{
    char line[kFactLineSize];
    while (std::fgets(line, sizeof(line), stream)) {
        line[sizeof(line) - 1] = '\0';
        // "Hardware\t: HUAWEI Kirin 990" becomes "hardware:huaweikirin990".
        toLowerCase(line);
        removeSpacesTabs(line);
        if (strncasecmp(line, "hardware", 8) != 0)
            continue;
        for (const char *needle : kKirinNeedles) {
            if (std::strstr(line, needle))
                return true;
        }
    }
    return false;
}

bool is_lenovo_manufacturer(std::string_view manufacturer) noexcept
{
    return manufacturer.starts_with("KaiTian") || manufacturer.starts_with("LENOVO");
}

std::optional<std::string> oem_text()
{
    if (os::access(kDmidecodePath, R_OK | X_OK) != 0)
        return std::nullopt;
    // All three parts or nothing: a partial text would not identify the machine.
    std::optional<std::string> serial = oem_serial();
    if (!serial)
        return std::string();
    std::optional<std::string> product = oem_boot_device_part(kBootProductName);
    if (!product)
        return std::string();
    std::optional<std::string> cid = oem_boot_device_part(kBootCid);
    if (!cid)
        return std::string();
    return *serial + "_" + *product + "_" + *cid;
}

} // namespace tq

extern "C" {

int is_huawei_9x0(void) noexcept
{
    return tq::guarded(0, [] {
        tq::os::UniqueFile cpuinfo = tq::os::fopen(tq::kCpuinfo, "r");
        return cpuinfo && tq::cpuinfo_names_kirin_9x0(cpuinfo.get()) ? 1 : 0;
    });
}

int is_lenovo_machine(void) noexcept
{
    return tq::guarded(0, [] {
        // Older dmidecode has no -s: the type 1 record is read as well.
        for (const tq::DmidecodePipeline *pipeline : {&tq::kManufacturerPipeline, &tq::kManufacturerFallbackPipeline}) {
            std::optional<std::string> manufacturer = tq::read_dmidecode_pipeline(*pipeline);
            if (manufacturer && tq::is_lenovo_manufacturer(*manufacturer))
                return 1;
        }
        return 0;
    });
}

char *hw_oem_info(void) noexcept
{
    return tq::guarded<char *>(nullptr, []() -> char * {
        std::optional<std::string> text = tq::oem_text();
        return tq::dup_optional(text);
    });
}

char *tavro_quenda_get_hw_oeminfo(void) noexcept
{
    char *text = hw_oem_info();
    if (text)
        quenda_trace("%s\n", text);
    return text;
}

} // extern "C"
