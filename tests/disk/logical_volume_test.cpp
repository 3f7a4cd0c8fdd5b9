// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/logical_volume.h"

#include <filesystem>

#include "disk_fakes.h"

namespace {

using namespace disktest;
using Lvm = Machine;

// An lvdisplay report of centos/root, and pvdisplay reports of two physical
// volumes in the group centos and of one in another group.
const std::string kCentosRoot = "  --- Logical volume ---\n  LV Path                /dev/centos/root\n"
                                "  LV Name                root\n  VG Name                centos\n";
const std::string kCentosPvs = "  --- Physical volume ---\n  PV Name               /dev/sda2\n  VG Name               centos\n\n"
                               "  --- Physical volume ---\n  PV Name               /dev/sdb\n  VG Name               centos\n";
const std::string kOtherPv = "  --- Physical volume ---\n  PV Name               /dev/sda3\n  VG Name               vg00\n";

TEST_F(Lvm, LsblkTypeDecidesWhatIsALogicalVolume)
{
    // No output at all counts as a logical volume; only the first line counts.
    const std::pair<const char *, bool> types[] = {{"lvm\n", true},    {"", true},     {"lvm\ncrypt\n", true},
                                                   {"crypt\nlvm\n", false}, {"\n", false}, {" lvm\n", false}};
    for (const auto &[out, want] : types)
        EXPECT_EQ(tq::lsblk_type_is_lvm(out), want) << out;

    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 0); // no lsblk
    fx.program("/bin/lsblk", "lvm\n");
    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 1);
    fx.program("/bin/lsblk", "", 32);
    EXPECT_EQ(is_logical_volume("/dev/nothing"), 1);
    EXPECT_EQ(is_logical_volume(nullptr), 0);
    EXPECT_EQ(fx.calls("/bin/lsblk").front(), "-n -o TYPE " + fx.host("/dev/mapper/vg-root"));
}

TEST(LvmReports, VolumeGroupPhysicalVolumeAndTheVolumeUnderAnEncryption)
{
    const std::pair<std::string, const char *> groups[] = {
        {kCentosRoot, "centos"},
        {"  No volume groups found\n", ""}, {"  VG Name   my\tvg  \n", "my\tvg"}, // tabs stay, blanks go
    };
    for (const auto &[report, want] : groups)
        EXPECT_EQ(tq::lvdisplay_volume_group(report), want) << report.substr(0, 80);

    const std::tuple<std::string, const char *, const char *> volumes[] = {
        // Two PVs in the group: the last one listed is identified.
        {kCentosPvs, "centos", "/dev/sdb"},
        {kOtherPv, "vg00", "/dev/sda3"}, {kOtherPv, "centos", "<null>"},
        // "vg2" begins with "vg" and counts as the same group.
        {"  PV Name /dev/sdc1\n  VG Name vg2\n", "vg", "/dev/sdc1"},
        // Kept on purpose: once the group was seen, the last "PV Name" of the whole report is answered.
        {"  PV Name  /dev/sda2\n  VG Name  vg2\n  PV Name  /dev/sdb1\n  VG Name  other\n", "vg", "/dev/sdb1"},
        // The VG line must follow the PV line directly; an empty PV name is none.
        {"  PV Name /dev/sda2\n  PV Size 1\n  VG Name vg\n", "vg", "<null>"},
        {"  PV Name \n  VG Name vg\n", "vg", "<null>"},
        {"PV Name /dev/%s%n\nVG Name vg\n", "vg", "/dev/%s%n"},
    };
    for (const auto &[report, vg, want] : volumes)
        EXPECT_EQ(or_null(tq::pvdisplay_physical_volume(report, vg)), want) << vg << "\n" << report.substr(0, 80);
    EXPECT_EQ(tq::report_value("x" + std::string(600, 'y'), "PV Name").size(), 510u);

    tqtest::Fixture fx;
    fx.block_device("/dev/sda3");
    const std::pair<const char *, const char *> crypts[] = {
        {"/dev/mapper/sda3_crypt", "/dev/sda3"}, {"/dev/mapper/crypt_x_sda3", "/dev/sda3"},
        {"/dev/mapper/sdz9_crypt", "/dev/mapper/sdz9_crypt"}, {"/dev/mapper/luks-ae0f", "/dev/mapper/luks-ae0f"}};
    for (const auto &[pv, want] : crypts)
        EXPECT_EQ(tq::unencrypted_physical_volume(pv), want) << pv;
}

