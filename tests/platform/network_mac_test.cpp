// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/network_mac.h"

#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "built_program.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "platform_support.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

using CString = std::unique_ptr<char, tq::FreeDeleter>;

// One interface as the fake kernel knows it, addresses in colon form: a
// permanent nullopt makes ETHTOOL_GPERMADDR fail, and SIOCGIFHWADDR succeeds
// hwaddr_reads_left times, then fails with ENODEV.
struct Nic {
    std::string current;
    std::optional<std::string> permanent;
    int hwaddr_reads_left = 1000;
};

int put_mac(const std::string &text, void *out)
{
    auto *b = static_cast<unsigned char *>(out);
    return std::sscanf(text.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", b, b + 1, b + 2, b + 3, b + 4, b + 5) == 6 ? 0
                                                                                                                : -1;
}

// A fake getifaddrs() list and the two ioctls, answering the library's calls
// from construction on.
class FakeNet {
public:
    FakeNet()
    {
        tq::os::testing::set_getifaddrs([this](struct ifaddrs **out) { return build(out); },
                                        [](struct ifaddrs *list) { release(list); });
        tq::os::testing::set_ioctl([this](int, unsigned long request, void *arg) { return ioctl(request, arg); });
    }
    // One getifaddrs() entry; family -1 gives an entry without an address.
    void entry(const std::string &name, int family = AF_PACKET) { entries_.push_back({name, family}); }
    void nic(const std::string &name, Nic nic) { nics_[name] = nic; }

    std::atomic<int> getifaddrs_calls{0};
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
        *out = nullptr;
        // Built back to front, so that the list keeps the order of the entries.
        for (auto e = entries_.rbegin(); e != entries_.rend() && !fail_getifaddrs; ++e) {
            Node *node = new Node{};
            std::snprintf(node->name, sizeof(node->name), "%s", e->first.c_str());
            node->ifa.ifa_next = *out;
            node->ifa.ifa_name = node->name;
            node->addr.ss_family = static_cast<sa_family_t>(e->second);
            if (e->second >= 0)
                node->ifa.ifa_addr = reinterpret_cast<struct sockaddr *>(&node->addr);
            *out = &node->ifa;
        }
        return fail_getifaddrs ? -1 : 0;
    }

    static void release(struct ifaddrs *list)
    {
        for (struct ifaddrs *next; list; list = next) {
            next = list->ifa_next;
            delete reinterpret_cast<Node *>(list);
        }
    }

    int ioctl(unsigned long request, void *arg)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto *req = static_cast<struct ifreq *>(arg);
        auto it = nics_.find(req->ifr_name);
        errno = ENODEV;
        if (it == nics_.end() || (request == SIOCGIFHWADDR && it->second.hwaddr_reads_left-- <= 0))
            return -1;
        if (request == SIOCGIFHWADDR)
            return put_mac(it->second.current, req->ifr_hwaddr.sa_data);
        auto *perm = reinterpret_cast<struct ethtool_perm_addr *>(req->ifr_data);
        errno = EOPNOTSUPP;
        if (request != SIOCETHTOOL || !it->second.permanent || perm->cmd != ETHTOOL_GPERMADDR || perm->size < 6)
            return -1;
        perm->size = 6;
        return put_mac(*it->second.permanent, perm->data);
    }

    std::mutex mutex_;
    std::vector<std::pair<std::string, int>> entries_;
    std::map<std::string, Nic> nics_;
};

// Sysfs of an interface on a PCI function, and of one on a USB port.
const std::string kUsbHub = "../../../devices/pci0000:00/0000:00:14.0";

void pci_device(tqtest::Fixture &f, const std::string &name)
{
    f.mkdir("/sys/devices/pci0000:00/0000:03:00.0");
    f.symlink("../../../devices/pci0000:00/0000:03:00.0", "/sys/class/net/" + name + "/device");
}

