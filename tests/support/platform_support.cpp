// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform_support.h"

#include <cstdlib>

#include "results.h"

namespace tqtest {
namespace {

// The record type a "Handle" line (new layout) or the line after it (old
// layout, "\tDMI type 1, 25 bytes.") names; -1 when neither does.
int record_type(const std::string &line)
{
    size_t at = line.find("DMI type ");
    return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + 9);
}

} // namespace

std::string dmidecode_type1(const std::string &report)
{
    std::string out, handle;
    // The current record's type: -2 in the header, -1 until the old layout's second line names it.
    int type = -2;
    bool ended = false;
    for (const std::string &line : lines_of(report)) {
        if (line.starts_with("Handle ")) {
            handle = line + "\n";
            type = record_type(line);
            ended = false;
            out += type == 1 ? handle : "";
            continue;
        }
        if (type == -2) {
            // dmidecode prints its header with -t too, except the table summary lines.
            if (!line.starts_with("Table at ") && !contains(line, " structures occupying "))
                out += line + "\n";
            continue;
        }
        if (type == -1) {
            type = record_type(line) == 1 ? 1 : 0;
            out += type == 1 ? handle : "";
        }
        // A record ends at its first blank line; what follows is not dmidecode's record.
        if (type == 1 && !ended)
            out += line + "\n";
        ended = ended || line.empty();
    }
    return out;
}

std::optional<std::string> dmidecode_field(const std::string &type1, const std::string &field)
{
    for (const std::string &line : lines_of(type1)) {
        std::string text = line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
        if (!text.starts_with(field + ":"))
            continue;
        std::string value = text.substr(field.size() + 1);
        return value.starts_with(' ') ? value.substr(1) : value;
    }
    return std::nullopt;
}

void fake_dmidecode(Fixture &fixture, const std::string &report, bool without_s)
{
    const std::string type1 = dmidecode_type1(read_file(corpus("dmidecode/" + report)));
    const std::string dir = "/.fake-output/dmidecode-replay/";
    fixture.write(dir + "t1", type1);
    std::string body = "case \"$1 $2\" in\n\"-t 1\") cat '" + fixture.host(dir) + "t1' ;;\n";
    if (without_s)
        body += "-s*) echo \"dmidecode: invalid option -- 's'\" >&2; exit 2 ;;\n";
    for (const auto &[keyword, field] : {std::pair{"system-manufacturer", "Manufacturer"}, {"system-uuid", "UUID"}}) {
        if (std::optional<std::string> value = dmidecode_field(type1, field)) {
            fixture.write(dir + keyword, *value + "\n");
            body += std::string("\"-s ") + keyword + "\") cat '" + fixture.host(dir + keyword) + "' ;;\n";
        }
    }
    fixture.script("/usr/sbin/dmidecode", body + "-s*) ;;\n*) exit 1 ;;\nesac");
}

} // namespace tqtest
