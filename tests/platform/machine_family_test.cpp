#include "platform/machine_family.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fixture.h"
#include "foundation/strutil.h"
#include "leak_check.h"
#include "results.h"
#include "platform_support.h"
#include "tavro-quenda.h"

namespace {

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    size_t at = text.find(from);
    if (at == std::string::npos)
        throw std::runtime_error("no " + from);
    return text.replace(at, from.size(), to);
}

TEST(MachineFamily, NoRecordedProcessorIsAKirin9x0)
{
    namespace fs = std::filesystem;
    tqtest::Fixture f;
    EXPECT_EQ(is_huawei_9x0(), 0) << "no /proc/cpuinfo";
    int files = 0;
    // Kirin 920, 980, 810, 710, 9000S, HiSilicon hi62xx, Qualcomm, Exynos, x86...
    for (const auto &entry : fs::directory_iterator(tqtest::corpus("cpuinfo"))) {
        f.copy("/proc/cpuinfo", entry.path());
        EXPECT_EQ(is_huawei_9x0(), 0) << entry.path();
        ++files;
    }
    EXPECT_GE(files, 20);
}

TEST(MachineFamily, HardwareLineNamingKirin9x0IsRecognised)
{
    const std::string p30 = tqtest::read_file(tqtest::corpus("cpuinfo/arm64-huawei-p30-vendor-kirin980.txt"));
    const std::string kirin710 =
        tqtest::read_file(tqtest::corpus("cpuinfo/arm64-hisilicon-kirin710-spaces-not-tabs.txt"));
    const std::string kirin810 =
        tqtest::read_file(tqtest::corpus("cpuinfo/arm64-hisilicon-kirin810-vendor-kirin810-no-final-newline.txt"));
    const std::string moto =
        tqtest::read_file(tqtest::corpus("cpuinfo/arm-motorola-moto-g-gen1-msm8226-two-hardware-lines.txt"));
    const std::string x86 = tqtest::read_file(tqtest::corpus("cpuinfo/x86-intel-core-i5-7360u-no-hardware-line.txt"));
    struct Case {
        std::string cpuinfo;
        int expected;
        const char *what;
    };
    const Case cases[] = {
        {replaced(p30, "vendor Kirin980", "HUAWEI Kirin 990"), 1, "blanks inside the name"},
        {replaced(p30, "vendor Kirin980", "HUAWEI Kirin 9006C"), 1, "9006C"},
        {replaced(kirin810, "vendor Kirin810", "Kirin 9A0"), 1, "9A0 on a last line without newline"},
        {replaced(kirin710, "Hisilicon Kirin710", "HiSilicon KIRIN 990 5G"), 1, "blank-indented, upper case"},
        {replaced(p30, "Hardware\t: vendor Kirin980", "HARD WARE\t: Kirin990"), 1, "blanks in the key are removed"},
        // A later Hardware line is still examined.
        {replaced(moto, "MSM Hardware\t: MSM8926", "Hardware\t: Kirin990"), 1, "second Hardware line"},
        {replaced(p30, "vendor Kirin980", "Kirin 99O"), 0, "letter O"},
        {replaced(moto, "MSM8926", "Kirin990"), 0, "key that does not begin with hardware"},
        {replaced(x86, "model name\t: ", "model name\t: Kirin990 "), 0, "no Hardware line"},
    };
    for (const Case &c : cases) {
        tqtest::Fixture f;
        f.write("/proc/cpuinfo", c.cpuinfo);
        tqtest::LeakCheck leaks;
        EXPECT_EQ(is_huawei_9x0(), c.expected) << c.what;
        EXPECT_TRUE(leaks.clean());
    }
}

