// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/logical_volume.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "disk/disk_readers.h"
#include "disk/root_device.h"
#include "disk/text_lines.h"
#include "foundation/os.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr char kLsblk[] = "/bin/lsblk";
constexpr char kLvdisplay[] = "/sbin/lvdisplay";
constexpr char kPvdisplay[] = "/sbin/pvdisplay";
constexpr char kDmsetup[] = "/usr/sbin/dmsetup";

constexpr size_t kLineBuffer = 1024;
constexpr size_t kValueMax = 510;
constexpr size_t kDmsetupReadMax = 1023;

bool contains(std::string_view text, std::string_view word) { return text.find(word) != std::string_view::npos; }

// Starts with prefix, compared over the prefix's length as strncmp() does.
bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

} // namespace

bool lsblk_type_is_lvm(std::string_view output)
{
    bool lvm = true;
    bool first = true;
    for_each_fgets_line(output, kLineBuffer, [&](std::string_view line) {
        if (first)
            lvm = starts_with(line, "lvm");
        first = false;
    });
    return lvm;
}

int is_logical_volume(const char *path)
{
    if (!path || os::access(kLsblk, R_OK | X_OK) != 0)
        return 0;
    std::optional<std::string> out = helper_output({kLsblk, "-n", "-o", "TYPE", os::host_path(path)});
    if (!out)
        return 0;
    // No output at all counts as a logical volume too.
    return lsblk_type_is_lvm(*out) ? 1 : 0;
}

std::string report_value(std::string_view line, std::string_view label)
{
    std::string rest(line);
    size_t at = rest.find(label);
    if (at != std::string::npos)
        rest.erase(at, label.size());
    rest.resize(std::min(rest.size(), kValueMax));
    removeSpaces(rest.data());
    rest.resize(std::strlen(rest.c_str()));
    return rest;
}

std::string lvdisplay_volume_group(std::string_view report)
{
    std::string vg;
    for_each_fgets_line(report, kLineBuffer, [&](std::string_view line) {
        if (contains(line, "VG Name"))
            vg = report_value(line, "VG Name");
    });
    return vg;
}

std::optional<std::string> pvdisplay_physical_volume(std::string_view report, std::string_view vg)
{
    if (vg.empty())
        return std::nullopt;
    // pvdisplay prints "VG Name" on the line right after "PV Name".
    bool after_pv_line = false;
    std::string pv;
    // One slot, overwritten by every match: the last PV of the group is kept.
    std::optional<std::string> slot_vg;
    for_each_fgets_line(report, kLineBuffer, [&](std::string_view line) {
        if (contains(line, "PV Name")) {
            after_pv_line = true;
            pv = report_value(line, "PV Name");
        } else if (after_pv_line) {
            after_pv_line = false;
            if (!contains(line, "VG Name"))
                return;
            std::string group = report_value(line, "VG Name");
            // A prefix match: "vg2" counts as "vg".
            if (starts_with(group, vg) && !pv.empty() && !group.empty())
                slot_vg = group;
        }
    });
    // A later "PV Name" line may have been empty: no volume to ask about.
    if (!slot_vg || pv.empty())
        return std::nullopt;
    // Deliberately the last "PV Name" of the whole report, whichever group it is in.
    return pv;
}

std::string unencrypted_physical_volume(const std::string &pv)
{
    if (!contains(pv, "crypt") || !contains(pv, "_"))
        return pv;
    for (std::string_view piece : split_tokens(base_name(pv), "_")) {
        if (contains(piece, "crypt"))
            continue;
        std::string node = "/dev/" + std::string(piece);
        if (is_block_device(node.c_str()))
            return node;
    }
    return pv;
}

std::optional<std::string> harddisk_id_lvm(const char *path)
{
    char resolved[PATH_MAX];
    if (!path || os::access(kLvdisplay, R_OK | X_OK) != 0 || os::access(kPvdisplay, R_OK | X_OK) != 0 ||
        !os::realpath(path, resolved) || !is_block_device(resolved))
        return std::nullopt;
    std::string vg = lvdisplay_volume_group(helper_output({kLvdisplay, os::host_path(path)}).value_or(""));
    if (vg.empty())
        return std::nullopt;
    std::optional<std::string> pv = pvdisplay_physical_volume(helper_output({kPvdisplay}).value_or(""), vg);
    if (!pv)
        return std::nullopt;
    return harddisk_id_smartctl(unencrypted_physical_volume(*pv).c_str());
}

DmDeps parse_dmsetup_deps(std::string_view output)
{
    DmDeps deps;
    std::string text(up_to_nul(cut(output, kDmsetupReadMax)));
    if (!contains(text, ":"))
        return deps;
    for (std::string_view piece : split_tokens(text, ":")) {
        if (starts_with(piece, "0 dependencies")) {
            deps.none = true;
            return deps;
        }
        if (contains(piece, "dependencies"))
            continue;
        // " (sda3)\n" gives "sda3". Several dependencies run together.
        std::string name(cut(piece, kLineBuffer - 1));
        removeSpecialChar(name.data());
        name.resize(std::strlen(name.c_str()));
        deps.name = name;
        break;
    }
    return deps;
}

std::optional<std::string> dm_dependency_name(const char *path)
{
    if (!path)
        return std::nullopt;
    std::string device = os::host_path(path);
    const char *argv[] = {kDmsetup, "deps", "-o", "devname", device.c_str(), nullptr};
    const char *failed_step = nullptr;
    os::Child child = os::spawn(argv, &failed_step);
    if (!child.started) {
        quenda_trace(failed_step && std::strcmp(failed_step, "fork") == 0 ? "fork error." : "pipe error.");
        return std::nullopt;
    }
    // Only the start of the report counts.
    std::string output(cut(child.out, kDmsetupReadMax));
    DmDeps deps = parse_dmsetup_deps(output);
    if (deps.none)
        quenda_trace("cannot found deps");
    if (deps.none || deps.name.empty())
        return std::nullopt;
    return deps.name;
}

std::optional<std::string> dm_physical_disk_node(const char *path)
{
    std::optional<std::string> name = dm_dependency_name(path);
    if (!name)
        return std::nullopt;
    std::string node = "/dev/" + *name;
    quenda_trace("physicalDiskNode: %s", node.c_str());
    if (is_block_device(node.c_str()))
        return node;
    quenda_trace("'%s' is not a block device, '%s'", node.c_str(), name->c_str());
    return harddisk_id_lsblk(std::move(*name));
}

} // namespace tq

extern "C" {

int is_logical_volume(const char *path) noexcept
{
    return tq::guarded<int>(0, [&] { return tq::is_logical_volume(path); });
}

char *harddisk_id_lvm(const char *path) noexcept
{
    return tq::guarded<char *>(nullptr, [&] { return tq::dup_optional(tq::harddisk_id_lvm(path)); });
}

} // extern "C"
