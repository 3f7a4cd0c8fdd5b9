// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/network_mac.h"

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <latch>
#include <mutex>
#include <set>
#include <thread>

#include "built_program.h"
#include "foundation/os.h"
#include "platform_support.h"

namespace {

// Targets of /sys/class/net/NAME/device; nullptr: no such entry, "": a regular file.
constexpr const char *kPci = "../../../devices/pci0000:00/0000:03:00.0", *kGone = "../../../devices/gone/0000:09:00.0";
constexpr const char *kHost = "../../../devices/pci0000:00/0000:00:14.0";
constexpr const char *kUsb = "../../../devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0";
constexpr const char *kHubPort = "../../../devices/pci0000:00/0000:00:14.0/usb2/2-1";
// A bond slave's address, smaller than every interface's: the answer when the walk took none.
constexpr const char *kFloor = "00:00:00:00:00:10", *kFF = "ff:00:00:00:00:00";

// One interface as the fake kernel knows it: current nullptr cannot be read, permanent "" is the current
// one and nullptr makes ETHTOOL_GPERMADDR fail; after `reads` reads of the current address it is gone.
struct Iface {
    std::string name;
    const char *current, *permanent = "";
    const char *device = kPci;
    int family = AF_PACKET, reads = 1000; // family -1: an entry without an address
};

int put_mac(const char *text, void *out)
{
    auto *b = static_cast<unsigned char *>(out);
    return std::sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", b, b + 1, b + 2, b + 3, b + 4, b + 5) == 6 ? 0 : -1;
}

// A fake getifaddrs() list, in the order of the interfaces, and the two ioctls; the kernel sees 15 bytes of a name.
struct FakeNet {
    explicit FakeNet(std::vector<Iface> list) : ifaces(std::move(list)), nodes(ifaces.size())
    {
        for (size_t i = 0; i < ifaces.size(); ++i) {
            nodes[i].second.ss_family = static_cast<sa_family_t>(ifaces[i].family);
            nodes[i].first.ifa_next = i + 1 < ifaces.size() ? &nodes[i + 1].first : nullptr;
            nodes[i].first.ifa_name = ifaces[i].name.data();
            nodes[i].first.ifa_addr = ifaces[i].family >= 0 ? reinterpret_cast<sockaddr *>(&nodes[i].second) : nullptr;
        }
        tq::os::testing::set_getifaddrs([this](ifaddrs **out) {
            *out = ifaces.empty() ? nullptr : &nodes[0].first;
            return 0;
        }, [](ifaddrs *) {});
        tq::os::testing::set_ioctl([this](int, unsigned long request, void *arg) {
            std::lock_guard<std::mutex> lock(mutex);
            auto *req = static_cast<ifreq *>(arg);
            auto it = std::find_if(ifaces.begin(), ifaces.end(),
                                   [&](const Iface &i) { return i.name.substr(0, IFNAMSIZ - 1) == req->ifr_name; });
            errno = ENODEV;
            if (it == ifaces.end() || !it->current || (request == SIOCGIFHWADDR && it->reads-- <= 0))
                return -1;
            if (request == SIOCGIFHWADDR)
                return put_mac(it->current, req->ifr_hwaddr.sa_data);
            auto *perm = reinterpret_cast<ethtool_perm_addr *>(req->ifr_data);
            errno = EOPNOTSUPP;
            if (request != SIOCETHTOOL || !it->permanent || perm->cmd != ETHTOOL_GPERMADDR || perm->size < 6)
                return -1;
            perm->size = 6;
            return put_mac(*it->permanent ? it->permanent : it->current, perm->data);
        });
    }

