#include "disk/disk_readers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
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

TEST(AtaIdentity, KeepsOnlyGraphicBytesOfTheIdentifyBlock)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/sda");
    fx.block_device("/dev/sda2");
    disktest::fake_ata_identity("/dev/sda2", "WDC WD10EZEX-08WN4A0", "     WD-WCC6Y1234567");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/sda2")), "WDCWD10EZEX-08WN4A0_WD-WCC6Y1234567");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "device :/dev/sda2"));

    // The drive that does not answer the ioctl.
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/sda")), "<null>");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "ioctl(fd, HDIO_GET_IDENTITY, &id), return"));

    // A by-uuid link resolves to a block device, but the reader opens
    // /dev/<uuid>, which does not exist.
    fx.symlink("../../sda2", "/dev/disk/by-uuid/1234-ABCD");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/disk/by-uuid/1234-ABCD")), "<null>");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "device :/dev/1234-ABCD"));
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "fd < 0, return"));

    // Blank halves still answer the separator; not a block device answers nothing.
    disktest::fake_ata_identity("/dev/sda2", "", "");
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_ata_identity("/dev/sda2")), "_");
    fx.write("/dev/sdq", "");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/sdq")), "<null>");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/missing")), "<null>");
    EXPECT_EQ(tqtest::take(harddisk_id(nullptr)), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(SysfsAttribute, TrimsAndJoinsWordsWithOneDash)
{
    EXPECT_EQ(tq::clean_sysfs_attribute("Samsung SSD 980 1TB                     \n", 1024), "Samsung-SSD-980-1TB");
    EXPECT_EQ(tq::clean_sysfs_attribute("   S64ANS0T123456  \n", 1024), "S64ANS0T123456");
    EXPECT_EQ(tq::clean_sysfs_attribute("a \t\n b", 1024), "a-b");
    EXPECT_EQ(tq::clean_sysfs_attribute("\n", 1024), "");
    EXPECT_EQ(tq::clean_sysfs_attribute(std::string_view("ab\0cd", 5), 1024), "ab");
    EXPECT_EQ(tq::clean_sysfs_attribute("abcdef", 4), "abc");
    EXPECT_EQ(tq::clean_sysfs_attribute(std::string(1024, 'x'), 1024), std::string(1023, 'x'));
}

TEST(NvmeSysfs, ReadsModelAndSerialOfTheDiskOfThePartition)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/nvme0n1p2");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB                     \n");
    fx.write("/sys/block/nvme0n1/device/serial", "     S64ANS0T123456      \n");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/nvme0n1p2")), "Samsung-SSD-980-1TB_S64ANS0T123456");

    // Percent signs are plain text.
    fx.write("/sys/block/nvme0n1/device/serial", "%s%n%x\n");
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_sysfs("nvme0n1p2")), "Samsung-SSD-980-1TB_%s%n%x");

    // An empty serial file, a missing one, and no matching disk.
    fx.write("/sys/block/nvme0n1/device/serial", "");
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_sysfs("nvme0n1p2")), "<null>");
    std::filesystem::remove(fx.host("/sys/block/nvme0n1/device/serial"));
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_sysfs("nvme0n1p2")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_sysfs("sdb")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::read_sysfs_block_attribute("", "model", 1024)), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::read_sysfs_block_attribute("nvme0n1", "", 1024)), "<null>");

    std::filesystem::remove_all(fx.host("/sys/block"));
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_sysfs("nvme0n1p2")), "<null>");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "(!dp) return"));
    EXPECT_TRUE(leaks.clean());
}

