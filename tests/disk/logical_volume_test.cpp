// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/logical_volume.h"

#include "disk_fakes.h"

namespace {

using namespace disktest;
using Lvm = Machine;

TEST_F(Lvm, LsblkTypeDecidesWhatIsALogicalVolume)
{
    // No output at all counts as a logical volume; only the first line counts.
    const std::pair<const char *, bool> types[] = {{"lvm\n", true},    {"", true},     {"lvm\ncrypt\n", true},
                                                   {"crypt\nlvm\n", false}, {"\n", false}, {" lvm\n", false}};
    for (const auto &[out, want] : types)
        EXPECT_EQ(tq::lsblk_type_is_lvm(out), want) << out;

    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 0); // no lsblk
    fx.program("/bin/lsblk", "", 32);
    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 1);
    EXPECT_EQ(is_logical_volume(nullptr), 0);
    EXPECT_EQ(fx.calls("/bin/lsblk"), Calls{"-n -o TYPE " + fx.host("/dev/mapper/vg-root")});
    EXPECT_EQ(take(harddisk_id_lvm(nullptr)), "<null>");
}

TEST(LvmReports, VolumeGroupPhysicalVolumeAndTheVolumeUnderAnEncryption)
{
    const std::pair<std::string, const char *> groups[] = {
        {"  --- Logical volume ---\n  LV Name                root\n  VG Name                centos\n", "centos"},
        {"  No volume groups found\n", ""}, {"  VG Name   my\tvg  \n", "my\tvg"}, // tabs stay, blanks go
    };
    for (const auto &[report, want] : groups)
        EXPECT_EQ(tq::lvdisplay_volume_group(report), want) << report;

    const std::tuple<std::string, const char *, const char *> volumes[] = {
        // Two PVs in the group: the last one listed is identified.
        {"  PV Name /dev/sda2\n  VG Name centos\n\n  PV Name /dev/sdb\n  VG Name centos\n", "centos", "/dev/sdb"},
        {"  --- Physical volume ---\n  PV Name /dev/sda3\n  VG Name vg00\n", "centos", "<null>"},
        // "vg2" begins with "vg" and counts as the same group.
        {"  PV Name /dev/sdc1\n  VG Name vg2\n", "vg", "/dev/sdc1"},
        // Kept on purpose: once the group was seen, the last "PV Name" of the whole report is answered.
        {"  PV Name  /dev/sda2\n  VG Name  vg2\n  PV Name  /dev/sdb1\n  VG Name  other\n", "vg", "/dev/sdb1"},
        // The VG line must follow the PV line directly; an empty PV name is none.
        {"  PV Name /dev/sda2\n  PV Size 1\n  VG Name vg\n", "vg", "<null>"},
        {"  PV Name \n  VG Name vg\n", "vg", "<null>"},
    };
    for (const auto &[report, vg, want] : volumes)
        EXPECT_EQ(or_null(tq::pvdisplay_physical_volume(report, vg)), want) << vg << "\n" << report;
    EXPECT_EQ(tq::report_value("x" + std::string(600, 'y'), "PV Name").size(), 510u);

    tqtest::Fixture fx;
    fx.block_device("/dev/sda3");
    const std::pair<const char *, const char *> crypts[] = {
        {"/dev/mapper/sda3_crypt", "/dev/sda3"}, {"/dev/mapper/crypt_x_sda3", "/dev/sda3"},
        {"/dev/mapper/sdz9_crypt", "/dev/mapper/sdz9_crypt"}, {"/dev/mapper/luks-ae0f", "/dev/mapper/luks-ae0f"}};
    for (const auto &[pv, want] : crypts)
        EXPECT_EQ(tq::unencrypted_physical_volume(pv), want) << pv;
}

TEST(DmsetupDeps, ParsesTheDependencyName)
{
    const std::pair<std::string, const char *> cases[] = {
        {"0 dependencies  :\n", "<none>"}, {" 1 dependencies  : (nvme0n1p3)\n", "nvme0n1p3"},
        {"no colon here\n", ""}, {" 2 dependencies  : (sda1) (sdb1)\n", "sda1sdb1"},
        {std::string(1023, 'x') + ": (sda)", ""}, // only the first 1023 bytes count
        {std::string(1001, ' ') + "1 dependencies : (sda3)\n", "sda3"}, // the 1023rd does
    };
    for (const auto &[text, want] : cases) {
        tq::DmDeps deps = tq::parse_dmsetup_deps(text);
        EXPECT_EQ(deps.none ? "<none>" : deps.name, want) << text.substr(0, 80);
    }
}

TEST_F(Lvm, ADependencyWithoutANodeIsNamedByLsblk)
{
    fx.block_device("/dev/dm-0");
    fx.program(kDmsetup, "1 dependencies  : (vdz)\n");
    fx.program("/usr/bin/lsblk", R"({"blockdevices":[{"name":"/dev/vdz","serial":"S1","model":"Virtual Disk"}]})");
    EXPECT_EQ(or_null(tq::dm_physical_disk_node("/dev/dm-0")), "Virtual-Disk_S1");
    EXPECT_EQ(fx.calls("/usr/bin/lsblk"), Calls{"-Jp -o name,serial,model"});
    EXPECT_EQ(or_null(tq::dm_dependency_name(nullptr)), "<null>");
}

} // namespace