TEST_F(Lvm, IdentifiesThePhysicalVolumeBySmartctl)
{
    mapping(fx, "centos-root");
    fx.block_device("/dev/sdb");
    fx.program("/sbin/lvdisplay", kCentosRoot);
    fx.program("/sbin/pvdisplay", kCentosPvs);
    fx.program(kSmartctl, "Device Model:     WDC WD10EZEX\nSerial Number:    WD-1%s\n");
    EXPECT_EQ(take(harddisk_id_lvm("/dev/mapper/centos-root")), "WDCWD10EZEX_WD-1%s");
    EXPECT_EQ(fx.calls("/sbin/lvdisplay"), Calls{fx.host("/dev/mapper/centos-root")});
    EXPECT_EQ(fx.calls("/sbin/pvdisplay"), Calls{""});
    EXPECT_EQ(fx.calls(kSmartctl), Calls{"-i " + fx.host("/dev/sdb")});

    // Another group only; no group at all; not a block device; no pvdisplay.
    fx.program("/sbin/pvdisplay", kOtherPv);
    EXPECT_EQ(take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    fx.program("/sbin/lvdisplay", "");
    EXPECT_EQ(take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    std::filesystem::remove(fx.host("/sbin/pvdisplay"));
    EXPECT_EQ(take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    EXPECT_EQ(take(harddisk_id_lvm(nullptr)), "<null>");
    EXPECT_EQ(fx.calls(kSmartctl).size(), 1u);
}

TEST(DmsetupDeps, ParsesTheDependencyName)
{
    const std::pair<std::string, const char *> cases[] = {
        {"0 dependencies  :\n", "<none>"}, {" 1 dependencies  : (nvme0n1p3)\n", "nvme0n1p3"},
        {"1 dependencies\t: (sda3)\n", "sda3"}, {"1 dependencies\t: (8, 16)\n", "8,16"}, {"no colon here\n", ""}, {" 2 dependencies  : (sda1) (sdb1)\n", "sda1sdb1"},
        {std::string(1023, 'x') + ": (sda)", ""}, // only the first 1023 bytes count
        {std::string(1001, ' ') + "1 dependencies : (sda3)\n", "sda3"}, // the 1023rd does
    };
    for (const auto &[text, want] : cases) {
        tq::DmDeps deps = tq::parse_dmsetup_deps(text);
        EXPECT_EQ(deps.none ? "<none>" : deps.name, want) << text.substr(0, 80);
    }
}

TEST_F(Lvm, RunsDmsetupAndReapsIt)
{
    fx.block_device("/dev/dm-0");
    fx.block_device("/dev/sda3");
    fx.program(kDmsetup, " 1 dependencies  : (sda3)\n");
    EXPECT_EQ(or_null(tq::dm_physical_disk_node("/dev/dm-0")), "/dev/sda3");
    EXPECT_EQ(fx.calls(kDmsetup), Calls{"deps -o devname " + fx.host("/dev/dm-0")});
    fx.program(kDmsetup, "0 dependencies  :\n");
    EXPECT_EQ(or_null(tq::dm_dependency_name("/dev/dm-0")), "<null>");
    // A dependency without a node: lsblk names the disk.
    fx.program(kDmsetup, "1 dependencies  : (vdz)\n");
    fx.program("/usr/bin/lsblk", R"({"blockdevices":[{"name":"/dev/vdz","serial":"S1","model":"Virtual Disk"}]})");
    EXPECT_EQ(or_null(tq::dm_physical_disk_node("/dev/dm-0")), "Virtual-Disk_S1");
    // A child that says far more than is read still ends, and is reaped.
    fx.script(kDmsetup, "echo '1 dependencies : (sda3)'\nhead -c 1000000 /dev/zero");
    EXPECT_EQ(or_null(tq::dm_dependency_name("/dev/dm-0")), "sda3");
    // A missing dmsetup answers nothing.
    std::filesystem::remove(fx.host(kDmsetup));
    testing::internal::CaptureStderr();
    EXPECT_EQ(or_null(tq::dm_dependency_name("/dev/dm-0")), "<null>");
    EXPECT_TRUE(tqtest::contains(testing::internal::GetCapturedStderr(), "execve"));
    EXPECT_EQ(or_null(tq::dm_dependency_name(nullptr)), "<null>");
}

} // namespace
