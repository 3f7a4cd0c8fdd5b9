// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform_support.h"

namespace tqtest {

std::string dmidecode_type1(const std::string &report)
{
    const std::vector<std::string> lines = lines_of(report);
    std::string out;
    size_t i = 0;
    // dmidecode prints its header with -t too, except the table summary lines.
    for (; i < lines.size() && !lines[i].starts_with("Handle "); ++i) {
        if (!lines[i].starts_with("Table at ") && !contains(lines[i], " structures occupying "))
            out += lines[i] + "\n";
    }
    // The old layout names the type on the line after "Handle"; a record ends at its first blank line.
    for (; i < lines.size(); ++i) {
        const std::string next = i + 1 < lines.size() ? lines[i + 1] : "";
        bool type1 = contains(lines[i], "DMI type 1,") || (!next.starts_with("Handle ") && contains(next, "DMI type 1,"));
        for (size_t j = i; lines[i].starts_with("Handle ") && type1 && j < lines.size(); ++j) {
            out += lines[j] + "\n";
            if (lines[j].empty() || (j + 1 < lines.size() && lines[j + 1].starts_with("Handle ")))
                break;
        }
    }
    return out;
}

void fake_dmidecode(Fixture &fixture, const std::string &report, bool without_s)
{
    const std::string type1 = dmidecode_type1(read_file(corpus("dmidecode/" + report)));
    const std::string dir = "/.fake-output/dmidecode-replay/";
    fixture.write(dir + "t1", type1);
    std::string body = "case \"$1 $2\" in\n\"-t 1\") cat '" + fixture.host(dir) + "t1' ;;\n";
    if (without_s)
        body += "-s*) echo \"dmidecode: invalid option -- 's'\" >&2; exit 2 ;;\n";
    // "dmidecode -s" prints the first "Field: value" of the record.
    for (const auto &[keyword, field] : {std::pair{"system-manufacturer", "Manufacturer"}, {"system-uuid", "UUID"}}) {
        body += std::string("\"-s ") + keyword + "\") sed -n 's/^[[:blank:]]*" + field + ": \\{0,1\\}//p' '" +
                fixture.host(dir) + "t1' | head -n 1 ;;\n";
    }
    fixture.script("/usr/sbin/dmidecode", body + "-s*) ;;\n*) exit 1 ;;\nesac");
}

} // namespace tqtest
