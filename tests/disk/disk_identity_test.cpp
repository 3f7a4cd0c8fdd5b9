// SPDX-License-Identifier: LGPL-2.1-or-later
// The system disk identity: each route in its turn, and the first answer stands.
#include "disk_fakes.h"

namespace {

using namespace disktest;
using SystemDisk = Machine;

std::string identity() { return take(tavro_quenda_get_harddisk_id()); }

TEST_F(SystemDisk, EachRouteIsAskedInTurnAndTheFirstAnswerStands)
{
    EXPECT_EQ(identity(), "<null>"); // no root device at all
    // The root on a logical volume over /dev/sdb, a disk that only smartctl knows.
    mapping(fx, "vg-root");
    fx.write("/proc/mounts", "/dev/mapper/vg-root / ext4 rw 0 0\n");
    fx.block_device("/dev/sdb");
    fx.script(kSmartctl, "case \"$2\" in */sdb) echo 'Device Model: M'; echo 'Serial Number: S' ;; esac");
    fx.program("/sbin/lvdisplay", "  VG Name  vg\n");
    fx.program("/sbin/pvdisplay", "  PV Name  /dev/sdb\n  VG Name  vg\n");
    EXPECT_EQ(identity(), "<null>"); // without lsblk it is no logical volume
    EXPECT_FALSE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id"));
    fx.program("/bin/lsblk", "lvm\n");
    EXPECT_EQ(identity(), "M_S");
    // Then smartctl knows the mapping itself, and then the ATA reader its name under /dev.
    fx.program(kSmartctl, "Device Model: dm\nSerial Number: 0\n");
    EXPECT_EQ(identity(), "dm_0");
    fx.block_device("/dev/vg-root");
    fake_ata_identity("/dev/vg-root", "ATA", "1");
    EXPECT_EQ(identity(), "ATA_1");
    const std::string dm = "-i " + fx.host("/dev/dm-0");
    EXPECT_EQ(fx.calls(kSmartctl), (Calls{dm, dm, "-i " + fx.host("/dev/sdb"), dm})); // none once ATA answered
    EXPECT_EQ(fx.calls("/sbin/lvdisplay"), Calls{fx.host("/dev/mapper/vg-root")});
    EXPECT_EQ(fx.calls("/sbin/pvdisplay"), Calls{""});
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "tavro_quenda_get_harddisk_id: ATA_1"));
}

} // namespace
