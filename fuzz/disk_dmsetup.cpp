// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary "dmsetup deps" output: a dependency name is cleaned and bounded.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "disk/logical_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view output(reinterpret_cast<const char *>(data), size);
    tq::DmDeps deps = tq::parse_dmsetup_deps(output);
    if (deps.none && !deps.name.empty())
        std::abort();
    if (deps.name.size() > 1022 || deps.name.find_first_of(" \n()") != std::string::npos)
        std::abort();
    return 0;
}
