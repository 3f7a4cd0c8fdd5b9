// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform_support.h"

namespace tqtest {

void fake_dmidecode(Fixture &fixture, const std::string &report, bool without_s)
{
    const std::string text = read_file(corpus("dmidecode/" + report));
    // The record runs from its "Handle" line to the first blank line.
    const size_t record = text.rfind('\n', text.find("DMI type 1,")) + 1;
    const std::string type1 = fixture.host("/.dmidecode-type1");
    fixture.write("/.dmidecode-type1", text.substr(0, text.find("\nHandle ") + 1) +
                                           text.substr(record, text.find("\n\n", record) + 1 - record));
    // "-s system-uuid" prints the first "UUID: value" of the record, whatever the field's case.
    const std::string s =
        without_s ? "exit 2" : "sed -n \"s/^[[:blank:]]*${2#system-}: \\{0,1\\}//Ip\" '" + type1 + "' | head -n 1";
    fixture.script("/usr/sbin/dmidecode", "case \"$1 $2\" in\n'-t 1') cat '" + type1 + "' ;;\n-s*) " + s + " ;;\nesac");
}

} // namespace tqtest