    std::mutex mutex;
    std::vector<Iface> ifaces;
    std::vector<std::pair<ifaddrs, sockaddr_storage>> nodes;
};

// A PCI network function, a USB bus behind its host controller, and each interface's device entry.
void attach(tqtest::Fixture &f, const std::vector<Iface> &ifaces, bool usb_bus = true)
{
    f.mkdir("/sys/devices/pci0000:00/0000:03:00.0");
    for (const char *node : {"/usb2", "/usb2/2-1", "/usb2/2-1/2-1:1.0"}) {
        f.mkdir("/sys/devices/pci0000:00/0000:00:14.0" + std::string(node));
        if (usb_bus)
            f.symlink(kHost + std::string(node), "/sys/bus/usb/devices" + std::string(std::strrchr(node, '/')));
    }
    for (const Iface &i : ifaces) {
        if (i.device && *i.device)
            f.symlink(i.device, "/sys/class/net/" + i.name + "/device");
        else if (i.device)
            f.write("/sys/class/net/" + i.name + "/device", "");
    }
}

using NetworkMac = tqtest::LeakCheckedTest;

TEST_F(NetworkMac, WalkTakesWiredNonUsbInterfacesInOrderAndTheLargestPermanentAddressWins)
{
    // No shell sees a name; names cannot hold a slash, so the marker is in the working directory.
    const std::string quoted = "en'$(touch tq-mac-marker)'\";touch tq-mac-marker;`touch tq-mac-marker`";
    const struct { std::vector<Iface> ifaces; const char *answer, *trace = nullptr; std::string bond = ""; } cases[] = {
        // Each would win if its name were wired, or its entry had an address of these families.
        {{{"lo", "fe:00:00:00:00:01"}, {"wlan0", "fe:00:00:00:00:01"}, {"virbr0", "fe:00:00:00:00:01"},
          {"Eth9", "fe:00:00:00:00:01"}}, kFloor},
        {{{"eth7", "ff:ff:ff:ff:ff:f0", "", kPci, -1}, {"eth8", "ff:ff:ff:ff:ff:f0", "", kPci, AF_UNIX},
          {"em1", "10:00:00:00:00:00", "", kPci, AF_INET}, {"eno2", "20:00:00:00:00:00", "", kPci, AF_INET6}},
         "20:00:00:00:00:00"},
        // Current addresses would give the opposite answer.
        {{{"eth0", "ff:00:00:00:00:00", "aa:00:00:00:00:01"}, {"eth1", "00:00:00:00:00:01", "BB:0C:00:00:00:02"}},
         "bb:0c:00:00:00:02"},
        // ethtool cannot read eth0: the zero address; eth1 vanishes between the reads: its current address.
        {{{"eth0", "12:34:56:78:9a:bc", nullptr}, {"eth1", "00:00:00:00:00:11", kFF, kPci, AF_PACKET, 1}},
         "00:00:00:00:00:11"},
        // A USB adapter (a hub port is listed on the bus too), an unreadable interface or one whose attachment
        // is unknown ends the walk. The host controller is a PCI function.
        {{{"enx0", "00:11:22:33:44:55", "", kUsb}, {"eth0", kFF}}, kFloor},
        {{{"eth1", "01:00:00:00:00:00"}, {"enx1", kFF, "", kUsb}}, "01:00:00:00:00:00"},
        {{{"eth2", nullptr}, {"eth3", kFF}}, kFloor},
        {{{"enu0", kFF, "", kHubPort}}, kFloor},
        {{{"eth0", kFF, "", nullptr}}, kFloor, "get stat error"},
        {{{"eth1", kFF, "", ""}}, kFloor, "is not link file"},
        {{{"eth2", kFF, "", kGone}}, kFloor, "get real path error"},
        {{{"eth4", kFF, "", kHost}}, kFF},
        {{{quoted, kFF}}, kFF},
        // Bonding files: each slave's next permanent address, in lower case; string order ("x" above "f").
        {{}, "52:54:00:f1:97:66", nullptr,
         "Slave Interface: " + std::string(300, 'n') + "\nPermanent HW addr: 01:02:03:04:05:06\nSlave Interface: eth2\n"
         "MII Status: up\nPermanent HW addr: 52:54:00:f1:97:66\n"},
        {{{"eth0", "ff:ff:ff:ff:ff:ff"}}, "ff:xx:00:00:00:00", nullptr,
         "Slave Interface: eth1\r\nPermanent HW addr: FF:XX:00:00:00:00\r\nSlave Interface: eth9\nMII Status: up\n"},
        {{}, "<null>", nullptr, "Slave Interface: eth9\nMII Status: up\n"},
    };
    const std::string floor = std::string("Slave Interface: eth9\nPermanent HW addr: ") + kFloor;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ifaces.empty() ? c.bond : c.ifaces[0].name);
        tqtest::Fixture f;
        attach(f, c.ifaces);
        f.write("/proc/net/bonding/bond0", c.bond.empty() ? floor : c.bond);
        FakeNet net(c.ifaces);
        EXPECT_EQ(tqtest::or_null(tq::max_permanent_mac(tq::list_network_interfaces(true))), c.answer);
        EXPECT_TRUE(!c.trace || tqtest::contains(f.trace_log(), std::string(": ") + c.trace + "\n")) << c.trace;
    }
    EXPECT_EQ(tq::is_interface_on_usb_bus(nullptr), 1);
    EXPECT_FALSE(std::filesystem::remove("tq-mac-marker"));
}