TEST(Lsblk, FindsTheTopLevelDeviceByBaseName)
{
    tqtest::Fixture fx;
    const std::string json = R"({"blockdevices":[)"
                             R"({"name":"/dev/sda","serial":"S3Z 9NB0K","model":"Samsung SSD 860\t","children":[)"
                             R"({"name":"/dev/sdb","serial":"PART","model":"PART"}]},)"
                             R"({"name":"/dev/sdb","serial":null,"model":"X"},)"
                             R"({"name":"/dev/sdc","serial":"1","model":7},)"
                             R"({"name":"/dev/sdd","serial":"100%s","model":"%n"}]})";
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(json, "sda")), "Samsung-SSD-860-_S3Z-9NB0K");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(json, "sdd")), "%n_100%s");
    // Partitions (children) are never visited; a null serial is refused.
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(json, "sdb")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(json, "sdc")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(json, "sd")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json("{}", "sda")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json("not json", "sda")), "<null>");
    std::string log = fx.trace_log();
    EXPECT_TRUE(tqtest::contains(log, "current name '/dev/sda', dev_name 'sda'"));
    EXPECT_TRUE(tqtest::contains(log, "Serial for device 'sda': S3Z 9NB0K\n"));
    EXPECT_TRUE(tqtest::contains(log, "Serial for device 'sdb' is not a string or is NULL.\n"));
    EXPECT_TRUE(tqtest::contains(log, "Key 'blockdevices' does not exist.\n"));
    EXPECT_TRUE(tqtest::contains(log, "Failed to parse JSON"));

    // Real lsblk output: the QEMU disk has no serial.
    std::string qemu =
        tqtest::read_file(tqtest::corpus("lsblk/lsblk-OJb-qemu-vm-old-util-linux-one-line-per-device.json"));
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(qemu, "sda")), "<null>");
    EXPECT_EQ(tqtest::or_null(tq::lsblk_identity_from_json(qemu, "vdb")), "<null>");

    // Through the program.
    tqtest::LeakCheck leaks;
    fx.program("/usr/bin/lsblk", json);
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_lsblk("sda")), "Samsung-SSD-860-_S3Z-9NB0K");
    EXPECT_EQ(fx.calls("/usr/bin/lsblk"), std::vector<std::string>{"-Jp -o name,serial,model"});
    std::filesystem::remove(fx.host("/usr/bin/lsblk"));
    EXPECT_EQ(tqtest::or_null(tq::harddisk_id_lsblk("sda")), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(Smartctl, ParsesReportLines)
{
    auto id = [](std::string_view report) { return tqtest::or_null(tq::parse_smartctl_identity(report)); };
    EXPECT_EQ(id("Model Family:     Western Digital Blue\nDevice Model:     WDC WD10EZEX-08WN4A0\n"
                  "Serial Number:    ABC 123\n"),
              "WDCWD10EZEX-08WN4A0_ABC123");
    // The later model line decides, whichever it is.
    EXPECT_EQ(id("Device Model: A\nModel Family: B\nSerial Number: S\n"), "B_S");
    // A serial without a model, a model without a serial.
    EXPECT_EQ(id("Serial Number:    ABC123\n"), "<null>");
    EXPECT_EQ(id("Device Model:     X\n"), "<null>");
    EXPECT_EQ(id(""), "<null>");
    // Tabs are kept, blanks and line ends dropped; percent signs are plain text.
    EXPECT_EQ(id("Product: a\tb c\nSerial number: 5%s%n\n"), "a\tbc_5%s%n");
    // The value after the last colon wins.
    EXPECT_EQ(id("Device Model: Foo:Bar\nSerial Number: 1\n"), "Bar_1");
    // Each value is kept to 510 bytes.
    std::string longer = "Device Model:" + std::string(700, 'M') + "\nSerial Number:" + std::string(700, 'S') + "\n";
    EXPECT_EQ(id(longer), std::string(510, 'M') + "_" + std::string(510, 'S'));
    // A line longer than the 1023-byte read is read in pieces: here the
    // serial label is cut in two and no piece names it.
    EXPECT_EQ(id(std::string(1020, 'x') + "Serial Number: S\nDevice Model: M\n"), "<null>");
    EXPECT_EQ(id(std::string(1023, 'x') + "Serial Number: S\nDevice Model: M\n"), "M_S");
}

struct Expected {
    const char *file;
    const char *identity;
};

TEST(Smartctl, EveryRealReportThroughTheProgram)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/sda");
    fx.symlink("../../sda", "/dev/disk/by-id/ata-disk");
    const std::map<std::string, std::string> expected = {
        {"ata-hdd-seagate-st1000nm0033.txt", "ST1000NM0033-9ZM173_--"},
        {"ata-hdd-wdc-wuh721816ale6l4-double-blank-in-model.txt", "WDCWUH721816ALE6L4_3WJMHZ6L"},
        {"ata-qemu-harddisk-virtual-smartctl-i.txt", "QEMUHARDDISK_QM00001"},
        {"nvme-samsung-970-evo-plus.txt", "SamsungSSD970EVOPlus500GB_S4EVNX0NA32843N"},
        {"nvme-usb-asmedia-samsung-portable-t7-aarch64.txt", "SamsungPortableSSDT7_S7MNNS0Y828393V"},
        {"scsi-sas-ssd-samsung-mzilt7t6hala.txt", "MZILT7T6HALA/007_S5DDNE0R801692"},
        {"scsi-sas-hgst-huh721212al4204-single-space-nnbsp.txt", "HUH721212AL4204_8DG3J2ZD"},
        {"scsi-raid-avago-mr9361-16i-virtual-disk.txt", "MR9361-16i_00574c0df553f2000000349c07b26200"},
        {"usb-scsi-toshiba-external-split-vendor-product.txt", "nalUSB3.0_2015033100081"},
        {"usb-sat-asmedia-asmt106x-bridge-name-as-model.txt", "ASMT106x_V0Safe_--"},
        {"usb-sat-seagate-expansion-no-information-found.txt", "[NoInformationFound]_[NoInformationFound]"},
        // "Add. Product Id:" follows "Device Model:" and so names the model.
        {"sata-ssd-dell-intel-ssdsckjb120g7r-addproductid.txt", "DELL(tm)_--"},
        {"scsi-vmware-virtual-disk-no-serial.txt", "<null>"},
        {"scsi-nvme-dell-ent-cm-no-serial.txt", "<null>"},
    };
    size_t seen = 0, checked = 0;
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("smartctl"))) {
        std::string name = entry.path().filename().string();
        fx.program("/usr/sbin/smartctl", tqtest::read_file(entry.path().string()));
        std::string got = tqtest::take(harddisk_id_smartctl("/dev/disk/by-id/ata-disk"));
        ++seen;
        auto want = expected.find(name);
        if (want != expected.end()) {
            EXPECT_EQ(got, want->second) << name;
            ++checked;
        } else if (got != "<null>") {
            // Every other identity is one model, one underscore-joined serial, no blanks.
            EXPECT_EQ(got.find(' '), std::string::npos) << name << ": " << got;
            EXPECT_EQ(got.find('\n'), std::string::npos) << name << ": " << got;
        }
    }
    EXPECT_GE(seen, 40u);
    EXPECT_EQ(checked, expected.size());
    // smartctl is asked about the resolved node, never the link.
    std::vector<std::string> calls = fx.calls("/usr/sbin/smartctl");
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front(), "-i " + fx.host("/dev/sda"));
    EXPECT_TRUE(leaks.clean());
}

