// SPDX-License-Identifier: LGPL-2.1-or-later
// "tavro-quenda identity": this machine's identity facts.
#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commands.h"
#include "common.h"
#include "tavro-quenda.h"

namespace {

// One fact: a text (a library string, freed here) or a yes/no answer. The
// names are part of the tool's interface: scripts pick facts by them.
struct Fact {
    const char *name;
    char *(*text)();
    int (*flag)();
};

const Fact kFacts[] = {
    {"disk_id", tavro_quenda_get_harddisk_id, nullptr},
    {"root_device", root_device, nullptr},
    {"system_uuid", tavro_quenda_get_system_uuid, nullptr},
    {"mac", tavro_quenda_get_network_interface_max_mac, nullptr},
    {"serial", tavro_quenda_get_product_serial, nullptr},
    {"vendor", tavro_quenda_get_vendor, nullptr},
    {"model", tavro_quenda_get_model, nullptr},
    {"kirin_9x0", nullptr, is_huawei_9x0},
    {"lenovo", nullptr, is_lenovo_machine},
    {"oem_info", tavro_quenda_get_hw_oeminfo, nullptr},
};

const char kHelp[] =
    "Usage: tavro-quenda identity [-J[pretty|short]] [-n] [-o FIELD[,FIELD...]]\n"
    "Print this machine's identity facts, one a line, or as one JSON object.\n"
    "\n"
    "Options:\n"
    "  -J, --json[=pretty|short]  JSON output; short puts it on one line\n"
    "  -o, --output FIELD,...     only these facts, in this order\n"
    "  -n, --noheadings           bare values, one a line (empty when not available)\n"
    "  -h, --help                 show this help\n"
    "\n"
    "Fields (text and JSON show them in this order):\n"
    "  disk_id      model and serial of the disk holding the root file system\n"
    "  root_device  block device of the root file system\n"
    "  system_uuid  firmware system UUID (placeholder values rejected)\n"
    "  mac          largest permanent MAC address of the wired interfaces\n"
    "  serial       firmware product serial number\n"
    "  vendor       firmware system vendor\n"
    "  model        firmware product name\n"
    "  kirin_9x0    yes when the machine is Kirin 990, 9006C or 9A0 based\n"
    "  lenovo       yes when the machine is a Lenovo or KaiTian one\n"
    "  oem_info     OEM text: serial, boot device product name and CID\n"
    "\n"
    "A fact that cannot be read, or reads empty, is \"not available\" in text\n"
    "and null in JSON. Exit status 1 when the one fact -o names is not available.\n";

const char kCmd[] = "identity";

// The value of one fact; nullopt when it is not available.
std::optional<std::string> value_of(const Fact &f)
{
    if (f.flag)
        return std::string(f.flag() ? "yes" : "no");
    cli::CString value(f.text());
    if (!value || !*value)
        return std::nullopt;
    return std::string(value.get());
}

// The values of the facts, in their order. The facts are independent and each
// mostly waits for the helper programs it starts, so each is read on a thread
// of its own, the first (the disk, the slowest) started first: the report
// then takes about as long as its slowest fact.
std::vector<std::optional<std::string>> values_of(const std::vector<const Fact *> &fields)
{
    std::vector<std::optional<std::string>> values(fields.size());
    std::vector<std::thread> readers;
    for (size_t i = 0; i + 1 < fields.size(); ++i) {
        try {
            readers.emplace_back([&values, &fields, i] { values[i] = value_of(*fields[i]); });
        } catch (const std::system_error &) {
            values[i] = value_of(*fields[i]); // no thread to be had: read it here
        }
    }
    if (!fields.empty())
        values.back() = value_of(*fields.back());
    for (std::thread &reader : readers)
        reader.join();
    return values;
}

int parse_fields(const char *list, std::vector<const Fact *> &out)
{
    std::string all(list);
    size_t start = 0;
    for (;;) {
        size_t comma = all.find(',', start);
        std::string name = all.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const Fact *found = nullptr;
        for (const Fact &f : kFacts) {
            if (name == f.name)
                found = &f;
        }
        if (!found)
            return cli::usage_error(kCmd, "unknown field '%s'", name.c_str());
        for (const Fact *f : out) {
            if (f == found)
                return cli::usage_error(kCmd, "field '%s' named twice", name.c_str());
        }
        out.push_back(found);
        if (comma == std::string::npos)
            return cli::kOk;
        start = comma + 1;
    }
}

} // namespace

int cli::identity(int argc, char **argv)
{
    static const option kOptions[] = {
        {"json", optional_argument, nullptr, 'J'},
        {"output", required_argument, nullptr, 'o'},
        {"noheadings", no_argument, nullptr, 'n'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Json json = Json::kNone;
    bool bare = false;
    std::vector<const Fact *> fields;
    int c;
    while ((c = getopt_long(argc, argv, ":J::o:nh", kOptions, nullptr)) != -1) {
        switch (c) {
        case 'J':
            if (!parse_json_mode(optarg, json))
                return usage_error(kCmd, "--json takes pretty or short, not '%s'", optarg);
            break;
        case 'o':
            fields.clear();
            if (int status = parse_fields(optarg, fields))
                return status;
            break;
        case 'n':
            bare = true;
            break;
        case 'h':
            std::fputs(kHelp, stdout);
            return kOk;
        default:
            return bad_option(kCmd, argv, c);
        }
    }
    if (optind < argc)
        return usage_error(kCmd, "unexpected argument '%s'", argv[optind]);
    if (json != Json::kNone && bare)
        return usage_error(kCmd, "--json and --noheadings cannot be used together");
    if (fields.empty()) {
        for (const Fact &f : kFacts)
            fields.push_back(&f);
    }

    JsonPtr root(json != Json::kNone ? cJSON_CreateObject() : nullptr);
    size_t width = 0;
    for (const Fact *f : fields)
        width = std::max(width, std::strlen(f->name) + 1);
    bool missing = false;
    const std::vector<std::optional<std::string>> values = values_of(fields);
    for (size_t i = 0; i < fields.size(); ++i) {
        const Fact *f = fields[i];
        const std::optional<std::string> &value = values[i];
        missing = !value;
        if (root) {
            cJSON *item = !value ? cJSON_CreateNull()
                          : f->flag ? cJSON_CreateBool(*value == "yes")
                                    : cJSON_CreateString(value->c_str());
            if (!item || !cJSON_AddItemToObject(root.get(), f->name, item))
                return fail(kSystem, kCmd, "out of memory");
        } else if (bare) {
            std::printf("%s\n", value ? value->c_str() : "");
        } else {
            std::printf("%-*s %s\n", static_cast<int>(width), (std::string(f->name) + ":").c_str(),
                        value ? value->c_str() : "not available");
        }
    }
    if (root)
        print_json(root.get(), json);
    if (fields.size() == 1 && missing)
        return fail(kNo, kCmd, "%s: not available", fields[0]->name);
    return kOk;
}
