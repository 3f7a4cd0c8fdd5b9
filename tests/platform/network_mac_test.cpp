#include "platform/network_mac.h"

#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fixture.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

using Mac = std::array<unsigned char, 6>;
using CString = std::unique_ptr<char, tq::FreeDeleter>;

Mac mac(const char *text)
{
    Mac m{};
    unsigned v[6];
    if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        throw std::invalid_argument(text);
    for (int i = 0; i < 6; ++i)
        m[i] = static_cast<unsigned char>(v[i]);
    return m;
}


// One interface as the fake kernel knows it.
struct Nic {
    Mac current{};
    // nullopt: ETHTOOL_GPERMADDR fails.
    std::optional<Mac> permanent;
    // SIOCGIFHWADDR succeeds this many times, then fails with ENODEV.
    int hwaddr_reads_left = 1000;
};

// A fake getifaddrs() list and the two ioctls, answering from a table.
class FakeNet {
public:
    // One getifaddrs() entry; family -1 gives an entry without an address.
    void entry(const std::string &name, int family = AF_PACKET) { entries_.push_back({name, family}); }
    void nic(const std::string &name, Nic nic) { nics_[name] = nic; }

    void install()
    {
        tq::os::testing::set_getifaddrs([this](struct ifaddrs **out) { return build(out); },
                                        [](struct ifaddrs *list) { release(list); });
        tq::os::testing::set_ioctl([this](int, unsigned long request, void *arg) { return ioctl(request, arg); });
    }

    std::atomic<int> getifaddrs_calls{0};
    std::atomic<int> ioctl_calls{0};
    bool fail_getifaddrs = false;

private:
    struct Node {
        struct ifaddrs ifa;
        struct sockaddr_storage addr;
        char name[64];
    };

    int build(struct ifaddrs **out)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++getifaddrs_calls;
        if (fail_getifaddrs)
            return -1;
        struct ifaddrs *head = nullptr, **tail = &head;
        for (const auto &[name, family] : entries_) {
            Node *node = new Node{};
            std::snprintf(node->name, sizeof(node->name), "%s", name.c_str());
            node->ifa.ifa_name = node->name;
            if (family >= 0) {
                node->addr.ss_family = static_cast<sa_family_t>(family);
                node->ifa.ifa_addr = reinterpret_cast<struct sockaddr *>(&node->addr);
            }
            *tail = &node->ifa;
            tail = &node->ifa.ifa_next;
        }
        *out = head;
        return 0;
    }

    static void release(struct ifaddrs *list)
    {
        while (list) {
            struct ifaddrs *next = list->ifa_next;
            delete reinterpret_cast<Node *>(list);
            list = next;
        }
    }

    int ioctl(unsigned long request, void *arg)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++ioctl_calls;
        auto *req = static_cast<struct ifreq *>(arg);
        auto it = nics_.find(req->ifr_name);
        if (it == nics_.end()) {
            errno = ENODEV;
            return -1;
        }
        Nic &nic = it->second;
        if (request == SIOCGIFHWADDR) {
            if (nic.hwaddr_reads_left-- <= 0) {
                errno = ENODEV;
                return -1;
            }
            std::memcpy(req->ifr_hwaddr.sa_data, nic.current.data(), 6);
            return 0;
        }
        if (request == SIOCETHTOOL) {
            auto *perm = reinterpret_cast<struct ethtool_perm_addr *>(req->ifr_data);
            if (!nic.permanent || perm->cmd != ETHTOOL_GPERMADDR || perm->size < 6) {
                errno = EOPNOTSUPP;
                return -1;
            }
            perm->size = 6;
            std::memcpy(perm->data, nic.permanent->data(), 6);
            return 0;
        }
        errno = EINVAL;
        return -1;
    }

    std::mutex mutex_;
    std::vector<std::pair<std::string, int>> entries_;
    std::map<std::string, Nic> nics_;
};

// Sysfs of an interface on a PCI function, and of one on a USB port.
void pci_device(tqtest::Fixture &f, const std::string &name, const std::string &function)
{
    f.mkdir("/sys/devices/pci0000:00/" + function);
    f.symlink("../../../devices/pci0000:00/" + function, "/sys/class/net/" + name + "/device");
}

