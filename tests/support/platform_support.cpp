// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform_support.h"

#include <cstdlib>
#include <sstream>
#include <vector>

namespace tqtest {
namespace {

struct Keyword {
    int type;
    const char *field;
    const char *keyword;
};

// The -s keywords of the records a replay covers.
const Keyword kKeywords[] = {
    {0, "Vendor", "bios-vendor"},
    {0, "Version", "bios-version"},
    {0, "Release Date", "bios-release-date"},
    {1, "Manufacturer", "system-manufacturer"},
    {1, "Product Name", "system-product-name"},
    {1, "Version", "system-version"},
    {1, "Serial Number", "system-serial-number"},
    {1, "UUID", "system-uuid"},
    {1, "SKU Number", "system-sku-number"},
    {1, "Family", "system-family"},
    {2, "Manufacturer", "baseboard-manufacturer"},
    {2, "Product Name", "baseboard-product-name"},
    {2, "Version", "baseboard-version"},
    {2, "Serial Number", "baseboard-serial-number"},
    {2, "Asset Tag", "baseboard-asset-tag"},
    {3, "Manufacturer", "chassis-manufacturer"},
    {3, "Type", "chassis-type"},
    {3, "Version", "chassis-version"},
    {3, "Serial Number", "chassis-serial-number"},
    {3, "Asset Tag", "chassis-asset-tag"},
};

bool starts_with(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

// The record type a "Handle" line (new layout) or the line after it (old
// layout, "\tDMI type 1, 25 bytes.") names; -1 when neither does.
int record_type(const std::string &line)
{
    size_t at = line.find("DMI type ");
    if (at == std::string::npos)
        return -1;
    return std::atoi(line.c_str() + at + 9);
}

std::string trim_left(const std::string &s)
{
    size_t first = s.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : s.substr(first);
}

} // namespace

DmidecodeReplay parse_dmidecode_report(const std::string &report)
{
    std::vector<std::string> lines;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);

    DmidecodeReplay replay;
    size_t i = 0;
    // dmidecode prints its header with -t too, except the table summary lines.
    for (; i < lines.size() && !starts_with(lines[i], "Handle "); ++i) {
        if (starts_with(lines[i], "Table at ") || lines[i].find(" structures occupying ") != std::string::npos)
            continue;
        replay.type1 += lines[i] + "\n";
    }

    while (i < lines.size()) {
        // lines[i] is a Handle line; the record runs to the next Handle line.
        int type = record_type(lines[i]);
        if (type < 0 && i + 1 < lines.size())
            type = record_type(lines[i + 1]);
        size_t end = i + 1;
        while (end < lines.size() && !starts_with(lines[end], "Handle "))
            ++end;
        for (size_t j = i; j < end; ++j) {
            // A record ends at its first blank line; what follows is not dmidecode's record.
            if (j > i && lines[j].empty()) {
                if (type == 1)
                    replay.type1 += "\n";
                break;
            }
            if (type == 1)
                replay.type1 += lines[j] + "\n";
            std::string text = trim_left(lines[j]);
            for (const Keyword &k : kKeywords) {
                std::string key = std::string(k.field) + ":";
                if (k.type != type || !starts_with(text, key.c_str()) || replay.strings.count(k.keyword))
                    continue;
                std::string value = text.substr(key.size());
                if (!value.empty() && value.front() == ' ')
                    value.erase(0, 1);
                replay.strings[k.keyword] = value;
            }
        }
        i = end;
    }
    return replay;
}

void fake_dmidecode(Fixture &fixture, const std::string &report_host_path, FakeDmidecodeOptions options)
{
    DmidecodeReplay replay = parse_dmidecode_report(read_file(report_host_path));
    const std::string dir = "/.fake-output/dmidecode-replay";
    fixture.write(dir + "/t1", replay.type1);
    for (const auto &[keyword, value] : replay.strings)
        fixture.write(dir + "/s/" + keyword, value + "\n");

    std::string out = fixture.host(dir);
    std::string s_branch = options.without_s_option
                               ? "  echo \"dmidecode: invalid option -- 's'\" >&2; exit 2 ;;\n"
                               : "  case \"$2\" in ''|*[!a-z0-9-]*) exit 1 ;; esac\n"
                                 "  if [ -f '" + out + "/s/'\"$2\" ]; then cat '" + out + "/s/'\"$2\"; fi ;;\n";
    fixture.script("/usr/sbin/dmidecode", "case \"$1\" in\n"
                                          "-t)\n"
                                          "  [ \"$2\" = 1 ] || exit 1\n"
                                          "  cat '" + out + "/t1' ;;\n"
                                          "-s)\n" + s_branch +
                                          "*) exit 1 ;;\n"
                                          "esac\n");
}

} // namespace tqtest
