// SPDX-License-Identifier: LGPL-2.1-or-later
// Readers of the disk identity "MODEL_SERIAL" (internal).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

struct cJSON;

namespace tq {

// Whether path names a device-mapper node ("/dev/mapper..."), as given.
bool is_device_mapper_path(std::string_view path) noexcept;
// 1 when libblkid calls path a whole disk, else 0.
int is_whole_disk(const char *path) noexcept;

// Routes path to the reader that fits it: device-mapper, NVMe sysfs or ATA identify.
std::optional<std::string> harddisk_id(const char *path);

// ATA identify (HDIO_GET_IDENTITY) of /dev/<base name of path>.
std::optional<std::string> harddisk_id_ata_identity(std::string_view path);
// "MODEL_SERIAL" from a 512-byte ATA identify block (struct hd_driveid): the
// graphic characters of its model and serial fields. A shorter block is
// read as if padded with zero bytes.
std::string ata_identity_from_block(std::string_view block);
// Model and serial from the sysfs attributes of the disk name begins with.
std::optional<std::string> harddisk_id_sysfs(std::string_view name);
// A /sys/block/<disk>/device/<attribute> value, trimmed, each inner run of
// blanks turned into one "-", at most capacity - 1 bytes.
std::optional<std::string> read_sysfs_block_attribute(std::string_view disk, std::string_view attribute,
                                                      size_t capacity);
// The same cleaning over raw attribute bytes.
std::string clean_sysfs_attribute(std::string_view raw, size_t capacity);

// From the JSON of "lsblk -Jp -o name,serial,model".
std::optional<std::string> harddisk_id_lsblk(std::string name);
// The identity of the top-level element of tree whose name has base name name.
std::optional<std::string> lsblk_find_model_serial(const cJSON *tree, std::string_view name);
// Parses json (up to a zero byte) and answers lsblk_find_model_serial().
std::optional<std::string> lsblk_identity_from_json(const std::string &json, std::string_view name);

std::optional<std::string> harddisk_id_smartctl(const char *path);
// The identity in a "smartctl -i" report: the last model and serial lines win.
std::optional<std::string> parse_smartctl_identity(std::string_view report);

std::optional<std::string> harddisk_id_nvme_new(const char *name);
// First line of /proc/bootdevice/cid (eMMC and UFS boot devices).
std::optional<std::string> boot_device_cid();
// "vendor model revision" of the default optical drive.
std::optional<std::string> optical_drive_hwinfo();

} // namespace tq