TEST(Smartctl, NeedsTheProgramAndABlockDevice)
{
    tqtest::Fixture fx;
    fx.block_device("/dev/sda");
    fx.write("/dev/notblock", "");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl("/dev/sda")), "<null>");
    fx.write("/usr/sbin/smartctl", "#!/bin/sh\necho Device Model: X\necho Serial Number: Y\n", 0644);
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl("/dev/sda")), "<null>");
    fx.program("/usr/sbin/smartctl", "Device Model: X\nSerial Number: Y\n");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl("/dev/sda")), "X_Y");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl("/dev/notblock")), "<null>");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl("/dev/missing")), "<null>");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl(nullptr)), "<null>");
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl").size(), 1u);
}

TEST(Smartctl, ShellCharactersInTheDevicePathStayOneArgument)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    const std::string weird = "/dev/we ird'$(touch " + fx.host("/pwned") + ")`touch " + fx.host("/pwned2") +
                              "`;\"x\\ %s";
    fx.block_device(weird);
    fx.script("/usr/sbin/smartctl", "printf '%s\\n' \"$#\" > '" + fx.host("/argc") +
                                        "'\necho 'Device Model: M'\necho 'Serial Number: S'");
    EXPECT_EQ(tqtest::take(harddisk_id_smartctl(weird.c_str())), "M_S");
    EXPECT_EQ(fx.read("/argc"), "2\n");
    EXPECT_EQ(fx.calls("/usr/sbin/smartctl"), std::vector<std::string>{"-i " + fx.host(weird)});
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned")));
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned2")));
    EXPECT_TRUE(leaks.clean());
}

