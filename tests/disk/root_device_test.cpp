// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/root_device.h"

#include <sys/stat.h>

#include <memory>

#include "disk_fakes.h"
#include "foundation/strutil.h"
#include "support/bounded_call.h"

namespace {

using namespace disktest;
using CString = std::unique_ptr<char, tq::FreeDeleter>;

TEST(RootDevice, MountTableAndKernelCommandLineTexts)
{
    const std::pair<std::string, const char *> tables[] = {
        // The early-boot rootfs line is skipped; the first other "/" wins.
        {"rootfs / rootfs rw 0 0\nproc /proc proc rw 0 0\n/dev/sda2 / ext4 rw 0 0\n/dev/sda3 / ext4 rw 0 0\n", "/dev/sda2"},
        {"rootfs / rootfs rw 0 0\n", "<null>"}, {"/dev/sda1 /boot ext4 rw 0 0\n", "<null>"}, {"", "<null>"},
        // Octal escapes are decoded, comments skipped, the directory is exactly "/".
        {"# comment / x\n/dev/a /. ext4 rw 0 0\n/dev/my\\040disk / ext4 rw 0 0\n", "/dev/my disk"},
    };
    for (const auto &[table, want] : tables)
        EXPECT_EQ(or_null(tq::root_mount_source(table)), want) << table;

    const std::pair<std::string, const char *> lines[] = {
        {"BOOT_IMAGE=/vmlinuz root=/dev/sda2 ro", "/dev/sda2"},
        {"ro\troot=UUID=1234-ABCD\tquiet", "/dev/disk/by-uuid/1234-ABCD"},
        {"root=LABEL=a/b", "/dev/disk/by-label/a\\x2fb"},
        {"root=/dev/mapper/vg-root root=/dev/sdb1", "/dev/mapper/vg-root"},
        {"root=PARTUUID=5f2c-01", "PARTUUID"}, // the bare tag, which is no block device
        // Only the text up to the next "=" counts; repeated "=" are one.
        {"root=UUID=ab=cd", "/dev/disk/by-uuid/ab"}, 
        {"root=UUID=", "<null>"}, {"quiet noroot=/dev/sda1 myroot=x", "<null>"},
        // Only the first line, and only up to a zero byte.
        {"quiet\nroot=/dev/sda1", "<null>"}, {std::string("quiet\0root=/dev/sda1", 20), "<null>"},
        {"root=/dev/%s%n", "/dev/%s%n"}, {std::string(10000, 'x') + " root=/dev/sdz9", "/dev/sdz9"},
    };
    for (const auto &[line, want] : lines)
        EXPECT_EQ(or_null(tq::root_device_from_command_line(line)), want) << line.substr(0, 80);
    std::string cut = or_null(tq::root_device_from_command_line("root=LABEL=" + std::string(3000, '/')));
    EXPECT_EQ(cut.size(), 4095u);
    EXPECT_EQ(cut.substr(0, 23), "/dev/disk/by-label/\\x2f");
}

TEST(RootDevice, HugeInputsStayWithinTheMemoryBound)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    tq::os::testing::reset(); // callers name real paths
    const std::string fifo = fx.host("/fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {fifo, std::string("/dev/zero"), fx.root()})
        EXPECT_EQ(take(command_line_get_root_device_name(path.c_str())), "<null>") << path;

    // A command line file of 1 GiB, nearly all of it a hole of zero bytes: the line ends at the first one.
    const std::string big = fx.host("/cmdline");
    fx.write("/cmdline", "ro root=/dev/sda2");
    ASSERT_EQ(truncate(big.c_str(), 1L << 30), 0);
    // lsblk JSON of 16 MiB (what a helper may print) of tiny values: refused unparsed, as real output is far smaller.
    std::string json = R"({"blockdevices":[)";
    while (json.size() < (16u << 20))
        json += "[],";
    json += R"({"name":"sda","children":[{"mountpoint":"/"}]}]})";
    const std::pair<std::function<std::string()>, const char *> calls[] = {
        {[&] { return take(command_line_get_root_device_name(big.c_str())); }, "/dev/sda2"},
        {[&] { return take(find_root_disk(json.c_str())); }, "<null>"},
    };
    for (const auto &[call, want] : calls) {
        auto got = tqtest::bounded_call(call);
        EXPECT_EQ(got.answer, want);
        EXPECT_TRUE(tqtest::within_memory_bound(got.grown_kib));
    }
    EXPECT_TRUE(leaks.clean());
}

using RootDeviceMachine = Machine;

TEST_F(RootDeviceMachine, MountTableFirstThenKernelCommandLine)
{
    fx.write("/proc/cmdline", "BOOT_IMAGE=/boot/vmlinuz root=UUID=1234-ABCD ro\nroot=/dev/sdb1\n");
    EXPECT_EQ(take(command_line_get_root_device_name("/proc/cmdline")), "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(take(command_line_get_root_device_name(nullptr)), "<null>");

    auto root = [&](const char *mounts, const char *cmdline) {
        fx.write("/proc/mounts", mounts);
        fx.write("/proc/cmdline", cmdline);
        return take(root_device());
    };
    fx.block_device("/dev/sda2");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n/dev/sda2 / ext4 rw 0 0\n", "root=/dev/sdb1\n"), "/dev/sda2");
    // /dev/root has no node: the command line's UUID link decides.
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(root("/dev/root / ext4 rw 0 0\n", "ro root=UUID=1234-ABCD quiet\n"), "/dev/disk/by-uuid/1234-ABCD");
    fx.symlink("../../sda2", "/dev/disk/by-label/a\\x2fb");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n", "root=LABEL=a/b\n"), "/dev/disk/by-label/a\\x2fb");
    // A regular file is not a block device; PARTUUID never is.
    fx.write("/dev/sdc1", "");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n", "root=/dev/sdc1\n"), "<null>");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n", "root=PARTUUID=0000-01\n"), "<null>");
    // A mount table without read permission is not read.
    fx.block_device("/dev/sdb1");
    fx.write("/proc/mounts", "/dev/sda2 / ext4 rw 0 0\n", 0000);
    fx.write("/proc/cmdline", "root=/dev/sdb1\n");
    EXPECT_EQ(take(root_device()), "/dev/sdb1");
}

