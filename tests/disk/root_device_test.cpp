// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/root_device.h"

#include "disk_fakes.h"

namespace {

using namespace disktest;

TEST(RootDevice, MountTableAndKernelCommandLineTexts)
{
    const std::pair<std::string, const char *> tables[] = {
        // The early-boot rootfs line is skipped; the first other "/" wins.
        {"rootfs / rootfs rw 0 0\n/dev/sda2 / ext4 rw 0 0\n/dev/sda3 / ext4 rw 0 0\n", "/dev/sda2"},
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
        {"root=UUID=", "<null>"}, {"root=LABEL=", "<null>"}, {"quiet noroot=/dev/sda1 myroot=x", "<null>"},
        // Only the first line, and only up to a zero byte.
        {"quiet\nroot=/dev/sda1", "<null>"}, {std::string("quiet\0root=/dev/sda1", 20), "<null>"},
    };
    for (const auto &[line, want] : lines)
        EXPECT_EQ(or_null(tq::root_device_from_command_line(line)), want) << line;
    std::string cut = or_null(tq::root_device_from_command_line("root=LABEL=" + std::string(3000, '/')));
    EXPECT_EQ(cut.size(), 4095u);
    EXPECT_EQ(cut.substr(0, 23), "/dev/disk/by-label/\\x2f");
}

using RootDeviceMachine = Machine;

TEST_F(RootDeviceMachine, MountTableFirstThenKernelCommandLine)
{
    EXPECT_EQ(take(command_line_get_root_device_name(nullptr)), "<null>");

    auto root = [&](const char *mounts, const char *cmdline, unsigned mounts_mode = 0644) {
        fx.write("/proc/mounts", mounts, mounts_mode);
        fx.write("/proc/cmdline", cmdline);
        return take(root_device());
    };
    fx.block_device("/dev/sda2");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n/dev/sda2 / ext4 rw 0 0\n", "root=/dev/sdb1\n"), "/dev/sda2");
    // /dev/root has no node: the command line's UUID link decides.
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(root("/dev/root / ext4 rw 0 0\n", "ro root=UUID=1234-ABCD quiet\n"), "/dev/disk/by-uuid/1234-ABCD");
    // A regular file is not a block device.
    fx.write("/dev/sdc1", "");
    EXPECT_EQ(root("rootfs / rootfs rw 0 0\n", "root=/dev/sdc1\n"), "<null>");
    // A mount table without read permission is not read.
    fx.block_device("/dev/sdb1");
    EXPECT_EQ(root("/dev/sda2 / ext4 rw 0 0\n", "root=/dev/sdb1\n", 0000), "/dev/sdb1");
}

TEST(RootDisk, FindsTheDiskOfTheRootPartition)
{
    auto devices = [](const std::string &list) { return R"({"blockdevices":[)" + list + "]}"; };
    const std::string sda = R"({"name":"sda","children":[{"name":"sda2","mountpoint":"/"}]})";
    const std::pair<std::string, const char *> cases[] = {
        {devices(sda), "sda"},
        // Text beyond what lsblk ever prints is refused unparsed.
        {devices(sda) + std::string(tq::kLsblkJsonMax, ' '), "<null>"},
        // One level deeper (LVM in a partition) is deliberately not found.
        {devices(R"({"name":"sda","children":[{"mountpoint":null,"children":[{"mountpoint":"/"}]}]})"), "<null>"},
        // A root on the whole disk has no parent to name.
        {devices(R"({"name":"vda","mountpoints":["/"]})"), "<null>"},
        // util-linux 2.37 and later print a "mountpoints" array.
        {devices(R"({"name":"zram0","mountpoints":[null]},{"name":"nvme0n1","children":[)"
                 R"({"mountpoints":["/boot/efi"]},{"mountpoints":["/home","/"]}]})"),
         "nvme0n1"},
        {devices(R"({"name":7,"children":[{"mountpoint":"/"}]},)" + sda), "sda"},
    };
    for (const auto &[json, want] : cases)
        EXPECT_EQ(take(find_root_disk(json.c_str())), want) << json.substr(0, 200);

    testing::internal::CaptureStderr();
    EXPECT_EQ(take(find_root_disk("{\"blockdevices\": [ oops")), "<null>");
    EXPECT_EQ(take(find_root_disk(R"({"blockdevices":{"name":"sda"}})")), "<null>");
    EXPECT_EQ(take(find_root_disk(nullptr)), "<null>");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(tqtest::contains(err, "JSON parse error: oops")) << err;
    EXPECT_TRUE(tqtest::contains(err, "Invalid JSON structure: blockdevices is not an array\n")) << err;
}

TEST_F(RootDeviceMachine, LsblkOutputIsReturnedWholeFromLsblksOwnPlacesNeverFromPath)
{
    fx.path_program("lsblk", "hostile\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(take(get_lsblk_output()), "<null>") << "no lsblk in its places";
    EXPECT_TRUE(tqtest::contains(testing::internal::GetCapturedStderr(), "Failed to run lsblk"));
    const std::string json = std::string(10000, ' ') + "{}\n"; // far beyond one page, as with many disks
    fx.program("/bin/lsblk", json);
    EXPECT_EQ(take(get_lsblk_output()), json);
    fx.program("/usr/bin/lsblk", "{}");
    EXPECT_EQ(take(get_lsblk_output()), "{}") << "/usr/bin/lsblk comes first";
    EXPECT_EQ(fx.calls("/bin/lsblk"), Calls{"-J"});
    EXPECT_TRUE(fx.calls("lsblk").empty());
}

} // namespace
