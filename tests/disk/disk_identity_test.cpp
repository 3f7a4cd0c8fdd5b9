// SPDX-License-Identifier: LGPL-2.1-or-later
// The system disk identity, end to end over recorded machines.
#include "disk_fakes.h"

namespace {

using namespace disktest;

std::string identity() { return take(tavro_quenda_get_harddisk_id()); }

class SystemDisk : public Machine {
protected:
    // The root file system is on the block device `root`.
    void root_on(const std::string &root)
    {
        fx.block_device(root);
        fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n" + root + " / ext4 rw,relatime 0 0\n");
    }
    // A root logical volume /dev/mapper/centos-root over the physical volume pv.
    void lvm_machine(const std::string &pv)
    {
        mapping(fx, "centos-root");
        root_on("/dev/mapper/centos-root");
        fx.program("/bin/lsblk", "lvm\n");
        fx.program("/sbin/lvdisplay", "  --- Logical volume ---\n  LV Path                /dev/centos/root\n"
                                      "  LV Name                root\n  VG Name                centos\n");
        fx.program("/sbin/pvdisplay", "  --- Physical volume ---\n  PV Name               " + pv +
                                          "\n  VG Name               centos\n  PV Size               49.51 GiB\n");
        // smartctl knows the disk but reports no serial for the logical volume itself.
        fx.script(kSmartctl, "case \"$2\" in\n*/dm-0) echo 'Product: LOGICAL VOLUME' ;;\n*) cat '" +
                                 tqtest::corpus("smartctl/ata-hdd-seagate-oem-oos12000g.txt") + "' ;;\nesac");
    }
};

TEST_F(SystemDisk, SataPartitionByAtaIdentify)
{
    root_on("/dev/sda2");
    fake_ata_identity("/dev/sda2", "WDC WD10EZEX-08WN4A0", "WD-WCC6Y1234567");
    fx.program(kSmartctl, "Device Model: other\nSerial Number: other\n");
    EXPECT_EQ(identity(), "WDCWD10EZEX-08WN4A0_WD-WCC6Y1234567");
    EXPECT_TRUE(fx.calls(kSmartctl).empty()); // the first answer stands
}

TEST_F(SystemDisk, NvmeBySysfs)
{
    root_on("/dev/nvme0n1p2");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB                     \n");
    fx.write("/sys/block/nvme0n1/device/serial", "        S64ANS0T123456\n");
    EXPECT_EQ(identity(), "Samsung-SSD-980-1TB_S64ANS0T123456");
}

TEST_F(SystemDisk, ByUuidRootFallsThroughToSmartctl)
{
    fx.block_device("/dev/sda1");
    fx.symlink("../../sda1", "/dev/disk/by-uuid/0a1b-2c3d");
    fx.write("/proc/mounts", "/dev/root / ext4 rw 0 0\n");
    fx.write("/proc/cmdline", "console=ttyS0 root=UUID=0a1b-2c3d rootwait\n");
    // The ATA reader opens /dev/<uuid>, which does not exist: the disk's own
    // ATA answer is never seen, and smartctl reads the disk behind the USB bridge.
    fake_ata_identity("/dev/sda1", "ATA", "ANSWER");
    fx.program(kSmartctl, tqtest::read_file(tqtest::corpus("smartctl/nvme-usb-asmedia-samsung-portable-t7-aarch64.txt")));
    EXPECT_EQ(identity(), "SamsungPortableSSDT7_S7MNNS0Y828393V");
    EXPECT_EQ(fx.calls(kSmartctl), Calls{"-i " + fx.host("/dev/sda1")});
}

TEST_F(SystemDisk, DeviceMapperOnAWholeDiskAnswersTheNodePath)
{
    mapping(fx, "root");
    root_on("/dev/mapper/root");
    fx.block_device("/dev/sda");
    fx.program(kDmsetup, " 1 dependencies  : (sda)\n");
    whole_disk("/dev/sda");
    EXPECT_EQ(identity(), "/dev/sda");
    EXPECT_EQ(fx.calls(kDmsetup), Calls{"deps -o devname " + fx.host("/dev/dm-0")});
}

TEST_F(SystemDisk, LogicalVolumeOnAnEncryptedPhysicalVolume)
{
    lvm_machine("/dev/mapper/sda3_crypt");
    fx.block_device("/dev/sda3");
    mapping(fx, "sda3_crypt", "dm-1");
    fx.program(kDmsetup, "1 dependencies  : (dm-1)\n");
    whole_disk("/dev/none");
    EXPECT_EQ(identity(), "OOS12000G_00008AXB");
    EXPECT_EQ(fx.calls(kSmartctl).back(), "-i " + fx.host("/dev/sda3"));
}

TEST_F(SystemDisk, NothingFound)
{
    fx.write("/proc/mounts", "rootfs / rootfs rw 0 0\n");
    fx.write("/proc/cmdline", "root=PARTUUID=0001-02\n");
    EXPECT_EQ(identity(), "<null>"); // no root device at all
    // A virtio disk without smartctl, with no lsblk answer (so the LVM route
    // runs) and no LVM tools.
    root_on("/dev/vda");
    fx.program("/bin/lsblk", "");
    EXPECT_EQ(identity(), "<null>");
    EXPECT_EQ(fx.calls("/bin/lsblk").size(), 1u);
    EXPECT_FALSE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id"));
}

} // namespace
