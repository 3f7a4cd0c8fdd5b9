// SPDX-License-Identifier: LGPL-2.1-or-later
// A fake /usr/sbin/dmidecode that replays a dmidecode report recorded on a
// real machine, so that the library's pipelines run the real grep and awk on
// what that machine printed.
#pragma once

#include <map>
#include <string>

#include "fixture.h"

namespace tqtest {

// What a recorded report yields for the two calls the library makes.
struct DmidecodeReplay {
    // "dmidecode -t 1": the report's header lines and its type 1 record.
    std::string type1;
    // "dmidecode -s KEY": the recorded value of each keyword the record has
    // (e.g. "system-manufacturer" -> "LENOVO"), without the line end.
    std::map<std::string, std::string> strings;
};

// Parses a report (old and new dmidecode layouts, tab or blank indents).
DmidecodeReplay parse_dmidecode_report(const std::string &report);

struct FakeDmidecodeOptions {
    // Pretend to be a dmidecode without -s: such calls print nothing and fail.
    bool without_s_option = false;
};

// Installs /usr/sbin/dmidecode in the fixture, replaying the report at
// report_host_path (e.g. corpus("dmidecode/lenovo-thinkpad-t480.txt")).
// Calls are logged as for every fake: fixture.calls("/usr/sbin/dmidecode").
void fake_dmidecode(Fixture &fixture, const std::string &report_host_path, FakeDmidecodeOptions options = {});

} // namespace tqtest
