// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/network_mac.h"

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "built_program.h"
#include "foundation/os.h"
#include "platform_support.h"

namespace {

enum Where { Pci, Usb };

// One interface as the fake kernel knows it: current nullptr cannot be read, permanent "" is the current
// one and nullptr makes ETHTOOL_GPERMADDR fail; after `reads` reads of the current address it is gone.
struct Iface {
    const char *name, *current, *permanent = "";
    Where where = Pci;
    int family = AF_PACKET, reads = 1000; // family -1: an entry without an address
};

int put_mac(const char *text, void *out)
{
    auto *b = static_cast<unsigned char *>(out);
    return std::sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", b, b + 1, b + 2, b + 3, b + 4, b + 5) == 6 ? 0 : -1;
}

// A fake getifaddrs() list, in the order of the interfaces, and the two ioctls.
class FakeNet {
public:
    explicit FakeNet(std::vector<Iface> ifaces) : ifaces_(std::move(ifaces))
    {
        tq::os::testing::set_getifaddrs([this](ifaddrs **out) { return build(out); }, [](ifaddrs *list) {
            for (ifaddrs *next; list; list = next) {
                next = list->ifa_next;
                delete reinterpret_cast<Node *>(list);
            }
        });
        tq::os::testing::set_ioctl([this](int, unsigned long request, void *arg) { return ioctl(request, arg); });
    }
    bool fail_getifaddrs = false;

private:
    struct Node {
        ifaddrs ifa;
        sockaddr_storage addr;
    };

    int build(ifaddrs **out)
    {
        *out = nullptr;
        for (auto i = ifaces_.rbegin(); i != ifaces_.rend() && !fail_getifaddrs; ++i) {
            Node *node = new Node{};
            node->ifa.ifa_next = *out;
            node->ifa.ifa_name = const_cast<char *>(i->name);
            node->addr.ss_family = static_cast<sa_family_t>(i->family);
            node->ifa.ifa_addr = i->family >= 0 ? reinterpret_cast<sockaddr *>(&node->addr) : nullptr;
            *out = &node->ifa;
        }
        return fail_getifaddrs ? -1 : 0;
    }

    int ioctl(unsigned long request, void *arg)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto *req = static_cast<ifreq *>(arg);
        auto it = std::find_if(ifaces_.begin(), ifaces_.end(),
                               [&](const Iface &i) { return i.name == std::string(req->ifr_name); });
        errno = ENODEV;
        if (it == ifaces_.end() || !it->current || (request == SIOCGIFHWADDR && it->reads-- <= 0))
            return -1;
        if (request == SIOCGIFHWADDR)
            return put_mac(it->current, req->ifr_hwaddr.sa_data);
        auto *perm = reinterpret_cast<ethtool_perm_addr *>(req->ifr_data);
        errno = EOPNOTSUPP;
        if (request != SIOCETHTOOL || !it->permanent || perm->cmd != ETHTOOL_GPERMADDR || perm->size < 6)
            return -1;
        perm->size = 6;
        return put_mac(*it->permanent ? it->permanent : it->current, perm->data);
    }

    std::mutex mutex_;
    std::vector<Iface> ifaces_;
};

const std::string kUsbHub = "../../../devices/pci0000:00/0000:00:14.0";

void attach(tqtest::Fixture &f, const std::string &name, Where where)
{
    f.mkdir("/sys/devices/pci0000:00/0000:03:00.0");
    f.symlink(where == Pci ? "../../../devices/pci0000:00/0000:03:00.0" : kUsbHub + "/usb2/2-1/2-1:1.0",
              "/sys/class/net/" + name + "/device");
}

void usb_bus(tqtest::Fixture &f)
{
    for (const char *node : {"/usb2", "/usb2/2-1", "/usb2/2-1/2-1:1.0"}) {
        f.mkdir("/sys/devices/pci0000:00/0000:00:14.0" + std::string(node));
        f.symlink(kUsbHub + node, "/sys/bus/usb/devices/" + std::filesystem::path(node).filename().string());
    }
}

using NetworkMac = tqtest::LeakCheckedTest;

