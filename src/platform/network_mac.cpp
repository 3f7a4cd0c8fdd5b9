// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/network_mac.h"

#include <dirent.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr char kUsbDevices[] = "/sys/bus/usb/devices/";
constexpr char kBondingDir[] = "/proc/net/bonding";
constexpr size_t kLineSize = 1024;
// Size of the slave-name and address fields of a bonding file.
constexpr size_t kBondFieldSize = 128;
constexpr size_t kMacLen = 6;
// The ethtool request is a fixed kernel layout (two 32-bit words, then the
// address bytes), the same on every architecture; the request is built by
// offset, so hold the header to it.
static_assert(sizeof(struct ethtool_perm_addr) == 8);
static_assert(offsetof(struct ethtool_perm_addr, cmd) == 0 && offsetof(struct ethtool_perm_addr, size) == 4 &&
              offsetof(struct ethtool_perm_addr, data) == sizeof(struct ethtool_perm_addr));
static_assert(sizeof(ifreq::ifr_hwaddr.sa_data) >= kMacLen);

// Kept for the life of the process: the first address found. Readers never
// lock; the first writer wins and a racing loser frees its own copy.
std::atomic<char *> max_mac_cache{nullptr};

void cut_at_newline(char *text) noexcept
{
    if (char *lf = text ? std::strchr(text, '\n') : nullptr)
        *lf = '\0';
}

void lowercase_in_place(char *text) noexcept { toLowerCase(text); }

// An ifreq naming the interface; names longer than the kernel allows are cut.
struct ifreq interface_request(const char *name) noexcept
{
    struct ifreq request;
    std::memset(&request, 0, sizeof(request));
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    return request;
}

} // namespace

std::string format_mac(const unsigned char bytes[6])
{
    char text[kLineSize] = {};
    std::snprintf(text, sizeof(text), "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    lowercase_in_place(text);
    return text;
}

bool is_wired_interface_name(const char *name) noexcept
{
    return std::strncmp(name, "eth", 3) == 0 || std::strncmp(name, "en", 2) == 0 || std::strncmp(name, "em", 2) == 0;
}

std::string_view path_basename(std::string_view path)
{
    if (path.empty())
        return ".";
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos || path.size() == 1)
        return path;
    return path.substr(slash + 1);
}

int is_interface_on_usb_bus(const char *name)
{
    // Whatever cannot be examined counts as USB: an interface is only used
    // when its attachment is known.
    if (!name)
        return 1;
    std::string device = "/sys/class/net/" + std::string(name) + "/device";
    struct stat st;
    if (os::lstat(device.c_str(), &st) != 0) {
        quenda_trace("get stat error");
        return 1;
    }
    if (!S_ISLNK(st.st_mode)) {
        quenda_trace("is not link file");
        return 1;
    }

    // Resolved in-process; readlink -f gave the same path for a link that resolves.
    char resolved[PATH_MAX] = {};
    if (!os::realpath(device.c_str(), resolved) || resolved[0] == '\0') {
        quenda_trace("get real path error");
        return 1;
    }
    std::string_view node = path_basename(resolved);

    errno = 0;
    os::UniqueDir usb = os::opendir(kUsbDevices);
    if (!usb) {
        // No USB bus at all: nothing can hang on it.
        return errno == ENOENT ? 0 : 1;
    }
    // A USB interface node (2-1:1.0) is listed under the USB devices; a PCI
    // function (0000:03:00.0) is not.
    while (struct dirent *entry = ::readdir(usb.get())) {
        std::string_view entry_name = entry->d_name;
        if (entry_name.empty() || entry_name == "." || entry_name == "..")
            continue;
        if (entry_name.substr(0, node.size()) == node)
            return 1;
    }
    return 0;
}

std::optional<std::string> interface_current_mac(const char *name)
{
    UniqueFD sock = os::socket(AF_INET, SOCK_DGRAM, 0);
    if (!sock)
        return std::nullopt;
    struct ifreq request = interface_request(name);
    request.ifr_hwaddr.sa_family = AF_INET;
    if (os::ioctl(sock.get(), SIOCGIFHWADDR, &request) != 0)
        return std::nullopt;
    return format_mac(reinterpret_cast<const unsigned char *>(request.ifr_hwaddr.sa_data));
}

std::optional<std::string> interface_permanent_mac(const char *name)
{
    struct ifreq request = interface_request(name);
    UniqueFD sock = os::socket(AF_INET, SOCK_DGRAM, 0);
    if (!sock)
        return std::nullopt;
    // Probe that the device exists: only a missing device yields no answer.
    if (os::ioctl(sock.get(), SIOCGIFHWADDR, &request) < 0) {
        int err = errno;
        quenda_trace("Set device name error: %s.", std::strerror(err));
        return std::nullopt;
    }

    // struct ethtool_perm_addr with room for a six-byte address after it.
    alignas(struct ethtool_perm_addr) unsigned char perm[sizeof(struct ethtool_perm_addr) + 8] = {};
    const __u32 command = ETHTOOL_GPERMADDR;
    const __u32 size = kMacLen;
    std::memcpy(perm + offsetof(struct ethtool_perm_addr, cmd), &command, sizeof(command));
    std::memcpy(perm + offsetof(struct ethtool_perm_addr, size), &size, sizeof(size));
    request.ifr_data = reinterpret_cast<char *>(perm);

    // Drivers that cannot tell give the zero address rather than no answer.
    unsigned char address[kMacLen] = {};
    if (os::ioctl(sock.get(), SIOCETHTOOL, &request) == 0)
        std::memcpy(address, perm + sizeof(struct ethtool_perm_addr), kMacLen);
    else
        quenda_trace("Could not read permanent MAC.");
    return format_mac(address);
}

