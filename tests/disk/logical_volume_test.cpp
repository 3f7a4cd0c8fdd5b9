#include "disk/logical_volume.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "foundation/strutil.h"
#include "support/fixture.h"
#include "support/leak_check.h"
#include "support/results.h"
#include "tavro-quenda.h"

namespace {

std::string corpus_lvm(const char *name) { return tqtest::read_file(tqtest::corpus(std::string("lvm/") + name)); }

TEST(LogicalVolume, LsblkTypeDecides)
{
    EXPECT_TRUE(tq::lsblk_type_is_lvm("lvm\n"));
    EXPECT_TRUE(tq::lsblk_type_is_lvm(""));
    EXPECT_TRUE(tq::lsblk_type_is_lvm("lvm\ncrypt\n"));
    EXPECT_FALSE(tq::lsblk_type_is_lvm("crypt\nlvm\n"));
    EXPECT_FALSE(tq::lsblk_type_is_lvm("part\n"));
    EXPECT_FALSE(tq::lsblk_type_is_lvm("\n"));
    EXPECT_FALSE(tq::lsblk_type_is_lvm(" lvm\n"));

    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 0); // no lsblk
    fx.program("/bin/lsblk", "lvm\n");
    EXPECT_EQ(is_logical_volume("/dev/mapper/vg-root"), 1);
    fx.program("/bin/lsblk", "crypt\n");
    EXPECT_EQ(is_logical_volume("/dev/mapper/luks-1"), 0);
    fx.program("/bin/lsblk", "", 32);
    EXPECT_EQ(is_logical_volume("/dev/nothing"), 1);
    EXPECT_EQ(is_logical_volume(nullptr), 0);
    std::vector<std::string> calls = fx.calls("/bin/lsblk");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0], "-n -o TYPE " + fx.host("/dev/mapper/vg-root"));

    // A hostile path stays one argument and runs nothing.
    const std::string weird = "/dev/x'$(touch " + fx.host("/pwned") + ")\";y z";
    fx.script("/bin/lsblk", "printf '%s\\n' \"$#\" > '" + fx.host("/argc") + "'\necho lvm");
    EXPECT_EQ(is_logical_volume(weird.c_str()), 1);
    EXPECT_EQ(fx.read("/argc"), "4\n");
    EXPECT_EQ(fx.calls("/bin/lsblk").back(), "-n -o TYPE " + fx.host(weird));
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned")));
    EXPECT_TRUE(leaks.clean());
}

TEST(LvmReports, VolumeGroupAndPhysicalVolumeFromRealReports)
{
    EXPECT_EQ(tq::lvdisplay_volume_group(corpus_lvm("lvdisplay-centos7-swap-root-missing-pv-warning.txt")), "centos");
    EXPECT_EQ(tq::lvdisplay_volume_group(corpus_lvm("lvdisplay-2008-dm-errors-not-available-old-lv-name.txt")),
              "VolGroup00");
    EXPECT_EQ(tq::lvdisplay_volume_group(corpus_lvm("lvdisplay-centos55-old-format-volgroup00.txt")), "VolGroup00");
    EXPECT_EQ(tq::lvdisplay_volume_group(corpus_lvm("lvdisplay-vg00-var-abridged-no-uuid-lines.txt")), "vg00");
    EXPECT_EQ(tq::lvdisplay_volume_group("  No volume groups found\n"), "");
    // Tabs survive the cleaning; blanks do not.
    EXPECT_EQ(tq::lvdisplay_volume_group("  VG Name   my\tvg  \n"), "my\tvg");

    // Two PVs in the group: the last one listed is identified.
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-centos-two-pvs-sda2-sdb.txt"), "centos")),
              "/dev/sdb");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(
                  corpus_lvm("pvdisplay-lvm2-2008-two-pvs-gb-units-kbyte-pe-size.txt"), "home")),
              "/dev/sdb3");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-centos7-md126-missing-pv-warning.txt"), "centos")),
              "/dev/md126");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-less-than-sign-in-pv-size.txt"), "dbvg")),
              "/dev/sdb1");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-vg00-abridged-no-uuid-line.txt"), "vg00")),
              "/dev/sda3");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-vg00-abridged-no-uuid-line.txt"), "centos")),
              "<null>");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(corpus_lvm("pvdisplay-vg00-abridged-no-uuid-line.txt"), "")), "<null>");

    // "vg2" begins with "vg" and counts as the same group.
    const std::string two_groups = "  PV Name  /dev/sda2\n  VG Name  vg2\n  PV Name  /dev/sdb1\n  VG Name  other\n";
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume("  PV Name /dev/sdc1\n  VG Name vg2\n", "vg")), "/dev/sdc1");
    // Kept on purpose: once the group was seen, the last "PV Name" of the whole report is answered.
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume(two_groups, "vg")), "/dev/sdb1");
    // The VG line must follow the PV line directly.
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume("  PV Name /dev/sda2\n  PV Size 1\n  VG Name vg\n", "vg")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume("  PV Name \n  VG Name vg\n", "vg")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume("  PV Name /dev/sda3\n  VG Name vg\n  PV Name \n", "vg")), "<null>");
    // A value with a percent sign is plain text.
    EXPECT_EQ(tqtest::or_null(tq::pvdisplay_physical_volume("PV Name /dev/%s%n\nVG Name vg\n", "vg")), "/dev/%s%n");
    EXPECT_EQ(tq::report_value("  PV Name               /dev/sda2\n", "PV Name"), "/dev/sda2");
    EXPECT_EQ(tq::report_value("x" + std::string(600, 'y'), "PV Name").size(), 510u);
}

