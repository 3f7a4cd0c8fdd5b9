// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/disk_readers.h"

#include <filesystem>
#include <map>

#include "disk_fakes.h"

namespace {

using namespace disktest;
using Readers = Machine;
constexpr const char *kNull = nullptr;

TEST_F(Readers, AtaIdentityKeepsOnlyGraphicBytes)
{
    fx.block_device("/dev/sda");
    fx.block_device("/dev/sda2");
    fake_ata_identity("/dev/sda2", "WDC WD10EZEX-08WN4A0", "     WD-WCC6Y1234567");
    EXPECT_EQ(take(harddisk_id("/dev/sda2")), "WDCWD10EZEX-08WN4A0_WD-WCC6Y1234567");
    EXPECT_EQ(take(harddisk_id("/dev/sda")), "<null>"); // the ioctl fails
    // Not a block device answers nothing.
    fx.write("/dev/sdq", "");
    for (const char *path : {"/dev/sdq", "/dev/missing", kNull})
        EXPECT_EQ(take(harddisk_id(path)), "<null>") << (path ? path : "null");
}

TEST_F(Readers, NvmeBySysfsAndBySevenCharactersOfTheModel)
{
    // Words join with one dash, at a zero byte or the capacity the text ends.
    EXPECT_EQ(tq::clean_sysfs_attribute("a \t\n b\n", 1024), "a-b");
    EXPECT_EQ(tq::clean_sysfs_attribute(std::string("ab\0cd", 5), 1024), "ab");
    EXPECT_EQ(tq::clean_sysfs_attribute("abcdef", 4), "abc");
    // Bytes above 0x7f are no graphic characters, whether char is signed or not.
    EXPECT_EQ(tq::clean_sysfs_attribute("A\xC3\x84" "B\xFF", 1024), "A-B");

    fx.block_device("/dev/nvme0n1p2");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB\n");
    fx.write("/sys/block/nvme0n1/device/serial", "        %s%n%x\n");
    EXPECT_EQ(take(harddisk_id("/dev/nvme0n1p2")), "Samsung-SSD-980-1TB_%s%n%x");
    EXPECT_EQ(or_null(tq::harddisk_id_sysfs("sdb")), "<null>");

    EXPECT_EQ(take(harddisk_id_nvme_new("nvme0n1")), "Samsung");
    fx.write("/sys/block/nvme1n1/device/model", "WD\n");
    EXPECT_EQ(take(harddisk_id_nvme_new("nvme1n1")), "WD\n");
    EXPECT_EQ(take(harddisk_id_nvme_new("nvme9n1")), ""); // nothing to read is no failure
    EXPECT_EQ(take(harddisk_id_nvme_new(nullptr)), "<null>");

    // An empty serial file is no serial.
    fx.write("/sys/block/nvme0n1/device/serial", "");
    EXPECT_EQ(or_null(tq::harddisk_id_sysfs("nvme0n1p2")), "<null>");
}

TEST(Lsblk, FindsTheTopLevelDeviceByBaseName)
{
    const std::string json = R"({"blockdevices":[)"
                             R"({"name":"/dev/sda","serial":"S3Z 9NB0K","model":"Samsung SSD 860\t","children":[)"
                             R"({"name":"/dev/sdb","serial":"PART","model":"PART"}]},)"
                             R"({"name":"/dev/sdb","serial":null,"model":"X"},)"
                             R"({"name":"/dev/sdc","serial":"1","model":7},)"
                             R"({"name":"/dev/sdd","serial":"100%s","model":"%n"}]})";
    // Partitions (children) are never visited; a null serial or a number is refused.
    const std::map<std::string, std::string> cases = {{"sda", "Samsung-SSD-860-_S3Z-9NB0K"}, {"sdd", "%n_100%s"},
                                                      {"sdb", "<null>"}, {"sdc", "<null>"}, {"sd", "<null>"}};
    for (const auto &[name, want] : cases)
        EXPECT_EQ(or_null(tq::lsblk_identity_from_json(json, name)), want) << name;
    tqtest::Fixture fx; // its trace log says why text that is not JSON names nothing
    EXPECT_EQ(or_null(tq::lsblk_identity_from_json("{", "sda")), "<null>");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "Failed to parse JSON"));
}

TEST(Smartctl, ParsesReportLines)
{
    const std::pair<std::string, std::string> cases[] = {
        {"Serial Number:    ABC123\n", "<null>"},
        // Tabs are kept, blanks and line ends dropped; percent signs are plain text.
        {"Product: a\tb c\nSerial number: 5%s%n\n", "a\tbc_5%s%n"},
        {"Device Model: Foo:Bar\nSerial Number: 1\n", "Bar_1"}, // the value after the last colon wins
        {"Device Model:" + std::string(700, 'M') + "\nSerial Number:" + std::string(700, 'S') + "\n",
         std::string(510, 'M') + "_" + std::string(510, 'S')},
        // A line longer than the 1023-byte read is read in pieces: here the
        // serial label is cut in two and no piece names it.
        {std::string(1020, 'x') + "Serial Number: S\nDevice Model: M\n", "<null>"},
        {std::string(1023, 'x') + "Serial Number: S\nDevice Model: M\n", "M_S"},
    };
    for (const auto &[report, want] : cases)
        EXPECT_EQ(or_null(tq::parse_smartctl_identity(report)), want) << report.substr(0, 80);
}