TEST(NvmeModel, SevenCharactersOfTheModel)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB\n");
    EXPECT_EQ(tqtest::take(harddisk_id_nvme_new("nvme0n1")), "Samsung");
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "harddisk_id_nvme_new model = Samsung"));
    fx.write("/sys/block/nvme1n1/device/model", "WD\n");
    EXPECT_EQ(tqtest::take(harddisk_id_nvme_new("nvme1n1")), "WD\n");

    // Nothing to read: an empty answer, not a failure.
    testing::internal::CaptureStderr();
    EXPECT_EQ(tqtest::take(harddisk_id_nvme_new("nvme9n1")), "");
    const std::string hostile = "x' ; touch '" + fx.host("/pwned") + "' ; '";
    EXPECT_EQ(tqtest::take(harddisk_id_nvme_new(hostile.c_str())), "");
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(tqtest::contains(fx.trace_log(), "harddisk_id_nvme_new model = NULL"));
    EXPECT_FALSE(std::filesystem::exists(fx.host("/pwned")));
    EXPECT_EQ(tqtest::take(harddisk_id_nvme_new(nullptr)), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(OtherDevices, BootDeviceCidOpticalDriveAndWholeDisk)
{
    tqtest::Fixture fx;
    EXPECT_EQ(tqtest::or_null(tq::boot_device_cid()), "<null>");
    fx.write("/proc/bootdevice/cid", "");
    EXPECT_EQ(tqtest::or_null(tq::boot_device_cid()), "<null>");
    fx.write("/proc/bootdevice/cid", "150100474a4e4e3452112a8a8c9a6b00\r\n");
    EXPECT_EQ(tqtest::or_null(tq::boot_device_cid()), "150100474a4e4e3452112a8a8c9a6b00");

    EXPECT_EQ(tqtest::or_null(tq::optical_drive_hwinfo()), "<null>");
    tq::os::testing::set_optical_drive(
        [] { return std::optional<std::array<std::string, 3>>({"HL-DT-ST", "DVDRAM GUD0N", "PF02"}); });
    EXPECT_EQ(tqtest::or_null(tq::optical_drive_hwinfo()), "HL-DT-ST DVDRAM GUD0N PF02");

    tq::os::testing::set_whole_disk([](const char *path) { return std::string(path) == "/dev/sda" ? 1 : 0; });
    EXPECT_EQ(tq::is_whole_disk("/dev/sda"), 1);
    EXPECT_EQ(tq::is_whole_disk("/dev/sda1"), 0);
    EXPECT_EQ(tq::is_whole_disk(nullptr), 0);
    EXPECT_TRUE(tq::is_device_mapper_path("/dev/mapper/vg-root"));
    EXPECT_TRUE(tq::is_device_mapper_path("/dev/mapperx"));
    EXPECT_FALSE(tq::is_device_mapper_path("/dev/dm-0"));
}

TEST(DeviceMapperRoute, WholeDiskNodeNvmePartitionOrOnToTheMappedNode)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.block_device("/dev/dm-0");
    fx.symlink("../dm-0", "/dev/mapper/root");
    fx.block_device("/dev/sda");
    fx.block_device("/dev/nvme0n1p3");
    fx.write("/sys/block/nvme0n1/device/model", "Samsung SSD 980 1TB\n");
    fx.write("/sys/block/nvme0n1/device/serial", "S64ANS0T123456\n");
    tq::os::testing::set_whole_disk([](const char *path) { return std::string(path) == "/dev/sda" ? 1 : 0; });

    // On a whole disk the identity is the disk's node path.
    fx.program("/usr/sbin/dmsetup", " 1 dependencies\t: (sda)\n");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/mapper/root")), "/dev/sda");
    EXPECT_EQ(fx.calls("/usr/sbin/dmsetup"), std::vector<std::string>{"deps -o devname " + fx.host("/dev/dm-0")});

    // On an NVMe partition: that disk's sysfs identity.
    fx.program("/usr/sbin/dmsetup", "1 dependencies  : (nvme0n1p3)\n");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/mapper/root")), "Samsung-SSD-980-1TB_S64ANS0T123456");

    // On a SATA partition: the ATA reader is asked about /dev/<mapping name>.
    fx.block_device("/dev/sda2");
    fx.program("/usr/sbin/dmsetup", "1 dependencies  : (sda2)\n");
    disktest::fake_ata_identity("/dev/root", "MAPPED", "NAME");
    fx.block_device("/dev/root");
    EXPECT_EQ(tqtest::take(harddisk_id("/dev/mapper/root")), "MAPPED_NAME");
    EXPECT_TRUE(leaks.clean());
}

} // namespace