void usb_bus(tqtest::Fixture &f)
{
    for (const char *node : {"/usb2", "/usb2/2-1", "/usb2/2-1/2-1:1.0"}) {
        f.mkdir("/sys/devices/pci0000:00/0000:00:14.0" + std::string(node));
        f.symlink(kUsbHub + node, "/sys/bus/usb/devices/" + std::filesystem::path(node).filename().string());
    }
}

void usb_device(tqtest::Fixture &f, const std::string &name)
{
    f.symlink(kUsbHub + "/usb2/2-1/2-1:1.0", "/sys/class/net/" + name + "/device");
}

// Each test asks a recorded machine and must leave no descriptor or child behind.
class NetworkMac : public tqtest::LeakCheckedTest {
protected:
    // A wired interface on a PCI function, listed once by getifaddrs.
    void wired(const std::string &name, Nic nic, int family = AF_PACKET)
    {
        net.entry(name, family);
        net.nic(name, nic);
        pci_device(f, name);
    }
    bool traced(const std::string &line) const { return tqtest::contains(f.trace_log(), ": " + line + "\n"); }

    tqtest::Fixture f;
    FakeNet net;
};

std::string scan_answer() { return tqtest::or_null(tq::max_permanent_mac(tq::list_network_interfaces(true))); }

TEST_F(NetworkMac, OnlyWiredNamesWithAnAddressAreCandidatesAndNullIsNotKept)
{
    // Each would win if it were a candidate.
    for (const char *name : {"lo", "wlan0", "virbr0", "veth0a1b2", "docker0", "Eth9"}) {
        wired(name, {"fe:00:00:00:00:01", "fe:00:00:00:00:01"});
        net.entry(name, AF_INET);
    }
    EXPECT_EQ(tqtest::take(tavro_quenda_get_network_interface_max_mac()), "<null>");
    net.fail_getifaddrs = true;
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "<null>");
    EXPECT_EQ(net.getifaddrs_calls, 2) << "a null answer is not kept";

    // Wired interfaces appear: the next call finds them.
    net.fail_getifaddrs = false;
    wired("eth7", {"ff:ff:ff:ff:ff:f0", "ff:ff:ff:ff:ff:f0"}, -1);      // no address
    wired("eth8", {"ff:ff:ff:ff:ff:f0", "ff:ff:ff:ff:ff:f0"}, AF_UNIX); // not an interface's family
    wired("em1", {"10:00:00:00:00:00", "10:00:00:00:00:00"}, AF_INET);
    wired("eno2", {"20:00:00:00:00:00", "20:00:00:00:00:00"}, AF_INET6);
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "20:00:00:00:00:00");
}

TEST_F(NetworkMac, LargestPermanentAddressOfPciInterfacesWins)
{
    usb_bus(f);
    // Listed once per address family, as getifaddrs does; current addresses would give the opposite answer.
    wired("eth0", {"ff:00:00:00:00:00", "aa:00:00:00:00:01"});
    wired("eth1", {"00:00:00:00:00:01", "BB:0C:00:00:00:02"});
    for (const char *name : {"eth0", "eth1"}) {
        net.entry(name, AF_INET);
        net.entry(name, AF_INET6);
    }
    EXPECT_EQ(tqtest::take(tavro_quenda_get_network_interface_max_mac()), "bb:0c:00:00:00:02");
    EXPECT_TRUE(traced("found network interface device: eth0, ignoreMountUSB: true"));
    EXPECT_TRUE(traced("tavro_quenda_get_network_interface_max_mac: bb:0c:00:00:00:02"));

    // The order is that of the strings, which a masked bonding address shows: x sorts above f.
    EXPECT_EQ(tq::max_permanent_mac({{"eth0", "", "ff:ff:ff:ff:ff:ff"}, {"eth1", "", "ff:xx:00:00:00:00"}}),
              "ff:xx:00:00:00:00");
}

