// SPDX-License-Identifier: LGPL-2.1-or-later
// The dmidecode readings of the platform facts (internal).
//
// Unlike the shell pipelines these readings were first written as
// ("dmidecode -t 1 |grep -i KEY | awk ..."), dmidecode is started directly,
// by its absolute path and with an argument vector, and its report is
// filtered in-process: a shell, grep and awk found through the caller's PATH
// would run whatever a folder on it holds, and cost three programs per fact.
// The filter gives exactly what the pipeline printed: grep -i as an ASCII
// case-insensitive substring match, awk's field splitting, one output line per
// matching line, empty fields as empty lines.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tq {

// What stood after "dmidecode ARGS" in the pipeline.
enum class DmidecodeFilter {
    kWhole,         // nothing: dmidecode's own output
    kUuidLine,      // | grep '[0-9a-fA-F]\{8\}-...-[0-9a-fA-F]\{12\}'
    kFieldAfterColon, // |grep -i 'KEY' | awk -F': ' '{print $2}'
    kSecondWord,    // |grep -i 'KEY' |awk '{print $2}'
};

struct DmidecodePipeline {
    const char *command;    // the shell pipeline this reading stands for, as it read
    const char *args[3];    // dmidecode's arguments (null-terminated)
    DmidecodeFilter filter;
    const char *key;        // grep -i's key, for the two awk filters
};

// The system serial number, inner blanks kept.
inline constexpr DmidecodePipeline kSerialNumberPipeline = {
    "/usr/sbin/dmidecode -t 1 |grep -i 'Serial Number' | awk -F': ' '{print $2}'",
    {"-t", "1", nullptr}, DmidecodeFilter::kFieldAfterColon, "Serial Number"};
// Only the first word of the Family and Version lines.
inline constexpr DmidecodePipeline kVendorPipeline = {
    "/usr/sbin/dmidecode -t 1 |grep -i 'Family' |awk '{print $2}'", {"-t", "1", nullptr},
    DmidecodeFilter::kSecondWord, "Family"};
inline constexpr DmidecodePipeline kModelPipeline = {
    "/usr/sbin/dmidecode -t 1 |grep -i 'Version' |awk '{print $2}'", {"-t", "1", nullptr},
    DmidecodeFilter::kSecondWord, "Version"};
// Only lines that hold an 8-4-4-4-12 UUID: dmidecode's comments are dropped.
inline constexpr DmidecodePipeline kUuidPipeline = {
    "/usr/sbin/dmidecode -s system-uuid | grep "
    "'[0-9a-fA-F]\\{8\\}-[0-9a-fA-F]\\{4\\}-[0-9a-fA-F]\\{4\\}-[0-9a-fA-F]\\{4\\}-[0-9a-fA-F]\\{12\\}'",
    {"-s", "system-uuid", nullptr}, DmidecodeFilter::kUuidLine, nullptr};
inline constexpr DmidecodePipeline kManufacturerPipeline = {
    "/usr/sbin/dmidecode -s system-manufacturer", {"-s", "system-manufacturer", nullptr}, DmidecodeFilter::kWhole,
    nullptr};
// For a dmidecode without -s.
inline constexpr DmidecodePipeline kManufacturerFallbackPipeline = {
    "/usr/sbin/dmidecode -t 1 |grep -i 'Manufacturer' |awk -F': ' '{print $2}'", {"-t", "1", nullptr},
    DmidecodeFilter::kFieldAfterColon, "Manufacturer"};

inline constexpr const DmidecodePipeline *kDmidecodePipelines[] = {
    &kSerialNumberPipeline, &kVendorPipeline, &kModelPipeline,
    &kUuidPipeline,         &kManufacturerPipeline, &kManufacturerFallbackPipeline,
};

// What the pipeline printed when dmidecode printed report.
std::string filter_dmidecode_report(const DmidecodePipeline &pipeline, std::string_view report);

// The pipeline's whole output: dmidecode run only when /usr/sbin/dmidecode may
// be read and executed; nullopt when it could not be run.
std::optional<std::string> dmidecode_pipeline_output(const DmidecodePipeline &pipeline);

// The first line of that output as a fact (read_fact_line()); nullopt when
// there is no line.
std::optional<std::string> read_dmidecode_pipeline(const DmidecodePipeline &pipeline);

} // namespace tq