TEST(LvmRoute, IdentifiesThePhysicalVolumeBySmartctl)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/dm-0");
    fx.symlink("../dm-0", "/dev/mapper/centos-root");
    fx.block_device("/dev/sdb");
    fx.program("/sbin/lvdisplay", corpus_lvm("lvdisplay-centos7-swap-root-missing-pv-warning.txt"));
    fx.program("/sbin/pvdisplay", corpus_lvm("pvdisplay-centos-two-pvs-sda2-sdb.txt"));
    fx.program("/usr/sbin/smartctl", "Device Model:     WDC WD10EZEX\nSerial Number:    WD-1%s\n");
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/centos-root")), "WDCWD10EZEX_WD-1%s");
    EXPECT_EQ(fx.calls("/sbin/lvdisplay"), std::vector<std::string>{fx.host("/dev/mapper/centos-root")});
    EXPECT_EQ(fx.calls("/sbin/pvdisplay"), std::vector<std::string>{""});
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl"), std::vector<std::string>{"-i " + fx.host("/dev/sdb")});

    // Another group only; no group at all.
    fx.program("/sbin/pvdisplay", corpus_lvm("pvdisplay-vg00-abridged-no-uuid-line.txt"));
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    fx.program("/sbin/lvdisplay", "");
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    // Not a block device, and without pvdisplay.
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/missing")), "<null>");
    std::filesystem::remove(fx.host("/sbin/pvdisplay"));
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/centos-root")), "<null>");
    EXPECT_EQ(tqtest::take(harddisk_id_lvm(nullptr)), "<null>");
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl").size(), 1u);
    EXPECT_TRUE(leaks.clean());
}

TEST(LvmRoute, EncryptedPhysicalVolumeLeadsToThePartitionUnderneath)
{
    tqtest::Fixture fx;
    fx.block_device("/dev/sda3");
    EXPECT_EQ(tq::unencrypted_physical_volume("/dev/mapper/sda3_crypt"), "/dev/sda3");
    EXPECT_EQ(tq::unencrypted_physical_volume("/dev/mapper/crypt_x_sda3"), "/dev/sda3");
    EXPECT_EQ(tq::unencrypted_physical_volume("/dev/mapper/sdz9_crypt"), "/dev/mapper/sdz9_crypt");
    EXPECT_EQ(tq::unencrypted_physical_volume("/dev/mapper/luks-ae0f"), "/dev/mapper/luks-ae0f");
    EXPECT_EQ(tq::unencrypted_physical_volume("/dev/sda3"), "/dev/sda3");

    fx.block_device("/dev/dm-1");
    fx.symlink("../dm-1", "/dev/mapper/vg-root");
    fx.program("/sbin/lvdisplay", "  --- Logical volume ---\n  VG Name                vg\n");
    fx.program("/sbin/pvdisplay", "  --- Physical volume ---\n  PV Name               /dev/mapper/sda3_crypt\n"
                                  "  VG Name               vg\n");
    fx.program("/usr/sbin/smartctl", "Device Model: M\nSerial Number: S\n");
    EXPECT_EQ(tqtest::take(harddisk_id_lvm("/dev/mapper/vg-root")), "M_S");
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl"), std::vector<std::string>{"-i " + fx.host("/dev/sda3")});
}