void usb_bus(tqtest::Fixture &f)
{
    const std::string hub = "/sys/devices/pci0000:00/0000:00:14.0/usb2";
    for (const char *node : {"", "/2-1", "/2-1/2-1:1.0"})
        f.mkdir(hub + node);
    f.symlink("../../../devices/pci0000:00/0000:00:14.0/usb2", "/sys/bus/usb/devices/usb2");
    f.symlink("../../../devices/pci0000:00/0000:00:14.0/usb2/2-1", "/sys/bus/usb/devices/2-1");
    f.symlink("../../../devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0", "/sys/bus/usb/devices/2-1:1.0");
}

void usb_device(tqtest::Fixture &f, const std::string &name)
{
    f.symlink("../../../devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0", "/sys/class/net/" + name + "/device");
}

bool traced(const tqtest::Fixture &f, const std::string &line)
{
    return f.trace_log().find(": " + line + "\n") != std::string::npos;
}

TEST(NetworkMac, MachineWithoutWiredInterfaceAnswersNullAndScansAgain)
{
    tqtest::Fixture f;
    FakeNet net;
    for (const char *name : {"lo", "wlan0", "virbr0", "veth0a1b2", "docker0", "Eth9"}) {
        net.entry(name, AF_PACKET);
        net.entry(name, AF_INET);
        net.nic(name, {mac("fe:00:00:00:00:01"), mac("fe:00:00:00:00:01")});
    }
    net.install();
    tqtest::LeakCheck leaks;

    EXPECT_EQ(tqtest::take(tavro_quenda_get_network_interface_max_mac()), "<null>");
    EXPECT_EQ(net.ioctl_calls, 0) << "no interface of these names is a candidate";
    EXPECT_EQ(f.trace_log().find("found network interface device"), std::string::npos);
    // A null answer is not kept: the next call reads the system again.
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
    EXPECT_EQ(net.getifaddrs_calls, 2);
    net.fail_getifaddrs = true;
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(NetworkMac, LargestPermanentAddressOfPciInterfacesWins)
{
    tqtest::Fixture f;
    usb_bus(f);
    FakeNet net;
    // Each interface appears once per address family, as getifaddrs lists them.
    for (const char *name : {"eth0", "eth1"}) {
        for (int family : {AF_PACKET, AF_INET, AF_INET6})
            net.entry(name, family);
    }
    // Current addresses would give the opposite answer.
    net.nic("eth0", {mac("ff:00:00:00:00:00"), mac("aa:00:00:00:00:01")});
    net.nic("eth1", {mac("00:00:00:00:00:01"), mac("BB:0C:00:00:00:02")});
    pci_device(f, "eth0", "0000:03:00.0");
    pci_device(f, "eth1", "0000:03:00.1");
    net.install();
    tqtest::LeakCheck leaks;

    EXPECT_EQ(tqtest::take(tavro_quenda_get_network_interface_max_mac()), "bb:0c:00:00:00:02");
    EXPECT_TRUE(leaks.clean());
    EXPECT_TRUE(traced(f, "found network interface device: eth0, ignoreMountUSB: true"));
    EXPECT_TRUE(traced(f, "mac: <ff:00:00:00:00:00>,  permanent_mac: <aa:00:00:00:00:01>."));
    EXPECT_TRUE(traced(f, "tavro_quenda_get_network_interface_max_mac: bb:0c:00:00:00:02"));

    // The order is that of the lower-case strings: 0a: sorts below a0:.
    tq::InterfaceMacList list = {{"eth0", "", "0a:ff:ff:ff:ff:ff"},
                                 {"eth1", "", "a0:00:00:00:00:00"},
                                 {"eth2", "", "9f:ff:ff:ff:ff:ff"}};
    EXPECT_EQ(tq::max_permanent_mac(list), "a0:00:00:00:00:00");
    EXPECT_EQ(tq::max_permanent_mac({}), std::nullopt);
}

TEST(NetworkMac, OnlyWiredNamesWithAnAddressAreCandidates)
{
    tqtest::Fixture f;
    FakeNet net;
    net.entry("eth7", -1);       // no address
    net.entry("eth8", AF_UNIX);  // not an address family of an interface
    net.entry("veth0", AF_PACKET);
    net.entry("em1", AF_INET);
    net.entry("eno2", AF_INET6);
    for (const char *name : {"eth7", "eth8", "veth0"})
        net.nic(name, {mac("ff:ff:ff:ff:ff:f0"), mac("ff:ff:ff:ff:ff:f0")});
    net.nic("em1", {mac("10:00:00:00:00:00"), mac("10:00:00:00:00:00")});
    net.nic("eno2", {mac("20:00:00:00:00:00"), mac("20:00:00:00:00:00")});
    pci_device(f, "em1", "0000:01:00.0");
    pci_device(f, "eno2", "0000:02:00.0");
    net.install();

    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "20:00:00:00:00:00");
    std::string log = f.trace_log();
    for (const char *skipped : {"eth7", "eth8", "veth0"})
        EXPECT_EQ(log.find(std::string("device: ") + skipped), std::string::npos) << skipped;
}