InterfaceMacList parse_bonding_slaves(FILE *stream)
{
    InterfaceMacList slaves;
    char line[kLineSize];
    while (std::fgets(line, sizeof(line), stream)) {
        char name[kBondFieldSize] = {};
        if (std::sscanf(line, "Slave Interface: %127s", name) != 1)
            continue;
        cut_at_newline(name);

        // The slave's address is on the first "Permanent HW addr" line after it.
        char address[kBondFieldSize] = {};
        while (std::fgets(line, sizeof(line), stream)) {
            if (std::sscanf(line, "Permanent HW addr: %127s", address) == 1) {
                cut_at_newline(address);
                lowercase_in_place(address);
                break;
            }
        }
        // The bond hides the slaves' own current addresses: both fields hold
        // the permanent one.
        if (name[0] != '\0' && address[0] != '\0')
            slaves.push_back({name, address, address});
    }
    return slaves;
}

InterfaceMacList bonding_file_slaves(const char *path)
{
    os::UniqueFile file = os::fopen(path, "r");
    if (!file)
        return {};
    return parse_bonding_slaves(file.get());
}

InterfaceMacList bonding_slaves()
{
    InterfaceMacList slaves;
    os::UniqueDir dir = os::opendir(kBondingDir);
    if (!dir)
        return slaves;
    while (struct dirent *entry = ::readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        std::string path = std::string(kBondingDir) + "/" + entry->d_name;
        struct stat st;
        if (os::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        InterfaceMacList more = bonding_file_slaves(path.c_str());
        std::move(more.begin(), more.end(), std::back_inserter(slaves));
    }
    return slaves;
}

InterfaceMacList list_network_interfaces(bool ignoreMountUSB)
{
    InterfaceMacList list;
    {
        os::UniqueIfAddrs addresses;
        if (os::getifaddrs(&addresses) != 0)
            return list;
        // An interface appears once per address; the duplicates do no harm.
        for (struct ifaddrs *ifa = addresses.get(); ifa; ifa = ifa->ifa_next) {
            if (!ifa->ifa_addr)
                continue;
            int family = ifa->ifa_addr->sa_family;
            if (family != AF_INET && family != AF_INET6 && family != AF_PACKET)
                continue;
            const char *name = ifa->ifa_name;
            if (!name || !is_wired_interface_name(name))
                continue;
            quenda_trace("found network interface device: %s, ignoreMountUSB: %s", name,
                         ignoreMountUSB ? "true" : "false");

            // The walk ends (rather than skipping) at a USB adapter or an
            // unreadable interface: what follows in the kernel's list is not used.
            if (ignoreMountUSB && is_interface_on_usb_bus(name) == 1) {
                quenda_trace("<%s> mounted on the usb bus, ignore.", name);
                break;
            }
            std::optional<std::string> mac = interface_current_mac(name);
            if (!mac)
                break;
            std::optional<std::string> permanent = interface_permanent_mac(name);
            if (!permanent) {
                quenda_trace("no permanent mac!");
                permanent = mac;
            }
            quenda_trace("mac: <%s>,  permanent_mac: <%s>.", mac->c_str(), permanent->c_str());
            list.push_back({name, std::move(*mac), std::move(*permanent)});
        }
    }
    InterfaceMacList slaves = bonding_slaves();
    std::move(slaves.begin(), slaves.end(), std::back_inserter(list));
    return list;
}

int compare_permanent_mac_desc(const InterfaceMacRecord &a, const InterfaceMacRecord &b) noexcept
{
    return -std::strcmp(a.permanent_mac.c_str(), b.permanent_mac.c_str());
}

std::optional<std::string> max_permanent_mac(InterfaceMacList list)
{
    if (list.empty())
        return std::nullopt;
    // Stable, so equal addresses keep their scan order.
    std::stable_sort(list.begin(), list.end(), [](const InterfaceMacRecord &a, const InterfaceMacRecord &b) {
        return compare_permanent_mac_desc(a, b) < 0;
    });
    return list.front().permanent_mac;
}

} // namespace tq

extern "C" {

char *network_interface_get_max_mac(void) noexcept
{
    return tq::guarded<char *>(nullptr, []() -> char * {
        if (const char *cached = tq::max_mac_cache.load(std::memory_order_acquire))
            return tq::dup_c(cached);

        std::optional<std::string> answer = tq::max_permanent_mac(tq::list_network_interfaces(true));
        // A failed scan is not kept: the next call looks again.
        if (!answer)
            return nullptr;
        char *keep = tq::dup_c(*answer);
        char *winner = nullptr;
        if (keep && !tq::max_mac_cache.compare_exchange_strong(winner, keep, std::memory_order_acq_rel,
                                                               std::memory_order_acquire)) {
            // Another thread stored its answer first; that one holds for the process.
            std::free(keep);
            return tq::dup_c(winner);
        }
        return tq::dup_c(*answer);
    });
}

char *tavro_quenda_get_network_interface_max_mac(void) noexcept
{
    char *mac = network_interface_get_max_mac();
    if (mac)
        quenda_trace("tavro_quenda_get_network_interface_max_mac: %s", mac);
    return mac;
}

} // extern "C"
