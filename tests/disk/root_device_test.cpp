#include "disk/root_device.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "support/fixture.h"
#include "support/leak_check.h"
#include "support/results.h"
#include "tavro-quenda.h"

namespace {

using CString = std::unique_ptr<char, tq::FreeDeleter>;



TEST(MountTable, ChoosesTheRootEntryThatIsNotRootfs)
{
    // The early-boot rootfs line comes first and is skipped; a later "/" wins.
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("rootfs / rootfs rw 0 0\n"
                                        "proc /proc proc rw 0 0\n"
                                        "/dev/sda2 / ext4 rw,relatime 0 0\n"
                                        "/dev/sda3 / ext4 rw 0 0\n")),
              "/dev/sda2");
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("rootfs / rootfs rw 0 0\n")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("/dev/sda1 /boot ext4 rw 0 0\n/dev/sda2 /home ext4 rw 0 0\n")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("")), "<null>");
    // The table's octal escapes are decoded, comments skipped, and the mount
    // directory must be exactly "/".
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("# comment / x\n/dev/a /. ext4 rw 0 0\n/dev/my\\040disk / ext4 rw 0 0\n")),
              "/dev/my disk");
    // This machine's own table shape.
    EXPECT_EQ(tqtest::or_null(tq::root_mount_source("proc /proc proc rw,relatime 0 0\n"
                                        "/dev/vda / ext4 rw,relatime,discard 0 0\n")),
              "/dev/vda");
}

TEST(CommandLine, FindsAndResolvesTheFirstRootWord)
{
    auto root = [](std::string_view line) { return tqtest::or_null(tq::root_device_from_command_line(line)); };
    EXPECT_EQ(root("BOOT_IMAGE=/vmlinuz root=/dev/sda2 ro quiet"), "/dev/sda2");
    EXPECT_EQ(root("ro\troot=UUID=1234-ABCD\tquiet"), "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(root("root=LABEL=a/b"), "/dev/disk/by-label/a\\x2fb");
    EXPECT_EQ(root("root=LABEL=//x/"), "/dev/disk/by-label/\\x2f\\x2fx\\x2f");
    EXPECT_EQ(root("root=/dev/mapper/vg-root root=/dev/sdb1"), "/dev/mapper/vg-root");
    // PARTUUID= is answered as its bare tag, which is no block device.
    EXPECT_EQ(root("root=PARTUUID=5f2c-01"), "PARTUUID");
    // Only the text up to the next "=" counts; repeated "=" are one.
    EXPECT_EQ(root("root=UUID=ab=cd"), "/dev/disk/by-uuid/ab");
    EXPECT_EQ(root("root==/dev/sda1"), "/dev/sda1");
    EXPECT_EQ(root("root=UUID"), "<null>");
    EXPECT_EQ(root("root=UUID="), "<null>");
    EXPECT_EQ(root("root="), "<null>");
    EXPECT_EQ(root("quiet splash noroot=/dev/sda1 myroot=x"), "<null>");
    EXPECT_EQ(root(""), "<null>");
    // Only the first line, and only up to a zero byte.
    EXPECT_EQ(root("quiet\nroot=/dev/sda1"), "<null>");
    EXPECT_EQ(root(std::string_view("quiet\0root=/dev/sda1", 20)), "<null>");
    // A percent sign is plain text.
    EXPECT_EQ(root("root=/dev/%s%n"), "/dev/%s%n");
}

TEST(CommandLine, LongLinesAreSafeAndLongResultsAreCut)
{
    std::string line(10000, 'x');
    line += " root=/dev/sdz9";
    EXPECT_EQ(tqtest::or_null(tq::root_device_from_command_line(line)), "/dev/sdz9");

    std::string label = "root=LABEL=" + std::string(3000, '/');
    std::optional<std::string> cut = tq::root_device_from_command_line(label);
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut->size(), 4095u);
    EXPECT_EQ(cut->substr(0, 23), "/dev/disk/by-label/\\x2f");

    EXPECT_EQ(tq::replace_all("a/b/", "\\x2f", "/"), "a\\x2fb\\x2f");
    EXPECT_EQ(tq::replace_all("abc", "-", ""), "abc");
    EXPECT_EQ(tq::replace_all("", "-", "/"), "");
}

