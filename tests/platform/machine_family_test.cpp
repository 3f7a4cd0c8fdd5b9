// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/machine_family.h"

#include "platform_support.h"

namespace {

using MachineFamily = tqtest::LeakCheckedTest;

// A recorded cpuinfo with its first `from` replaced by `to`.
std::string cpuinfo(const char *file, const std::string &from, const std::string &to)
{
    std::string text = tqtest::read_file(tqtest::corpus(std::string("cpuinfo/") + file));
    return text.replace(text.find(from), from.size(), to);
}

TEST_F(MachineFamily, HardwareLineNamingKirin9x0IsRecognised)
{
    tqtest::Fixture f;
    EXPECT_EQ(is_huawei_9x0(), 0) << "no /proc/cpuinfo";
    // No recorded processor is one: Kirin 920, 980, HiSilicon hi62xx, Qualcomm, Exynos, MediaTek, x86...
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("cpuinfo"))) {
        f.copy("/proc/cpuinfo", entry.path());
        EXPECT_EQ(is_huawei_9x0(), 0) << entry.path();
    }
    const char *moto = "arm-motorola-moto-g-gen1-msm8226-two-hardware-lines.txt";
    const struct { std::string cpuinfo; int expected; } cases[] = {
        {cpuinfo("arm-huawei-honor6-kirin920.txt", "Hardware\t: Kirin920", "HARD WARE\t: HUAWEI Kirin 9006C"), 1},
        {cpuinfo("arm64-huawei-p9-lite-hi6250.txt", "hi6250", "Kirin 9A0"), 1},
        {cpuinfo("arm64-huawei-p8-lite-hi6210sft.txt", "hi6210sft", "HiSilicon KIRIN 990 5G"), 1},
        {cpuinfo(moto, "MSM Hardware\t: MSM8926", "Hardware\t: Kirin990"), 1},
        {cpuinfo(moto, "MSM8926", "Kirin990"), 0}, // the key must begin with hardware
    };
    for (const auto &c : cases) {
        f.write("/proc/cpuinfo", c.cpuinfo);
        EXPECT_EQ(is_huawei_9x0(), c.expected) << &c - cases;
    }
}

TEST_F(MachineFamily, OemTextJoinsSerialAndBootDeviceOrIsEmpty)
{
    tqtest::Fixture f;
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_hw_oeminfo()), std::nullopt) << "no dmidecode";
    // All three parts or an empty text; each part is cut at 127 bytes and at its line end.
    f.script("/usr/sbin/dmidecode", "printf '\\tSerial Number: %0200d\\r\\n' 0");
    f.write("/proc/bootdevice/product_name", std::string(300, 'p'));
    f.write("/proc/bootdevice/cid", "");
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), "") << "empty cid";
    f.write("/proc/bootdevice/cid", "ce0130304b4c5544473455484442b2d1\r\n");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_hw_oeminfo()),
              std::string(127, '0') + "_" + std::string(127, 'p') + "_ce0130304b4c5544473455484442b2d1");
    f.program("/usr/sbin/dmidecode", "# dmidecode 3.4\nScanning /dev/mem for entry point.\n", 1);
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), "") << "no serial line";
}

} // namespace