TEST(MachineFamily, LenovoAndKaiTianByManufacturer)
{
    struct Case {
        const char *report;
        int expected;
        std::vector<std::string> calls;
    };
    const std::vector<std::string> first = {"-s system-manufacturer"};
    const std::vector<std::string> both = {"-s system-manufacturer", "-t 1"};
    const Case cases[] = {
        {"lenovo-thinkpad-t480.txt", 1, first},
        {"lenovo-kaitian-n70z-g1d.txt", 1, first},
        {"kaitian-n80z-g1d.txt", 1, first},
        {"kaitian-2obea002kx-loongson.txt", 1, first},
        // Mixed case does not count, by either command.
        {"lenovo-mixed-case-ideacentre-k330.txt", 0, both},
        {"huawei-taishan-200-2280.txt", 0, both},
        {"asrock-775vm800-blank-manufacturer-dmidecode212.txt", 0, both},
        {"asus-k8n-dl-old-format-dmidecode26.txt", 0, both},
    };
    for (const Case &c : cases) {
        tqtest::Fixture f;
        tqtest::fake_dmidecode(f, tqtest::corpus(std::string("dmidecode/") + c.report));
        tqtest::LeakCheck leaks;
        EXPECT_EQ(is_lenovo_machine(), c.expected) << c.report;
        EXPECT_EQ(f.calls("/usr/sbin/dmidecode"), c.calls) << c.report;
        EXPECT_TRUE(leaks.clean());
    }

    // A dmidecode without -s: the type 1 record decides.
    tqtest::Fixture f;
    EXPECT_EQ(is_lenovo_machine(), 0) << "no dmidecode";
    tqtest::fake_dmidecode(f, tqtest::corpus("dmidecode/lenovo-thinkcentre-m700z.txt"), {.without_s_option = true});
    EXPECT_EQ(is_lenovo_machine(), 1);
    EXPECT_EQ(f.calls("/usr/sbin/dmidecode"), both);

    EXPECT_TRUE(tq::is_lenovo_manufacturer("LENOVO "));
    EXPECT_FALSE(tq::is_lenovo_manufacturer(" LENOVO"));
    EXPECT_FALSE(tq::is_lenovo_manufacturer("KAITIAN"));
    EXPECT_FALSE(tq::is_lenovo_manufacturer("LENOV"));
}

TEST(MachineFamily, OemTextJoinsSerialAndBootDevice)
{
    tqtest::Fixture f;
    tqtest::LeakCheck leaks;
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_hw_oeminfo()), std::nullopt) << "no dmidecode";
    EXPECT_EQ(f.trace_log(), "");

    tqtest::fake_dmidecode(f, tqtest::corpus("dmidecode/prestigio-multipad-placeholder-uuid-12345678-forum-spaces.txt"));
    // No /proc/bootdevice: an empty text, traced and returned.
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_hw_oeminfo()), "");
    EXPECT_NE(f.trace_log().find(": \n"), std::string::npos) << f.trace_log();

    f.write("/proc/bootdevice/product_name", "KLUDG4UHDB-B2D1\n");
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), "") << "no cid: no partial text";
    f.write("/proc/bootdevice/cid", "");
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), "") << "empty cid";
    f.write("/proc/bootdevice/cid", "ce0130304b4c5544473455484442b2d1\r\n");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_hw_oeminfo()),
              "PMP250363210595_KLUDG4UHDB-B2D1_ce0130304b4c5544473455484442b2d1");
    EXPECT_NE(f.trace_log().find(": PMP250363210595_KLUDG4UHDB-B2D1_ce0130304b4c5544473455484442b2d1\n"),
              std::string::npos);
    EXPECT_TRUE(leaks.clean());

    // Each part is cut at 127 bytes.
    f.script("/usr/sbin/dmidecode", "printf 'System Information\\n\\tSerial Number: %s\\n' \"$(printf '%0200d' 0)\"");
    f.write("/proc/bootdevice/product_name", std::string(300, 'p'));
    f.write("/proc/bootdevice/cid", "cid\n");
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), std::string(127, '0') + "_" + std::string(127, 'p') + "_cid");

    // A dmidecode that prints no serial line.
    f.program("/usr/sbin/dmidecode", "# dmidecode 3.4\nScanning /dev/mem for entry point.\n", 1);
    EXPECT_EQ(tqtest::take_optional(hw_oem_info()), "");
    EXPECT_TRUE(leaks.clean());
}

} // namespace