TEST(CommandLine, ReadsTheFirstLineOfTheFile)
{
    tqtest::Fixture fx;
    fx.write("/proc/cmdline", "BOOT_IMAGE=/boot/vmlinuz root=UUID=1234-ABCD ro\nroot=/dev/sdb1\n");
    EXPECT_EQ(tqtest::take(command_line_get_root_device_name("/proc/cmdline")), "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(tqtest::take(command_line_get_root_device_name("/proc/missing")), "<null>");
    EXPECT_EQ(tqtest::take(command_line_get_root_device_name("/proc")), "<null>");
    EXPECT_EQ(tqtest::take(command_line_get_root_device_name(nullptr)), "<null>");
}

TEST(RootDevice, MountTableFirstThenKernelCommandLine)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/sda2");
    fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n/dev/sda2 / ext4 rw 0 0\n");
    fx.write("/proc/cmdline", "root=/dev/sdb1\n");
    EXPECT_EQ(tqtest::take(root_device()), "/dev/sda2");
    EXPECT_NE(fx.trace_log().find("root_dev_name: /dev/sda2."), std::string::npos);

    // /dev/root has no node: the command line's UUID link decides, followed to a block device.
    fx.write("/proc/mounts", "/dev/root / ext4 rw 0 0\n");
    fx.write("/proc/cmdline", "ro root=UUID=1234-ABCD quiet\n");
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(tqtest::take(root_device()), "/dev/disk/by-uuid/1234-ABCD");

    // Only rootfs in the table; the command line names a link to nothing.
    fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n");
    fx.write("/proc/cmdline", "root=LABEL=a/b\n");
    EXPECT_EQ(tqtest::take(root_device()), "<null>");
    fx.symlink("../../sda2", "/dev/disk/by-label/a\\x2fb");
    EXPECT_EQ(tqtest::take(root_device()), "/dev/disk/by-label/a\\x2fb");

    // A regular file is not a block device; PARTUUID never is.
    fx.write("/dev/sdc1", "");
    fx.write("/proc/cmdline", "root=/dev/sdc1\n");
    EXPECT_EQ(tqtest::take(root_device()), "<null>");
    fx.write("/proc/cmdline", "root=PARTUUID=0000-01\n");
    EXPECT_EQ(tqtest::take(root_device()), "<null>");
    EXPECT_NE(fx.trace_log().find("!stat(dev_name, &sb) return"), std::string::npos);

    // Without a readable mount table.
    fx.write("/proc/mounts", "/dev/sda2 / ext4 rw 0 0\n", 0000);
    fx.write("/proc/cmdline", "root=/dev/sda2\n");
    EXPECT_EQ(tqtest::take(root_device()), "/dev/sda2");
    EXPECT_TRUE(leaks.clean());
}

TEST(RootDisk, FindsTheDiskOfTheRootPartition)
{
    auto disk = [](const std::string &json) { return tqtest::or_null(tq::find_root_disk(json)); };
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":"sda","children":[{"name":"sda2","mountpoint":"/"}]}]})"), "sda");
    // One level deeper (LVM in a partition) is deliberately not found.
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":"sda","children":[{"name":"sda2","mountpoint":null,)"
                   R"("children":[{"name":"vg-root","mountpoint":"/"}]}]}]})"),
              "<null>");
    // A root on the whole disk has no parent to name.
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":"vda","mountpoints":["/"]}]})"), "<null>");
    // util-linux 2.37 and later print a "mountpoints" array.
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":"zram0","mountpoints":[null]},{"name":"nvme0n1","children":[)"
                   R"({"name":"nvme0n1p1","mountpoints":["/boot/efi"]},{"name":"nvme0n1p2","mountpoints":["/home","/"]}]}]})"),
              "nvme0n1");
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":7,"children":[{"mountpoint":"/"}]},)"
                   R"({"name":"sdb","children":[{"mountpoint":"/"}]}]})"),
              "sdb");
    EXPECT_EQ(disk(R"({"blockdevices":[{"name":"sda","children":{"mountpoint":"/"}}]})"), "<null>");
    // Real outputs without a root partition.
    EXPECT_EQ(disk(tqtest::read_file(tqtest::corpus("lsblk/lsblk-OJb-qemu-vm-old-util-linux-one-line-per-device.json"))),
              "<null>");
    EXPECT_EQ(disk(tqtest::read_file(tqtest::corpus("lsblk/lsblk-J-bytes-o-path-nvme-luks-no-name-column.json"))),
              "<null>");

    testing::internal::CaptureStderr();
    EXPECT_EQ(disk("{\"blockdevices\": [ oops"), "<null>");
    EXPECT_EQ(disk(R"({"blockdevices":{"name":"sda"}})"), "<null>");
    EXPECT_EQ(tqtest::take(find_root_disk(nullptr)), "<null>");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("JSON parse error: oops"), std::string::npos) << err;
    EXPECT_NE(err.find("Invalid JSON structure: blockdevices is not an array\n"), std::string::npos) << err;
}

TEST(RootDisk, LsblkOutputIsReturnedWhole)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    // Far beyond one page: a machine with many disks.
    std::string json = R"({"blockdevices":[)";
    for (int i = 0; i < 400; ++i)
        json += R"({"name":"sd)" + std::to_string(i) + R"(","children":[{"name":"p","mountpoint":null}]},)";
    json += R"({"name":"sdroot","children":[{"name":"sdroot1","mountpoint":"/"}]}]})";
    json += "\n";
    fx.path_program("lsblk", json);
    CString out(get_lsblk_output());
    ASSERT_TRUE(out);
    EXPECT_EQ(std::string(out.get()), json);
    EXPECT_EQ(tqtest::take(find_root_disk(out.get())), "sdroot");
    EXPECT_EQ(fx.calls("lsblk"), std::vector<std::string>{"-J"});
    EXPECT_TRUE(leaks.clean());
}

// The real machine: what the library finds must agree with util-linux.
std::string run(const std::string &command)
{
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(::popen(command.c_str(), "r"), ::pclose);
    if (!pipe)
        return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), pipe.get())) > 0)
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
    EXPECT_EQ(tqtest::take(root_device()), source);

    std::string parent = run("lsblk -no PKNAME " + tq::os::shell_quote(source) + " 2>/dev/null");
    if (parent.empty())
        GTEST_SKIP() << "the root " << source << " is a whole disk, not a partition: lsblk names no parent";
    EXPECT_EQ(tqtest::take(find_root_disk(CString(get_lsblk_output()).get())), parent);
}

} // namespace