TEST_F(NetworkMac, WalkTakesWiredPciInterfacesInOrderAndTheLargestPermanentAddressWins)
{
    const struct { std::vector<Iface> ifaces; const char *answer; } cases[] = {
        // Each would win if its name were wired.
        {{{"lo", "fe:00:00:00:00:01"}, {"wlan0", "fe:00:00:00:00:01"}, {"virbr0", "fe:00:00:00:00:01"},
          {"Eth9", "fe:00:00:00:00:01"}}, "00:00:00:00:00:10"},
        {{{"eth7", "ff:ff:ff:ff:ff:f0", "", Pci, -1}, {"eth8", "ff:ff:ff:ff:ff:f0", "", Pci, AF_UNIX},
          {"em1", "10:00:00:00:00:00", "", Pci, AF_INET}, {"eno2", "20:00:00:00:00:00", "", Pci, AF_INET6}},
         "20:00:00:00:00:00"},
        // Current addresses would give the opposite answer.
        {{{"eth0", "ff:00:00:00:00:00", "aa:00:00:00:00:01"}, {"eth1", "00:00:00:00:00:01", "BB:0C:00:00:00:02"}},
         "bb:0c:00:00:00:02"},
        // ethtool cannot read eth0: the zero address; eth1 vanishes between the reads: its current address.
        {{{"eth0", "12:34:56:78:9a:bc", nullptr}, {"eth1", "00:00:00:00:00:11", "ff:ff:ff:ff:ff:ff", Pci, AF_PACKET, 1}},
         "00:00:00:00:00:11"},
        // A USB adapter or an unreadable interface ends the walk.
        {{{"enx0", "00:11:22:33:44:55", "", Usb}, {"eth0", "ff:00:00:00:00:00"}}, "00:00:00:00:00:10"},
        {{{"eth1", "01:00:00:00:00:00"}, {"enx1", "ff:11:22:33:44:55", "", Usb}}, "01:00:00:00:00:00"},
        {{{"eth2", nullptr}, {"eth3", "ff:00:00:00:00:00"}}, "00:00:00:00:00:10"},
    };
    // A bond slave smaller than every interface shows what the walk left out.
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ifaces[0].name);
        tqtest::Fixture f;
        usb_bus(f);
        f.write("/proc/net/bonding/bond0", "Slave Interface: eth9\nPermanent HW addr: 00:00:00:00:00:10\n");
        f.mkdir("/proc/net/bonding/not-a-bond");
        FakeNet net(c.ifaces);
        for (const Iface &i : c.ifaces)
            attach(f, i.name, i.where);
        EXPECT_EQ(tqtest::or_null(tq::max_permanent_mac(tq::list_network_interfaces(true))), c.answer);
        if (&c == &cases[4]) {
            EXPECT_EQ(tq::list_network_interfaces(false).size(), 3u) << "without the USB rule all are listed";
        }
    }
    // The order is that of the strings, which a masked bonding address shows: x sorts above f.
    EXPECT_EQ(tq::max_permanent_mac({{"eth0", "", "ff:ff:ff:ff:ff:ff"}, {"eth1", "", "ff:xx:00:00:00:00"}}),
              "ff:xx:00:00:00:00");
}

TEST_F(NetworkMac, OnlyAProvenNonUsbAttachmentCounts)
{
    tqtest::Fixture f;
    attach(f, "eth3", Pci);
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth3"), 0) << "a machine without a USB bus";

    usb_bus(f);
    f.mkdir("/sys/class/net/eth0");                                                 // no device link
    f.write("/sys/class/net/eth1/device", "");                                      // not a link
    f.symlink("../../../devices/gone/0000:09:00.0", "/sys/class/net/eth2/device"); // unresolvable
    attach(f, "enx0", Usb);
    f.symlink(kUsbHub + "/usb2/2-1", "/sys/class/net/usb0/device"); // a hub port: its entry is listed
    f.symlink(kUsbHub, "/sys/class/net/eth4/device");               // the host controller is a PCI function
    // No shell sees a name; names cannot hold a slash, so the marker is in the working directory.
    const std::string marker = "tq-shell-marker-" + std::to_string(::getpid());
    const std::string quoted = "en'$(touch " + marker + ")'\";touch " + marker + ";`touch " + marker + "`";
    attach(f, quoted, Pci);
    const struct { const char *name; int on_usb; const char *trace; } cases[] = {
        {nullptr, 1, nullptr}, {"eth0", 1, "get stat error"}, {"eth1", 1, "is not link file"},
        {"eth2", 1, "get real path error"}, {"enx0", 1, nullptr}, {"usb0", 1, nullptr},
        {"eth4", 0, nullptr}, {"eth3", 0, nullptr}, {quoted.c_str(), 0, nullptr}};
    for (const auto &c : cases) {
        EXPECT_EQ(tq::is_interface_on_usb_bus(c.name), c.on_usb) << (c.name ? c.name : "null");
        EXPECT_TRUE(!c.trace || tqtest::contains(f.trace_log(), std::string(": ") + c.trace + "\n")) << c.trace;
    }
    EXPECT_FALSE(std::filesystem::remove(marker));
}