TEST_F(NetworkMac, EthtoolFailureGivesTheZeroAddressWhichLosesToAnyOther)
{
    wired("eth0", {"12:34:56:78:9a:bc", std::nullopt});
    // The zero address, not the current one, stands for a NIC ethtool cannot read.
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "00:00:00:00:00:00");
    EXPECT_TRUE(traced("Could not read permanent MAC."));
    EXPECT_TRUE(traced("mac: <12:34:56:78:9a:bc>,  permanent_mac: <00:00:00:00:00:00>."));

    // eth1 vanishes between the two reads: its current address stands in.
    wired("eth1", {"00:00:00:00:00:01", "ff:ff:ff:ff:ff:ff", 1});
    EXPECT_EQ(scan_answer(), "00:00:00:00:00:01");
    EXPECT_TRUE(traced("Set device name error: No such device."));
    EXPECT_TRUE(traced("no permanent mac!"));
}

TEST_F(NetworkMac, UsbUnreadableOrUnattachedInterfaceEndsTheWalk)
{
    enum Where { Pci, Usb, Nowhere };
    struct Iface { const char *name, *mac; Where where; }; // mac nullptr: the current address cannot be read
    const struct { const char *what; std::vector<Iface> ifaces; const char *answer; } cases[] = {
        {"USB adapter first in the kernel's list", {{"enx0", "00:11:22:33:44:55", Usb}, {"eth0", "ff:00:00:00:00:00", Pci}},
         "00:00:00:00:00:10"},
        {"USB adapter after a PCI NIC", {{"eth1", "01:00:00:00:00:00", Pci}, {"enx1", "ff:11:22:33:44:55", Usb}},
         "01:00:00:00:00:00"},
        {"unreadable current address", {{"eth2", nullptr, Pci}, {"eth3", "ff:00:00:00:00:00", Pci}}, "00:00:00:00:00:10"},
        {"container-like interface without a device link",
         {{"eth4", "02:42:ac:11:00:02", Nowhere}, {"eth5", "0f:00:00:00:00:03", Pci}}, "00:00:00:00:00:10"},
    };
    usb_bus(f);
    // A bond slave smaller than every interface shows what the walk left out.
    f.write("/proc/net/bonding/bond0", "Slave Interface: eth9\nPermanent HW addr: 00:00:00:00:00:10\n");
    for (const auto &c : cases) {
        FakeNet scan;
        for (const Iface &i : c.ifaces) {
            scan.entry(i.name);
            if (i.mac)
                scan.nic(i.name, {i.mac, i.mac});
            if (i.where != Nowhere)
                (i.where == Pci ? pci_device : usb_device)(f, i.name);
        }
        // Only the first case reaches the process-wide cache; the others ask the scan itself.
        EXPECT_EQ(&c == cases ? tqtest::take(network_interface_get_max_mac()) : scan_answer(), c.answer) << c.what;
        if (&c == cases) {
            EXPECT_TRUE(traced("<enx0> mounted on the usb bus, ignore."));
            EXPECT_EQ(tq::list_network_interfaces(false).size(), 3u) << "without the USB rule all are listed";
        }
    }
}

