// SPDX-License-Identifier: LGPL-2.1-or-later
// The disk under a device-mapper device or an LVM logical volume (internal).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tq {

// 1 when lsblk calls path "lvm" or prints nothing about it, else 0.
int is_logical_volume(const char *path);
// Whether the output of "lsblk -n -o TYPE" says logical volume: its first line
// begins with "lvm", or there is no line at all.
bool lsblk_type_is_lvm(std::string_view output);

std::optional<std::string> harddisk_id_lvm(const char *path);
// The volume group named by the last "VG Name" line of an lvdisplay report.
std::string lvdisplay_volume_group(std::string_view report);
// The physical volume a pvdisplay report gives for volume group vg: the last
// "PV Name" of the whole report, once any PV of the group was seen.
std::optional<std::string> pvdisplay_physical_volume(std::string_view report, std::string_view vg);
// The value of a report line: label cut out at its place, at most 510 bytes,
// without blanks and line feeds.
std::string report_value(std::string_view line, std::string_view label);
// For an encrypted PV such as /dev/mapper/sda3_crypt, the node of the
// partition underneath (/dev/sda3) when it is a block device; else pv.
std::string unencrypted_physical_volume(const std::string &pv);

// What "dmsetup deps -o devname <device>" says.
struct DmDeps {
    bool none = false; // "0 dependencies"
    std::string name;  // the dependency, cleaned; empty when not found
};
DmDeps parse_dmsetup_deps(std::string_view output);
std::optional<std::string> dm_dependency_name(const char *path);
// "/dev/<dependency>" when that is a block device, else the lsblk identity of the dependency.
std::optional<std::string> dm_physical_disk_node(const char *path);

} // namespace tq