TEST(NetworkMac, UnreadablePermanentAddressCountsAsZeros)
{
    tqtest::Fixture f;
    FakeNet net;
    net.entry("eth0");
    net.nic("eth0", {mac("12:34:56:78:9a:bc"), std::nullopt});
    pci_device(f, "eth0", "0000:03:00.0");
    net.install();

    // The zero address, not the current one, stands for a NIC ethtool cannot read.
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "00:00:00:00:00:00");
    EXPECT_TRUE(traced(f, "Could not read permanent MAC."));
    EXPECT_TRUE(traced(f, "mac: <12:34:56:78:9a:bc>,  permanent_mac: <00:00:00:00:00:00>."));
}

TEST(NetworkMac, ZeroAddressLosesToAnyOtherAndVanishedDeviceFallsBackToCurrent)
{
    tqtest::Fixture f;
    FakeNet net;
    net.entry("eth0");
    net.entry("eth1");
    net.nic("eth0", {mac("fe:34:56:78:9a:bc"), std::nullopt});
    // Gone between the two reads: its current address stands in.
    net.nic("eth1", {mac("00:00:00:00:00:01"), mac("ff:ff:ff:ff:ff:ff"), 1});
    pci_device(f, "eth0", "0000:03:00.0");
    pci_device(f, "eth1", "0000:03:00.1");
    net.install();

    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "00:00:00:00:00:01");
    EXPECT_TRUE(traced(f, "Set device name error: No such device."));
    EXPECT_TRUE(traced(f, "no permanent mac!"));
    EXPECT_TRUE(traced(f, "mac: <00:00:00:00:00:01>,  permanent_mac: <00:00:00:00:00:01>."));
}

TEST(NetworkMac, UsbAdapterOrUnreadableInterfaceEndsTheWalk)
{
    {
        tqtest::Fixture f;
        FakeNet net;
        net.entry("enx001122334455");
        net.entry("eth0");
        net.nic("enx001122334455", {mac("00:11:22:33:44:55"), mac("00:11:22:33:44:55")});
        net.nic("eth0", {mac("ff:00:00:00:00:00"), mac("ff:00:00:00:00:00")});
        usb_bus(f);
        usb_device(f, "enx001122334455");
        pci_device(f, "eth0", "0000:03:00.0");
        // Only the bonding slaves are left to answer.
        f.write("/proc/net/bonding/bond0", "Slave Interface: eth5\nPermanent HW addr: 10:20:30:40:50:60\n");
        net.install();
        tqtest::LeakCheck leaks;

        EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "10:20:30:40:50:60");
        EXPECT_TRUE(leaks.clean());
        EXPECT_TRUE(traced(f, "<enx001122334455> mounted on the usb bus, ignore."));
        EXPECT_EQ(f.trace_log().find("device: eth0"), std::string::npos);
        EXPECT_EQ(tq::list_network_interfaces(false).size(), 3u) << "without the USB rule all are listed";
    }
    {
        tqtest::Fixture f;
        FakeNet net;
        net.entry("eth0");
        net.entry("enx001122334455");
        net.nic("enx001122334455", {mac("ff:11:22:33:44:55"), mac("ff:11:22:33:44:55")});
        net.nic("eth0", {mac("01:00:00:00:00:00"), mac("01:00:00:00:00:00")});
        usb_bus(f);
        usb_device(f, "enx001122334455");
        pci_device(f, "eth0", "0000:03:00.0");
        net.install();
        // The first answer above is kept for the process: ask the scan itself.
        EXPECT_EQ(tq::max_permanent_mac(tq::list_network_interfaces(true)), "01:00:00:00:00:00");
    }
    {
        // eth0 has no readable current address: eth1 after it is not used.
        tqtest::Fixture f;
        FakeNet net;
        net.entry("eth0");
        net.entry("eth1");
        net.nic("eth1", {mac("ff:00:00:00:00:00"), mac("ff:00:00:00:00:00")});
        pci_device(f, "eth0", "0000:03:00.0");
        pci_device(f, "eth1", "0000:03:00.1");
        net.install();
        EXPECT_EQ(tq::max_permanent_mac(tq::list_network_interfaces(true)), std::nullopt);
    }
}