TEST_F(NetworkMac, FirstAnswerIsKeptForTheProcessEvenWhenCallsRace)
{
    tqtest::Fixture f;
    attach(f, {{"eth0", ""}}, false); // a machine without a USB bus
    FakeNet none({});
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
    FakeNet net({{"eth0", "00:00:00:00:00:01", "52:54:00:12:34:56"}});
    // Under the sanitizers, a lost or doubly stored copy shows.
    std::vector<std::string> answers(8);
    std::latch go(1);
    std::vector<std::jthread> threads;
    for (std::string &answer : answers) {
        threads.emplace_back([&go, out = &answer] {
            go.wait();
            *out = tqtest::take(tavro_quenda_get_network_interface_max_mac());
        });
    }
    go.count_down();
    threads.clear(); // joins
    EXPECT_EQ(answers, std::vector<std::string>(8, "52:54:00:12:34:56")) << "a null answer is not kept";

    // The machine changes; the answer does not, and nothing is read.
    FakeNet other({{"eth0", "ff:00:00:00:00:01", "ff:54:00:12:34:56"}});
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "52:54:00:12:34:56");
}

// This machine: the answer is the current (sysfs) or permanent (ethtool -P) address of a PCI interface.
TEST(NetworkMacRealMachine, AnswerIsAnAddressOfAPciInterface)
{
    if (tqtest::emulated_build())
        GTEST_SKIP() << "qemu-user does not pass SIOCETHTOOL on";
    std::set<std::string> addresses;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/class/net")) {
        const std::string name = entry.path().filename();
        const std::string device = std::filesystem::weakly_canonical(entry.path() / "device");
        if (!tq::is_wired_interface_name(name.c_str()))
            continue;
        // The walk may end at such an interface, whatever follows it.
        if (!device.starts_with("/sys/devices/pci") || tqtest::contains(device, "/usb"))
            GTEST_SKIP() << name << " is not on a PCI device (" << device << ")";
        addresses.insert(tqtest::lines_of(tqtest::read_file(entry.path() / "address")).at(0));
        const std::string ethtool = "ethtool -P " + tq::os::shell_quote(name);
        const char *argv[] = {"/bin/sh", "-c", ethtool.c_str(), nullptr};
        char permanent[64] = {};
        if (std::sscanf(tq::os::spawn(argv).out.c_str(), "Permanent address: %63s", permanent) == 1)
            addresses.insert(permanent);
    }
    if (addresses.empty())
        GTEST_SKIP() << "no eth*/en*/em* interface on a PCI device here";
    // The real system seen through a fixture, so that the trace log stays in it.
    tqtest::Fixture f;
    f.symlink("/sys", "/sys");
    f.symlink("/proc", "/proc");
    EXPECT_TRUE(addresses.count(tqtest::take(network_interface_get_max_mac())));
}

} // namespace
