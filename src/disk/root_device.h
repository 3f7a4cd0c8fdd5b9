// SPDX-License-Identifier: LGPL-2.1-or-later
// Finding the block device that holds the root file system (internal).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tq {

// 1 when path exists and is a block device (links followed), else 0.
int is_block_device(const char *path) noexcept;

// Source of the mount table's last word on "/": the first "/" entry whose
// source is not the early-boot "rootfs". text is a mount table as
// /proc/mounts prints it.
std::optional<std::string> root_mount_source(std::string_view text);
// root_mount_source() of /proc/mounts.
std::optional<std::string> root_device_from_mounts();

// The first "root=" word of a kernel command line.
std::optional<std::string> find_root_argument(std::string_view line);
// The device path a "root=" word names (UUID= and LABEL= become udev links).
std::optional<std::string> resolve_root_spec(std::string_view word);
// source with every needle replaced by replacement.
std::string replace_all(std::string_view source, std::string_view replacement, std::string_view needle);
// The device path named by the root= word of a command line file's text: its
// first line, up to any zero byte.
std::optional<std::string> root_device_from_command_line(std::string_view text);
// The first line of a file, or nullopt when it cannot be read.
std::optional<std::string> read_first_line(const char *path);

std::optional<std::string> command_line_get_root_device_name(const char *path);
std::optional<std::string> root_device();

// The largest lsblk JSON that find_root_disk() parses: real output is a few
// KiB even on machines with hundreds of disks.
inline constexpr size_t kLsblkJsonMax = 512 * 1024;
// Name of the disk whose partition lsblk shows mounted on "/", in json up to
// its first zero byte; nullopt for text longer than kLsblkJsonMax. Parse
// problems are written to standard error.
std::optional<std::string> find_root_disk(std::string_view json);
// The whole output of "lsblk -J". Unlike a plain "lsblk -J" command line,
// lsblk is started directly from /usr/bin/lsblk, else /bin/lsblk, and never
// looked up through PATH: a service with a careless PATH would run whatever
// a folder on it holds.
std::optional<std::string> get_lsblk_output();

} // namespace tq