TEST(NetworkMac, InterfaceWithoutProvenAttachmentCountsAsUsb)
{
    tqtest::Fixture f;
    usb_bus(f);
    // A container's eth0: no device link at all.
    f.mkdir("/sys/class/net/eth0");
    // A device entry that is not a link.
    f.write("/sys/class/net/eth1/device", "");
    // A link readlink cannot resolve.
    f.symlink("../../../devices/gone/0000:09:00.0", "/sys/class/net/eth2/device");
    pci_device(f, "eth3", "0000:03:00.0");
    tqtest::LeakCheck leaks;

    EXPECT_EQ(tq::is_interface_on_usb_bus(nullptr), 1);
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth0"), 1);
    EXPECT_TRUE(traced(f, "get stat error"));
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth1"), 1);
    EXPECT_TRUE(traced(f, "is not link file"));
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth2"), 1);
    EXPECT_TRUE(traced(f, "get real path error"));
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth3"), 0);
    EXPECT_TRUE(leaks.clean());

    // In the scan, the container's interface ends the walk.
    FakeNet net;
    net.entry("eth0");
    net.entry("eth3");
    net.nic("eth0", {mac("02:42:ac:11:00:02"), mac("02:42:ac:11:00:02")});
    net.nic("eth3", {mac("00:00:00:00:00:03"), mac("00:00:00:00:00:03")});
    net.install();
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
}

TEST(NetworkMac, MachineWithoutUsbBusStillGetsItsMac)
{
    tqtest::Fixture f;
    pci_device(f, "eth0", "0000:00:03.0");
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth0"), 0);

    // Present but unreadable as a directory: undecidable, so USB.
    f.write("/sys/bus/usb/devices", "");
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth0"), 1);
}

TEST(NetworkMac, UsbDevicesAreMatchedByTheirNodeName)
{
    tqtest::Fixture f;
    usb_bus(f);
    usb_device(f, "enx0");
    // A USB hub port one level up (2-1) matches too: its entry is listed.
    f.symlink("../../../devices/pci0000:00/0000:00:14.0/usb2/2-1", "/sys/class/net/usb0/device");
    // The host controller itself is a PCI function.
    f.symlink("../../../devices/pci0000:00/0000:00:14.0", "/sys/class/net/eth0/device");
    EXPECT_EQ(tq::is_interface_on_usb_bus("enx0"), 1);
    EXPECT_EQ(tq::is_interface_on_usb_bus("usb0"), 1);
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth0"), 0);

    EXPECT_EQ(tq::path_basename("/sys/devices/pci0000:00/0000:03:00.0"), "0000:03:00.0");
    EXPECT_EQ(tq::path_basename("/a/b/"), "b");
    EXPECT_EQ(tq::path_basename("/"), "/");
    EXPECT_EQ(tq::path_basename("name"), "name");
}

