// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/dmidecode_pipeline.h"

#include <unistd.h>

#include <algorithm>

#include "foundation/fileutil.h"
#include "foundation/os.h"

namespace tq {
namespace {

char ascii_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// grep -i KEY in the C locale.
bool contains_ignoring_case(std::string_view line, std::string_view key)
{
    return std::search(line.begin(), line.end(), key.begin(), key.end(), [](char a, char b) {
               return ascii_lower(a) == ascii_lower(b);
           }) != line.end();
}

bool is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Whether line holds 8-4-4-4-12 hexadecimal digits anywhere.
bool holds_uuid(std::string_view line)
{
    constexpr std::string_view shape = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    for (size_t at = 0; at + shape.size() <= line.size(); ++at) {
        bool match = true;
        for (size_t i = 0; i < shape.size() && match; ++i)
            match = shape[i] == '-' ? line[at + i] == '-' : is_hex(line[at + i]);
        if (match)
            return true;
    }
    return false;
}

// awk -F': ' '{print $2}': the text between the first ": " and the next one;
// empty when there is no separator.
std::string_view field_after_colon(std::string_view line)
{
    size_t start = line.find(": ");
    if (start == std::string_view::npos)
        return {};
    start += 2;
    size_t end = line.find(": ", start);
    return line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
}

// awk '{print $2}': fields are runs of anything but blanks and tabs.
std::string_view second_word(std::string_view line)
{
    constexpr std::string_view blanks = " \t";
    size_t first = line.find_first_not_of(blanks);
    size_t gap = first == std::string_view::npos ? first : line.find_first_of(blanks, first);
    size_t start = gap == std::string_view::npos ? gap : line.find_first_not_of(blanks, gap);
    if (start == std::string_view::npos)
        return {};
    size_t end = line.find_first_of(blanks, start);
    return line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
}

} // namespace

std::string filter_dmidecode_report(const DmidecodePipeline &pipeline, std::string_view report)
{
    if (pipeline.filter == DmidecodeFilter::kWhole)
        return std::string(report);
    std::string out;
    size_t pos = 0;
    while (pos < report.size()) {
        size_t nl = report.find('\n', pos);
        std::string_view line = report.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        pos = nl == std::string_view::npos ? report.size() : nl + 1;
        switch (pipeline.filter) {
        case DmidecodeFilter::kUuidLine:
            if (holds_uuid(line))
                out.append(line).append("\n");
            break;
        case DmidecodeFilter::kFieldAfterColon:
            if (contains_ignoring_case(line, pipeline.key))
                out.append(field_after_colon(line)).append("\n");
            break;
        case DmidecodeFilter::kSecondWord:
            if (contains_ignoring_case(line, pipeline.key))
                out.append(second_word(line)).append("\n");
            break;
        case DmidecodeFilter::kWhole:
            break;
        }
    }
    return out;
}

std::optional<std::string> dmidecode_pipeline_output(const DmidecodePipeline &pipeline)
{
    if (os::access(kDmidecodePath, R_OK | X_OK) != 0)
        return std::nullopt;
    const char *argv[] = {kDmidecodePath, pipeline.args[0], pipeline.args[1], pipeline.args[2], nullptr};
    os::Child child = os::spawn(argv);
    if (!child.started)
        return std::nullopt;
    return filter_dmidecode_report(pipeline, child.out);
}

std::optional<std::string> read_dmidecode_pipeline(const DmidecodePipeline &pipeline)
{
    std::optional<std::string> output = dmidecode_pipeline_output(pipeline);
    if (!output)
        return std::nullopt;
    // What fgets() into the 1024-byte fact buffer read of it.
    return fact_from_start(std::string_view(*output).substr(0, kFactLineSize - 1));
}

} // namespace tq