TEST(RootDisk, FindsTheDiskOfTheRootPartition)
{
    auto devices = [](const std::string &list) { return R"({"blockdevices":[)" + list + "]}"; };
    const std::pair<std::string, const char *> cases[] = {
        {devices(R"({"name":"sda","children":[{"name":"sda2","mountpoint":"/"}]})"), "sda"},
        // One level deeper (LVM in a partition) is deliberately not found.
        {devices(R"({"name":"sda","children":[{"mountpoint":null,"children":[{"mountpoint":"/"}]}]})"), "<null>"},
        // A root on the whole disk has no parent to name.
        {devices(R"({"name":"vda","mountpoints":["/"]})"), "<null>"},
        // util-linux 2.37 and later print a "mountpoints" array.
        {devices(R"({"name":"zram0","mountpoints":[null]},{"name":"nvme0n1","children":[)"
                 R"({"mountpoints":["/boot/efi"]},{"mountpoints":["/home","/"]}]})"),
         "nvme0n1"},
        {devices(R"({"name":7,"children":[{"mountpoint":"/"}]},{"name":"sdb","children":[{"mountpoint":"/"}]})"), "sdb"},
        {devices(R"({"name":"sda","children":{"mountpoint":"/"}})"), "<null>"},
    };
    for (const auto &[json, want] : cases)
        EXPECT_EQ(or_null(tq::find_root_disk(json)), want) << json;

    testing::internal::CaptureStderr();
    EXPECT_EQ(or_null(tq::find_root_disk("{\"blockdevices\": [ oops")), "<null>");
    EXPECT_EQ(or_null(tq::find_root_disk(R"({"blockdevices":{"name":"sda"}})")), "<null>");
    EXPECT_EQ(take(find_root_disk(nullptr)), "<null>");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(tqtest::contains(err, "JSON parse error: oops")) << err;
    EXPECT_TRUE(tqtest::contains(err, "Invalid JSON structure: blockdevices is not an array\n")) << err;
}

TEST_F(RootDeviceMachine, LsblkOutputIsReturnedWholeFromLsblksOwnPlacesNeverFromPath)
{
    // Far beyond one page: a machine with many disks.
    std::string json = R"({"blockdevices":[)";
    for (int i = 0; i < 400; ++i)
        json += R"({"name":"sd)" + std::to_string(i) + R"(","children":[{"name":"p","mountpoint":null}]},)";
    json += R"({"name":"sdroot","children":[{"name":"sdroot1","mountpoint":"/"}]}]})"
            "\n";
    fx.path_program("lsblk", "hostile\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(take(get_lsblk_output()), "<null>") << "no lsblk in its places";
    EXPECT_TRUE(tqtest::contains(testing::internal::GetCapturedStderr(), "Failed to run lsblk"));
    fx.program("/bin/lsblk", json);
    ::setenv("PATH", "", 1); // the fixture puts the caller's PATH back
    CString out(get_lsblk_output());
    ASSERT_TRUE(out);
    EXPECT_EQ(std::string(out.get()), json);
    EXPECT_EQ(take(find_root_disk(out.get())), "sdroot");
    fx.program("/usr/bin/lsblk", "{}");
    EXPECT_EQ(take(get_lsblk_output()), "{}") << "/usr/bin/lsblk comes first";
    EXPECT_EQ(fx.calls("/bin/lsblk"), std::vector<std::string>{"-J"});
    EXPECT_TRUE(fx.calls("lsblk").empty());
}

// The real machine: what the library finds must agree with util-linux.
std::string run(const std::string &command)
{
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(::popen(command.c_str(), "r"), ::pclose);
    char buf[4096];
    for (size_t n; pipe && (n = std::fread(buf, 1, sizeof(buf), pipe.get())) > 0;)
        out.append(buf, n);
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    return out;
}

TEST(RealMachine, RootDeviceAgreesWithUtilLinux)
{
    std::string source = run("findmnt -no SOURCE / 2>/dev/null");
    struct stat st;
    if (source.empty() || ::stat(source.c_str(), &st) != 0 || !S_ISBLK(st.st_mode))
        GTEST_SKIP() << "the root file system's source '" << source << "' is not a block device here";
    EXPECT_EQ(take(root_device()), source);
    std::string parent = run("lsblk -no PKNAME " + tq::os::shell_quote(source) + " 2>/dev/null");
    if (parent.empty())
        GTEST_SKIP() << "the root " << source << " is a whole disk, not a partition: lsblk names no parent";
    EXPECT_EQ(take(find_root_disk(CString(get_lsblk_output()).get())), parent);
}

} // namespace