TEST(NetworkMac, InterfaceNameIsNeverInterpretedByTheShell)
{
    tqtest::Fixture f;
    // Interface names cannot hold a slash, so the marker is relative to the working directory.
    const std::string marker = "tq-shell-marker-" + std::to_string(::getpid());
    for (const std::string &name : {"en'$(touch " + marker + ")'", "en\";touch " + marker, "en`touch " + marker + "`",
                                    std::string("en a'b\\")}) {
        pci_device(f, name, "0000:03:00.0");
        EXPECT_EQ(tq::is_interface_on_usb_bus(name.c_str()), 0) << name;
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
    std::filesystem::remove(marker);
}

TEST(NetworkMac, BondSlavesComeFromTheBondingFiles)
{
    tqtest::Fixture f;
    FakeNet net;
    // Slaves carry the bond's address; ethtool cannot read eth2's own.
    net.entry("bond0", AF_INET);
    net.entry("eth1");
    net.entry("eth2");
    net.nic("eth1", {mac("08:00:27:9d:9a:2a"), mac("08:00:27:9d:9a:2a")});
    net.nic("eth2", {mac("08:00:27:9d:9a:2a"), std::nullopt});
    pci_device(f, "eth1", "0000:00:08.0");
    pci_device(f, "eth2", "0000:00:09.0");
    f.copy("/proc/net/bonding/bond0", tqtest::corpus("bonding/bond0-active-backup-fail-over-mac-vagrant.txt"));
    f.mkdir("/proc/net/bonding/not-a-bond");
    net.install();
    tqtest::LeakCheck leaks;

    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "08:00:27:f1:97:66");
    EXPECT_TRUE(leaks.clean());

    tq::InterfaceMacList list = tq::list_network_interfaces(true);
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[2].name, "eth1");
    EXPECT_EQ(list[3].name, "eth2");
    EXPECT_EQ(list[3].mac, "08:00:27:f1:97:66");
    EXPECT_EQ(list[3].permanent_mac, "08:00:27:f1:97:66");
}

TEST(NetworkMac, BondingFilesOfRealMachinesParse)
{
    struct Case {
        const char *file;
        std::vector<std::pair<std::string, std::string>> slaves;
    };
    const Case cases[] = {
        {"bond0-active-backup-fail-over-mac-vagrant.txt",
         {{"eth1", "08:00:27:9d:9a:2a"}, {"eth2", "08:00:27:f1:97:66"}}},
        {"bond0-8023ad-one-slave-down-centos.txt",
         {{"enp1s0f0", "00:25:90:85:81:f2"}, {"enp1s0f1", "00:25:90:85:81:f3"}}},
        {"bond0-8023ad-10g-ubuntu-last-line-cut-in-source.txt",
         {{"enp5s0f1", "ac:1f:6b:8a:48:6f"}, {"enp5s0f0", "ac:1f:6b:8a:48:6e"}}},
        // Masked by the reporter; taken as written, in lower case.
        {"bond0-active-backup-kernel-5.10-masked-mac-addresses.txt",
         {{"enp2s0", "80:ee:73:xx:xx:xx"}, {"enp3s0", "80:ee:73:xx:xx:xx"}}},
    };
    for (const Case &c : cases) {
        tq::InterfaceMacList list = tq::bonding_file_slaves(tqtest::corpus(std::string("bonding/") + c.file).c_str());
        std::vector<std::pair<std::string, std::string>> got;
        for (const auto &r : list) {
            EXPECT_EQ(r.mac, r.permanent_mac);
            got.push_back({r.name, r.permanent_mac});
        }
        EXPECT_EQ(got, c.slaves) << c.file;
    }

    tqtest::Fixture f;
    std::string long_name(300, 'n');
    f.write("/proc/net/bonding/bond1", "Slave Interface: eth0\r\n"
                                      "Permanent HW addr: AA:BB:CC:DD:EE:0F\r\n"
                                      "Slave Interface: " + long_name + "\n"
                                      "Permanent HW addr: 01:02:03:04:05:06\n"
                                      "Slave Interface: eth9\n"
                                      "MII Status: up\n");
    tq::InterfaceMacList list = tq::bonding_file_slaves("/proc/net/bonding/bond1");
    ASSERT_EQ(list.size(), 2u) << "a slave without a permanent address line contributes nothing";
    EXPECT_EQ(list[0].name, "eth0");
    EXPECT_EQ(list[0].permanent_mac, "aa:bb:cc:dd:ee:0f");
    EXPECT_EQ(list[1].name, std::string(127, 'n'));
    EXPECT_TRUE(tq::bonding_file_slaves("/proc/net/bonding/missing").empty());
}