TEST(DmsetupDeps, ParsesTheDependencyName)
{
    auto parse = [](std::string_view text) {
        tq::DmDeps deps = tq::parse_dmsetup_deps(text);
        return deps.none ? std::string("<none>") : deps.name;
    };
    EXPECT_EQ(parse("0 dependencies  :\n"), "<none>");
    EXPECT_EQ(parse(" 1 dependencies  : (nvme0n1p3)\n"), "nvme0n1p3");
    EXPECT_EQ(parse("1 dependencies\t: (sda3)\n"), "sda3");
    EXPECT_EQ(parse("no colon here\n"), "");
    EXPECT_EQ(parse(""), "");
    EXPECT_EQ(parse(" 2 dependencies  : (sda1) (sdb1)\n"), "sda1sdb1");
    // Real outputs: the single-device form with numbers, and the named form
    // whose first piece is the mapping's own name.
    EXPECT_EQ(parse(tqtest::read_file(tqtest::corpus("dmsetup/deps-single-device-argument-no-name-prefix.txt"))),
              "8,16");
    EXPECT_EQ(parse(tqtest::read_file(tqtest::corpus("dmsetup/deps-o-blkdevname-crypt-devices-source-comment.txt"))),
              "sdb3_crypt");
    // Only the first 1023 bytes count.
    EXPECT_EQ(parse(std::string(1023, 'x') + ": (sda)"), "");
}

TEST(DmsetupDeps, RunsDmsetupAndReapsIt)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/dm-0");
    fx.block_device("/dev/sda3");
    fx.program("/usr/sbin/dmsetup", " 1 dependencies  : (sda3)\n");
    EXPECT_EQ(tqtest::or_null(tq::dm_physical_disk_node("/dev/dm-0")), "/dev/sda3");
    EXPECT_EQ(fx.calls("/usr/sbin/dmsetup"), std::vector<std::string>{"deps -o devname " + fx.host("/dev/dm-0")});
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "physicalDiskNode: /dev/sda3"));

    fx.program("/usr/sbin/dmsetup", "0 dependencies  :\n");
    EXPECT_EQ(tqtest::or_null(tq::dm_dependency_name("/dev/dm-0")), "<null>");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "cannot found deps"));

    // A dependency without a node: lsblk names the disk.
    fx.program("/usr/sbin/dmsetup", "1 dependencies  : (vdz)\n");
    fx.program("/usr/bin/lsblk", R"({"blockdevices":[{"name":"/dev/vdz","serial":"S1","model":"Virtual Disk"}]})");
    EXPECT_EQ(tqtest::or_null(tq::dm_physical_disk_node("/dev/dm-0")), "Virtual-Disk_S1");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "'/dev/vdz' is not a block device, 'vdz'"));

    // A child that says far more than is read still ends, and is reaped.
    fx.script("/usr/sbin/dmsetup", "echo '1 dependencies : (sda3)'\nhead -c 1000000 /dev/zero");
    EXPECT_EQ(tqtest::or_null(tq::dm_dependency_name("/dev/dm-0")), "sda3");

    // A missing or failing dmsetup answers nothing.
    std::filesystem::remove(fx.host("/usr/sbin/dmsetup"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(tqtest::or_null(tq::dm_dependency_name("/dev/dm-0")), "<null>");
    EXPECT_TRUE(tqtest::contains(testing::internal::GetCapturedStderr(), "execve"));
    EXPECT_EQ(tqtest::or_null(tq::dm_dependency_name(nullptr)), "<null>");
    EXPECT_TRUE(leaks.clean());
}

} // namespace