TEST_F(NetworkMac, BondSlavesComeFromTheBondingFiles)
{
    tqtest::Fixture f;
    f.write("/proc/net/bonding/bond0", "Bonding Mode: fault-tolerance (active-backup)\nCurrently Active Slave: eth1\n\n"
                                       "Slave Interface: eth1\nMII Status: up\nPermanent HW addr: 52:54:00:9d:9a:2a\n\n"
                                       "Slave Interface: eth2\nMII Status: up\nPermanent HW addr: 52:54:00:f1:97:66\n");
    EXPECT_EQ(tq::max_permanent_mac(tq::bonding_file_slaves("/proc/net/bonding/bond0")), "52:54:00:f1:97:66");

    // Names are cut at 127 bytes; a slave without a permanent address line contributes nothing.
    f.write("/proc/net/bonding/bond0", "Slave Interface: eth0\r\nPermanent HW addr: AA:BB:CC:DD:EE:0F\r\n"
                                       "Slave Interface: " + std::string(300, 'n') +
                                       "\nPermanent HW addr: 01:02:03:04:05:06\nSlave Interface: eth9\nMII Status: up\n");
    std::vector<std::string> got;
    for (const auto &r : tq::bonding_file_slaves("/proc/net/bonding/bond0"))
        got.push_back(r.name + " " + r.mac + " " + r.permanent_mac);
    EXPECT_EQ(got, (std::vector<std::string>{"eth0 aa:bb:cc:dd:ee:0f aa:bb:cc:dd:ee:0f",
                                             std::string(127, 'n') + " 01:02:03:04:05:06 01:02:03:04:05:06"}));
    EXPECT_TRUE(tq::bonding_file_slaves("/proc/net/bonding/missing").empty());
}

TEST_F(NetworkMac, FirstAnswerIsKeptForTheProcessEvenWhenCallsRace)
{
    tqtest::Fixture f;
    attach(f, "eth0", Pci);
    FakeNet net({{"eth0", "00:00:00:00:00:01", "52:54:00:12:34:56"}});
    net.fail_getifaddrs = true;
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
    net.fail_getifaddrs = false;
    // Under the sanitizers, a lost or doubly stored copy shows.
    std::vector<std::string> answers(8);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (std::string &answer : answers) {
        threads.emplace_back([&go, out = &answer] {
            while (!go)
                std::this_thread::yield();
            *out = tqtest::take(tavro_quenda_get_network_interface_max_mac());
        });
    }
    go = true;
    for (std::thread &t : threads)
        t.join();
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
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/class/net", ec)) {
        const std::string name = entry.path().filename();
        const std::string device = std::filesystem::weakly_canonical(entry.path() / "device", ec);
        if (!tq::is_wired_interface_name(name.c_str()))
            continue;
        // The walk may end at such an interface, whatever follows it.
        if (!device.starts_with("/sys/devices/pci") || tqtest::contains(device, "/usb"))
            GTEST_SKIP() << name << " is not on a PCI device (" << device << ")";
        addresses.insert(tqtest::lines_of(tqtest::read_file(entry.path() / "address")).at(0));
        std::string command = "ethtool -P " + tq::os::shell_quote(name) + " 2>/dev/null";
        std::unique_ptr<FILE, decltype(&::pclose)> p(::popen(command.c_str(), "r"), ::pclose);
        char line[256] = {}, perm[64] = {};
        if (p && std::fgets(line, sizeof(line), p.get()) && std::sscanf(line, "Permanent address: %63s", perm) == 1)
            addresses.insert(perm);
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
