// SPDX-License-Identifier: LGPL-2.1-or-later
// Largest permanent MAC of the wired NICs and bonding slaves (internal).
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tq {

// One candidate: an interface (or bonding slave) and its two addresses, each
// in lower-case colon form.
struct InterfaceMacRecord {
    std::string name;
    std::string mac;
    std::string permanent_mac;
};
using InterfaceMacList = std::vector<InterfaceMacRecord>;

// Six bytes as "xx:xx:xx:xx:xx:xx", lower case.
std::string format_mac(const unsigned char bytes[6]);

// Whether name is one the scan looks at: eth*, en*, em* (case-sensitive).
bool is_wired_interface_name(const char *name) noexcept;

// The scan of getifaddrs() plus the bonding slaves, in kernel order. With
// ignoreMountUSB the walk ends at the first interface on (or possibly on) USB.
InterfaceMacList list_network_interfaces(bool ignoreMountUSB);

// 1 when the interface hangs on the USB bus or that cannot be ruled out; 0
// when its device is elsewhere or the machine has no USB bus at all.
int is_interface_on_usb_bus(const char *name);

// Last component of path, as POSIX basename() gives it.
std::string_view path_basename(std::string_view path);

// Current address (SIOCGIFHWADDR); nullopt when it cannot be read.
std::optional<std::string> interface_current_mac(const char *name);
// Permanent address (ETHTOOL_GPERMADDR); "00:00:00:00:00:00" when ethtool
// cannot tell, nullopt only when the device cannot be found at all.
std::optional<std::string> interface_permanent_mac(const char *name);

// Slaves of every bond under /proc/net/bonding.
InterfaceMacList bonding_slaves();
// Slaves listed in one bonding status file.
InterfaceMacList bonding_file_slaves(const char *path);
// The same over an open stream: each "Slave Interface:" with the next
// "Permanent HW addr:" after it, both fields holding that address.
InterfaceMacList parse_bonding_slaves(FILE *stream);

// Sort order of candidates: negative when a's permanent address is the
// greater string (so the list runs from greatest to smallest).
int compare_permanent_mac_desc(const InterfaceMacRecord &a, const InterfaceMacRecord &b) noexcept;

// The greatest permanent address of the list, or nullopt for an empty list.
std::optional<std::string> max_permanent_mac(InterfaceMacList list);

} // namespace tq
