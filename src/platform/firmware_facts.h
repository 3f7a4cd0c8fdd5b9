// SPDX-License-Identifier: LGPL-2.1-or-later
// Firmware (SMBIOS type 1) facts: serial number, vendor, model (internal).
#pragma once

namespace tq {

// The dmidecode pipeline that prints the system serial number, inner blanks kept.
inline constexpr char kSerialNumberCommand[] =
    "/usr/sbin/dmidecode -t 1 |grep -i 'Serial Number' | awk -F': ' '{print $2}'";

} // namespace tq