TEST_F(NetworkMac, OnlyAProvenNonUsbAttachmentCounts)
{
    pci_device(f, "eth3");
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth3"), 0) << "a machine without a USB bus";
    // The link is resolved in-process: no readlink found through PATH has a say.
    f.path_program("readlink", "/sys/devices/pci0000:00/usb2/2-1/2-1:1.0");

    usb_bus(f);
    f.mkdir("/sys/class/net/eth0");                                                 // no device link
    f.write("/sys/class/net/eth1/device", "");                                      // not a link
    f.symlink("../../../devices/gone/0000:09:00.0", "/sys/class/net/eth2/device"); // unresolvable
    usb_device(f, "enx0");
    f.symlink(kUsbHub + "/usb2/2-1", "/sys/class/net/usb0/device"); // a hub port: its entry is listed
    f.symlink(kUsbHub, "/sys/class/net/eth4/device");               // the host controller is a PCI function
    // No character of a name is interpreted by a shell; names cannot hold a
    // slash, so the marker is relative to the working directory.
    const std::string marker = "tq-shell-marker-" + std::to_string(::getpid());
    const std::string quoted[] = {"en'$(touch " + marker + ")'", "en\";touch " + marker, "en`touch " + marker + "`"};
    for (const std::string &name : quoted)
        pci_device(f, name);
    const struct { const char *name; int on_usb; const char *trace; } cases[] = {
        {nullptr, 1, nullptr}, {"eth0", 1, "get stat error"}, {"eth1", 1, "is not link file"},
        {"eth2", 1, "get real path error"}, {"enx0", 1, nullptr}, {"usb0", 1, nullptr},
        {"eth4", 0, nullptr}, {"eth3", 0, nullptr}, {quoted[0].c_str(), 0, nullptr},
        {quoted[1].c_str(), 0, nullptr}, {quoted[2].c_str(), 0, nullptr}};
    for (const auto &c : cases) {
        EXPECT_EQ(tq::is_interface_on_usb_bus(c.name), c.on_usb) << (c.name ? c.name : "null");
        EXPECT_TRUE(!c.trace || traced(c.trace)) << c.trace;
    }
    EXPECT_FALSE(std::filesystem::remove(marker));

    // Present but not readable as a directory: undecidable, so USB.
    std::filesystem::remove_all(f.host("/sys/bus/usb/devices"));
    f.write("/sys/bus/usb/devices", "");
    EXPECT_EQ(tq::is_interface_on_usb_bus("eth3"), 1);
}

std::vector<std::string> described(const tq::InterfaceMacList &list)
{
    std::vector<std::string> got;
    for (const auto &r : list)
        got.push_back(r.name + " " + r.mac + " " + r.permanent_mac);
    return got;
}

TEST_F(NetworkMac, BondSlavesComeFromTheBondingFiles)
{
    // Slaves carry the bond's address; ethtool cannot read eth2's own.
    net.entry("bond0", AF_INET);
    wired("eth1", {"08:00:27:9d:9a:2a", "08:00:27:9d:9a:2a"});
    wired("eth2", {"08:00:27:9d:9a:2a", std::nullopt});
    f.copy("/proc/net/bonding/bond0", tqtest::corpus("bonding/bond0-active-backup-fail-over-mac-vagrant.txt"));
    f.mkdir("/proc/net/bonding/not-a-bond");
    EXPECT_EQ(tqtest::take(network_interface_get_max_mac()), "08:00:27:f1:97:66");

    // Other machines' files; names are cut at 127 bytes, and a slave without a
    // permanent address line contributes nothing.
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"bonding/bond0-8023ad-one-slave-down-centos.txt",
         {"enp1s0f0 00:25:90:85:81:f2 00:25:90:85:81:f2", "enp1s0f1 00:25:90:85:81:f3 00:25:90:85:81:f3"}},
        {"bonding/bond0-8023ad-10g-ubuntu-last-line-cut-in-source.txt",
         {"enp5s0f1 ac:1f:6b:8a:48:6f ac:1f:6b:8a:48:6f", "enp5s0f0 ac:1f:6b:8a:48:6e ac:1f:6b:8a:48:6e"}},
        // Masked by the reporter; taken as written, in lower case.
        {"bonding/bond0-active-backup-kernel-5.10-masked-mac-addresses.txt",
         {"enp2s0 80:ee:73:xx:xx:xx 80:ee:73:xx:xx:xx", "enp3s0 80:ee:73:xx:xx:xx 80:ee:73:xx:xx:xx"}},
        {"", {"eth0 aa:bb:cc:dd:ee:0f aa:bb:cc:dd:ee:0f", std::string(127, 'n') + " 01:02:03:04:05:06 01:02:03:04:05:06"}},
    };
    for (const auto &[file, expected] : cases) {
        if (*file)
            f.copy("/proc/net/bonding/bond0", tqtest::corpus(file));
        else
            f.write("/proc/net/bonding/bond0", "Slave Interface: eth0\r\nPermanent HW addr: AA:BB:CC:DD:EE:0F\r\n"
                                               "Slave Interface: " + std::string(300, 'n') +
                                               "\nPermanent HW addr: 01:02:03:04:05:06\n"
                                               "Slave Interface: eth9\nMII Status: up\n");
        EXPECT_EQ(described(tq::bonding_file_slaves("/proc/net/bonding/bond0")), expected) << file;
    }
    EXPECT_TRUE(tq::bonding_file_slaves("/proc/net/bonding/missing").empty());
}

