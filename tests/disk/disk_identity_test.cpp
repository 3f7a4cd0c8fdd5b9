// The system disk identity, end to end over recorded machines.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "disk_fakes.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "support/fixture.h"
#include "support/leak_check.h"
#include "support/results.h"
#include "tavro-quenda.h"

namespace {

std::string identity() { return tqtest::take(tavro_quenda_get_harddisk_id()); }

std::string corpus(const std::string &name) { return tqtest::read_file(tqtest::corpus(name)); }

TEST(SystemDisk, SataPartitionByAtaIdentify)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/sda2");
    fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n/dev/sda2 / ext4 rw,relatime 0 0\n");
    disktest::fake_ata_identity("/dev/sda2", "WDC WD10EZEX-08WN4A0", "WD-WCC6Y1234567");
    fx.program("/usr/sbin/smartctl", "Device Model: other\nSerial Number: other\n");
    EXPECT_EQ(identity(), "WDCWD10EZEX-08WN4A0_WD-WCC6Y1234567");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id: WDCWD10EZEX-08WN4A0_WD-WCC6Y1234567"));
    // The first answer stands: smartctl is never asked.
    EXPECT_TRUE(fx.calls("/usr/sbin/smartctl").empty());
    EXPECT_TRUE(leaks.clean());
}

TEST(SystemDisk, NvmeBySysfs)
{
    tqtest::Fixture fx;
    fx.block_device("/dev/nvme0n1p2");
    fx.write("/proc/mounts", "/dev/nvme0n1p2 / ext4 rw 0 0\n");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB                     \n");
    fx.write("/sys/block/nvme0n1/device/serial", "        S64ANS0T123456\n");
    EXPECT_EQ(identity(), "Samsung-SSD-980-1TB_S64ANS0T123456");
}

TEST(SystemDisk, ByUuidRootFallsThroughToSmartctl)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/sda1");
    fx.symlink("../../sda1", "/dev/disk/by-uuid/0a1b-2c3d");
    fx.write("/proc/mounts", "/dev/root / ext4 rw 0 0\n");
    fx.write("/proc/cmdline", "console=ttyS0 root=UUID=0a1b-2c3d rootwait\n");
    // A USB bridge: the ATA identify ioctl has nothing to say.
    disktest::fake_ata_identity("/nothing", "", "");
    fx.program("/usr/sbin/smartctl", corpus("smartctl/usb-sat-asmedia-asmt106x-bridge-name-as-model.txt"));
    EXPECT_EQ(identity(), "ASMT106x_V0Safe_--");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "device :/dev/0a1b-2c3d"));
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl"), std::vector<std::string>{"-i " + fx.host("/dev/sda1")});
    EXPECT_TRUE(leaks.clean());
}

TEST(SystemDisk, DeviceMapperOnAWholeDiskAnswersTheNodePath)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/dm-0");
    fx.symlink("../dm-0", "/dev/mapper/root");
    fx.block_device("/dev/sda");
    fx.write("/proc/mounts", "/dev/mapper/root / ext4 rw 0 0\n");
    fx.program("/usr/sbin/dmsetup", " 1 dependencies  : (sda)\n");
    tq::os::testing::set_whole_disk([](const char *path) { return std::string(path) == "/dev/sda" ? 1 : 0; });
    EXPECT_EQ(identity(), "/dev/sda");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id: /dev/sda"));
    EXPECT_TRUE(leaks.clean());
}

// A root logical volume /dev/mapper/<lv> over the partition /dev/<pv>.
void lvm_machine(tqtest::Fixture &fx, const std::string &lv, const std::string &pv_name)
{
    fx.block_device("/dev/dm-0");
    fx.symlink("../dm-0", "/dev/mapper/" + lv);
    fx.write("/proc/mounts", "/dev/mapper/" + lv + " / xfs rw 0 0\n");
    fx.program("/bin/lsblk", "lvm\n");
    fx.program("/sbin/lvdisplay", corpus("lvm/lvdisplay-centos7-swap-root-missing-pv-warning.txt"));
    fx.program("/sbin/pvdisplay", "  --- Physical volume ---\n  PV Name               " + pv_name +
                                      "\n  VG Name               centos\n  PV Size               49.51 GiB\n");
    // smartctl knows the disk but reports no serial for the logical volume itself.
    fx.script("/usr/sbin/smartctl", "case \"$2\" in\n"
                                    "*/dm-0) echo 'Product: LOGICAL VOLUME' ;;\n"
                                    "*) cat '" + tqtest::corpus("smartctl/ata-hdd-seagate-oem-oos12000g.txt") +
                                        "' ;;\nesac");
}

TEST(SystemDisk, LogicalVolumeOverAPartition)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    lvm_machine(fx, "centos-root", "/dev/sda2");
    fx.block_device("/dev/sda2");
    fx.program("/usr/sbin/dmsetup", "1 dependencies  : (sda2)\n");
    EXPECT_EQ(identity(), "OOS12000G_00008AXB");
    // The device-mapper route found a partition and fell to the ATA reader,
    // which opened /dev/<mapping name>.
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "physicalDiskNode: /dev/sda2"));
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "device :/dev/centos-root"));
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl"),
              (std::vector<std::string>{"-i " + fx.host("/dev/dm-0"), "-i " + fx.host("/dev/sda2")}));
    EXPECT_EQ(fx.calls("/bin/lsblk"), std::vector<std::string>{"-n -o TYPE " + fx.host("/dev/mapper/centos-root")});
    EXPECT_TRUE(leaks.clean());
}

TEST(SystemDisk, LogicalVolumeOnAnEncryptedPhysicalVolume)
{
    tqtest::Fixture fx;
    lvm_machine(fx, "centos-root", "/dev/mapper/sda3_crypt");
    fx.block_device("/dev/sda3");
    fx.block_device("/dev/dm-1");
    fx.symlink("../dm-1", "/dev/mapper/sda3_crypt");
    fx.program("/usr/sbin/dmsetup", "1 dependencies  : (dm-1)\n");
    tq::os::testing::set_whole_disk([](const char *) { return 0; });
    EXPECT_EQ(identity(), "OOS12000G_00008AXB");
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl").back(), "-i " + fx.host("/dev/sda3"));
}

TEST(SystemDisk, NothingFound)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    // No root device at all: no getter trace.
    fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n");
    fx.write("/proc/cmdline", "root=PARTUUID=0001-02\n");
    EXPECT_EQ(identity(), "<null>");
    EXPECT_FALSE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id"));

    // A root device that no route can identify: a virtio disk without
    // smartctl, and lsblk calls it a plain disk.
    fx.block_device("/dev/vda");
    fx.write("/proc/mounts", "/dev/vda / ext4 rw 0 0\n");
    fx.program("/bin/lsblk", "disk\n");
    EXPECT_EQ(identity(), "<null>");
    // With no lsblk answer the LVM route is tried, and finds no LVM tools.
    fx.program("/bin/lsblk", "");
    EXPECT_EQ(identity(), "<null>");
    EXPECT_FALSE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id"));
    EXPECT_TRUE(leaks.clean());
}

} // namespace
