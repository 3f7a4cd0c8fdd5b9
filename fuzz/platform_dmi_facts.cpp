// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary dmidecode output and DMI attribute files. The fact read from a
// command's output stream and the fact read from a file's first bytes must be
// the same text: at most 1023 bytes of the first line, without CR, LF or zero
// bytes. The placeholder and maker tests run on every answer, and every
// in-process dmidecode filter prints at most one line per line of input.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/fileutil.h"
#include "fuzz_stream.h"
#include "platform/dmidecode_pipeline.h"
#include "platform/machine_family.h"
#include "platform/system_uuid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size);
    const size_t input_lines = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n')) + 1;
    for (const tq::DmidecodePipeline *pipeline : tq::kDmidecodePipelines) {
        std::string out = tq::filter_dmidecode_report(*pipeline, bytes);
        if (pipeline->filter != tq::DmidecodeFilter::kWhole &&
            static_cast<size_t>(std::count(out.begin(), out.end(), '\n')) > input_lines)
            std::abort();
    }
    auto from_output = fuzz::parse_stream(bytes, [](FILE *stream) { return tq::read_fact_line(stream); });
    if (!from_output)
        return 0;

    // What read_fact_file() reads of a file: up to 1023 bytes, through the first LF.
    std::string start = bytes.substr(0, tq::kFactLineSize - 1);
    start = start.substr(0, start.find('\n') == std::string::npos ? start.size() : start.find('\n') + 1);
    std::optional<std::string> from_file = tq::fact_from_start(start);
    if (*from_output != from_file)
        std::abort();
    if (from_file) {
        const std::string &fact = *from_file;
        if (fact.size() > tq::kFactLineSize - 1 || fact.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
            std::abort();
        (void)tq::is_placeholder_uuid(fact.c_str());
        (void)tq::is_lenovo_manufacturer(fact);
    }
    return 0;
}