TEST_F(NetworkMac, FirstAnswerIsKeptForTheProcessEvenWhenCallsRace)
{
    wired("eth0", {"00:00:00:00:00:01", "52:54:00:12:34:56"});
    // Under the sanitizers, a lost or doubly stored copy shows.
    std::vector<std::string> answers(8);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (std::string &answer : answers) {
        threads.emplace_back([&go, out = &answer] {
            while (!go)
                std::this_thread::yield();
            *out = tqtest::take(network_interface_get_max_mac());
        });
    }
    go = true;
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(answers, std::vector<std::string>(8, "52:54:00:12:34:56"));
    const int scans = net.getifaddrs_calls;

    // The machine changes; the answer does not, and nothing is read.
    FakeNet other;
    other.entry("eth0");
    other.nic("eth0", {"ff:00:00:00:00:01", "ff:54:00:12:34:56"});
    CString first(network_interface_get_max_mac()), second(tavro_quenda_get_network_interface_max_mac());
    ASSERT_TRUE(first && second);
    EXPECT_EQ(std::string(first.get()) + " " + second.get(), "52:54:00:12:34:56 52:54:00:12:34:56");
    EXPECT_NE(first.get(), second.get()) << "each caller gets a copy of its own";
    EXPECT_EQ(other.getifaddrs_calls, 0);
    EXPECT_EQ(net.getifaddrs_calls, scans);
}

// This machine: the answer is an address a PCI-attached interface reports,
// its current one (from sysfs) or its permanent one (from ethtool -P).
TEST(NetworkMacRealMachine, AnswerIsAnAddressOfAPciInterface)
{
    namespace fs = std::filesystem;
    std::set<std::string> addresses;
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/sys/class/net", ec)) {
        const std::string name = entry.path().filename(), device = fs::weakly_canonical(entry.path() / "device", ec);
        if (!tq::is_wired_interface_name(name.c_str()))
            continue;
        // The walk may end at such an interface, whatever follows it.
        if (!device.starts_with("/sys/devices/pci") || tqtest::contains(device, "/usb"))
            GTEST_SKIP() << name << " is not on a PCI device (" << device << ")";
        addresses.insert(tqtest::lines_of(tqtest::read_file(entry.path() / "address")).at(0));
        names.push_back(name);
        std::string command = "ethtool -P " + tq::os::shell_quote(name) + " 2>/dev/null";
        std::unique_ptr<FILE, decltype(&::pclose)> p(::popen(command.c_str(), "r"), ::pclose);
        char line[256] = {}, perm[64] = {};
        if (p && std::fgets(line, sizeof(line), p.get()) && std::sscanf(line, "Permanent address: %63s", perm) == 1)
            addresses.insert(perm);
    }
    if (addresses.empty())
        GTEST_SKIP() << "no eth*/en*/em* interface on a PCI device here";
    if (tqtest::emulated_build()) {
        // qemu-user does not translate SIOCETHTOOL; what it does pass on are
        // the current addresses, read as the walk reads them.
        for (const std::string &name : names)
            EXPECT_TRUE(addresses.count(tq::interface_current_mac(name.c_str()).value_or("none"))) << name;
        GTEST_SKIP() << "no permanent address can be read under the emulator; current addresses checked";
    }
    // The real system seen through a fixture, so that the trace log stays in it.
    tqtest::Fixture f;
    f.symlink("/sys", "/sys");
    f.symlink("/proc", "/proc");
    CString answer(network_interface_get_max_mac());
    ASSERT_TRUE(answer);
    EXPECT_TRUE(addresses.count(answer.get())) << answer.get();
}

} // namespace
