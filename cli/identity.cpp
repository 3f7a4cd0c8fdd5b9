// SPDX-License-Identifier: LGPL-2.1-or-later
// "tavro-quenda identity": this machine's identity report.
#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "tavro-quenda.h"

namespace {

// One line of the report: a text fact (a library string, freed here) or a
// yes/no fact.
struct Fact {
    const char *key;   // JSON member name
    const char *label; // text report label
    char *(*text)();
    int (*flag)();
};

const Fact kFacts[] = {
    {"system_disk", "System disk", tavro_quenda_get_harddisk_id, nullptr},
    {"root_device", "Root device", root_device, nullptr},
    {"system_uuid", "System UUID", tavro_quenda_get_system_uuid, nullptr},
    {"max_mac", "Largest permanent MAC", tavro_quenda_get_network_interface_max_mac, nullptr},
    {"serial_number", "Serial number", tavro_quenda_get_product_serial, nullptr},
    {"vendor", "Vendor", tavro_quenda_get_vendor, nullptr},
    {"model", "Model", tavro_quenda_get_model, nullptr},
    {"kirin_9x0", "Kirin 990/9006C/9A0", nullptr, is_huawei_9x0},
    {"lenovo", "Lenovo or KaiTian", nullptr, is_lenovo_machine},
    {"oem_info", "OEM text", tavro_quenda_get_hw_oeminfo, nullptr},
};

struct FreeDeleter {
    void operator()(char *p) const noexcept { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

int print_text()
{
    for (const Fact &f : kFacts) {
        std::printf("%-28s ", (std::string(f.label) + ":").c_str());
        if (f.text) {
            CString value(f.text());
            std::printf("%s\n", value ? value.get() : "not available");
        } else {
            std::printf("%s\n", f.flag() ? "yes" : "no");
        }
    }
    return 0;
}

int print_json()
{
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_CreateObject(), cJSON_Delete);
    if (!root)
        return 1;
    for (const Fact &f : kFacts) {
        cJSON *item;
        if (f.text) {
            CString value(f.text());
            item = value ? cJSON_CreateString(value.get()) : cJSON_CreateNull();
        } else {
            item = cJSON_CreateBool(f.flag() != 0);
        }
        if (!item)
            return 1;
        cJSON_AddItemToObject(root.get(), f.key, item);
    }
    CString out(cJSON_Print(root.get()));
    if (!out)
        return 1;
    std::printf("%s\n", out.get());
    return 0;
}

} // namespace

int cli::identity(int argc, char **argv)
{
    bool json = false;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "--help") == 0) {
            std::printf("Usage: tavro-quenda identity [--json]\n"
                        "Prints this machine's identity, one fact a line (or one JSON object).\n");
            return 0;
        } else {
            std::fprintf(stderr, "tavro-quenda identity: unknown option '%s'\n", argv[i]);
            return 2;
        }
    }
    return json ? print_json() : print_text();
}