TEST_F(Readers, SmartctlReadsEveryRealReportOfABlockDevice)
{
    const char *link = "/dev/disk/by-id/ata-disk";
    fx.block_device("/dev/sda");
    fx.symlink("../../sda", link);
    EXPECT_EQ(take(harddisk_id_smartctl(link)), "<null>"); // no smartctl, then one not executable
    fx.write(kSmartctl, "#!/bin/sh\necho Device Model: X\necho Serial Number: Y\n", 0644);
    EXPECT_EQ(take(harddisk_id_smartctl(link)), "<null>");
    std::map<std::string, std::string> expected = {
        {"ata-hdd-wdc-wuh721816ale6l4-double-blank-in-model.txt", "WDCWUH721816ALE6L4_3WJMHZ6L"},
        {"nvme-samsung-970-evo-plus.txt", "SamsungSSD970EVOPlus500GB_S4EVNX0NA32843N"},
        {"scsi-sas-ssd-samsung-mzilt7t6hala.txt", "MZILT7T6HALA/007_S5DDNE0R801692"},
        {"scsi-nvme-dell-ent-cm-no-serial.txt", "<null>"},
        // "Add. Product Id:" follows "Device Model:" and so names the model.
        {"sata-ssd-dell-intel-ssdsckjb120g7r-addproductid.txt", "DELL(tm)_--"},
    };
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("smartctl"))) {
        fx.program(kSmartctl, tqtest::read_file(entry.path().string()));
        std::string got = take(harddisk_id_smartctl(link));
        if (auto want = expected.extract(entry.path().filename().string()))
            EXPECT_EQ(got, want.mapped());
        else // one model, one serial, no blanks, as a real disk always answers
            EXPECT_EQ(got.find_first_of(" \n<"), std::string::npos) << entry.path() << ": " << got;
    }
    EXPECT_TRUE(expected.empty()); // every listed report was read
    EXPECT_GE(fx.calls(kSmartctl).size(), 40u);
    EXPECT_EQ(fx.calls(kSmartctl).front(), "-i " + fx.host("/dev/sda")); // the node, never the link
    fx.write("/dev/notblock", "");
    for (const char *path : {"/dev/notblock", "/dev/missing", kNull})
        EXPECT_EQ(take(harddisk_id_smartctl(path)), "<null>");
}

TEST(OtherDevices, BootDeviceCidAndOpticalDrive)
{
    tqtest::Fixture fx;
    fx.write("/proc/bootdevice/cid", "150100474a4e4e3452112a8a8c9a6b00\r\n");
    EXPECT_EQ(or_null(tq::boot_device_cid()), "150100474a4e4e3452112a8a8c9a6b00");
    tq::os::testing::set_optical_drive(
        [] { return std::optional<std::array<std::string, 3>>({"HL-DT-ST", "DVDRAM GUD0N", "PF02"}); });
    EXPECT_EQ(or_null(tq::optical_drive_hwinfo()), "HL-DT-ST DVDRAM GUD0N PF02");
}

TEST_F(Readers, DeviceMapperOnAWholeDiskOnNvmeAndOnSata)
{
    mapping(fx, "root");
    whole_disk("/dev/sda");
    // Straight on a whole disk: the disk's node is the answer.
    fx.block_device("/dev/sda");
    fx.program(kDmsetup, "1 dependencies  : (sda)\n");
    EXPECT_EQ(take(harddisk_id("/dev/mapper/root")), "/dev/sda");
    EXPECT_EQ(fx.calls(kDmsetup), Calls{"deps -o devname " + fx.host("/dev/dm-0")});
    // On NVMe the disk's sysfs attributes answer.
    fx.block_device("/dev/nvme0n1p3");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB\n");
    fx.write("/sys/block/nvme0n1/device/serial", "S64ANS0T123456\n");
    fx.program(kDmsetup, "1 dependencies  : (nvme0n1p3)\n");
    EXPECT_EQ(take(harddisk_id("/dev/mapper/root")), "Samsung-SSD-980-1TB_S64ANS0T123456");
    // On a SATA partition the ATA reader is asked about /dev/<mapping name>.
    fx.block_device("/dev/sda2");
    fx.block_device("/dev/root");
    fx.program(kDmsetup, "1 dependencies  : (sda2)\n");
    fake_ata_identity("/dev/root", "MAPPED", "NAME");
    EXPECT_EQ(take(harddisk_id("/dev/mapper/root")), "MAPPED_NAME");
}

} // namespace