TEST(NetworkMac, FirstAnswerIsKeptForTheProcess)
{
    tqtest::Fixture f;
    FakeNet net;
    net.entry("eth0");
    net.nic("eth0", {mac("00:00:00:00:00:01"), mac("52:54:00:12:34:56")});
    pci_device(f, "eth0", "0000:03:00.0");
    net.install();
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "52:54:00:12:34:56");
    int scans = net.getifaddrs_calls, ioctls = net.ioctl_calls;

    // The machine changes; the answer does not, and nothing is read.
    FakeNet other;
    other.entry("eth0");
    other.nic("eth0", {mac("ff:00:00:00:00:01"), mac("ff:54:00:12:34:56")});
    other.install();
    tqtest::LeakCheck leaks;
    CString first(network_interface_get_max_mac());
    CString second(tavro_quenda_get_network_interface_max_mac());
    ASSERT_TRUE(first && second);
    EXPECT_STREQ(first.get(), "52:54:00:12:34:56");
    EXPECT_STREQ(second.get(), "52:54:00:12:34:56");
    EXPECT_NE(first.get(), second.get()) << "each caller gets a copy of its own";
    EXPECT_EQ(other.getifaddrs_calls + other.ioctl_calls, 0);
    EXPECT_EQ(net.getifaddrs_calls, scans);
    EXPECT_EQ(net.ioctl_calls, ioctls);
    EXPECT_TRUE(leaks.clean());
}

TEST(NetworkMac, ConcurrentFirstCallsAgreeOnOneAnswer)
{
    tqtest::Fixture f;
    FakeNet net;
    net.entry("eth0");
    net.nic("eth0", {mac("00:00:00:00:00:01"), mac("52:54:00:ab:cd:ef")});
    pci_device(f, "eth0", "0000:03:00.0");
    net.install();

    // Under the leak checker, a lost or doubly stored copy shows.
    constexpr int kThreads = 8;
    std::vector<std::string> answers(kThreads);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            while (!go)
                std::this_thread::yield();
            answers[i] = tqtest::take(network_interface_get_max_mac());
        });
    }
    go = true;
    for (std::thread &t : threads)
        t.join();
    for (const std::string &a : answers)
        EXPECT_EQ(a, "52:54:00:ab:cd:ef");
    EXPECT_GE(net.getifaddrs_calls, 1);
}

// This machine: the answer is an address a PCI-attached interface reports.
TEST(NetworkMacRealMachine, AnswerIsAnAddressOfAPciInterface)
{
    namespace fs = std::filesystem;
    std::set<std::string> addresses;
    std::string reason = "no eth*/en*/em* interface on a PCI device here";
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/sys/class/net", ec)) {
        std::string name = entry.path().filename();
        if (!tq::is_wired_interface_name(name.c_str()))
            continue;
        std::string device = fs::weakly_canonical(entry.path() / "device", ec).string();
        if (device.rfind("/sys/devices/pci", 0) != 0 || device.find("/usb") != std::string::npos) {
            // The walk may end at such an interface, whatever follows it.
            GTEST_SKIP() << name << " is not on a PCI device (" << device << ")";
        }
        std::string sysfs = tqtest::read_file(entry.path() / "address");
        addresses.insert(sysfs.substr(0, sysfs.find('\n')));
        std::string command = "ethtool -P " + tq::os::shell_quote(name) + " 2>/dev/null";
        if (FILE *p = ::popen(command.c_str(), "r")) {
            char line[256] = {};
            if (std::fgets(line, sizeof(line), p)) {
                char perm[64] = {};
                if (std::sscanf(line, "Permanent address: %63s", perm) == 1)
                    addresses.insert(perm);
            }
            ::pclose(p);
        }
    }
    if (addresses.empty())
        GTEST_SKIP() << reason;
    // The real system seen through a fixture, so that the trace log stays in it.
    tqtest::Fixture f;
    f.symlink("/sys", "/sys");
    f.symlink("/proc", "/proc");
    CString answer(network_interface_get_max_mac());
    ASSERT_TRUE(answer);
    EXPECT_TRUE(addresses.count(answer.get())) << answer.get();
    std::string all;
    for (const std::string &a : addresses)
        all += a + " ";
    std::printf("answer %s among: %s\n", answer.get(), all.c_str());
}

} // namespace
