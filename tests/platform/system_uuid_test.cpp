// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/system_uuid.h"

#include <cstdio>
#include <memory>

#include "platform_support.h"

namespace {

constexpr char kSysfs[] = "/sys/devices/virtual/dmi/id/product_uuid";

TEST(SystemUuid, PlaceholdersAreWholeTextsInAnyCase)
{
    for (const char *p : {"12345678-1234-5678-90AB-CDDEEFAABBCC", "03000200-0400-0500-0006-000700080009",
                          "FEFEFEFE-fefe-FEFE-fefe-FEFEFEFEFEFE", "ffffffff-ffff-ffff-ffff-ffffffffffff"})
        EXPECT_TRUE(tq::is_placeholder_uuid(p)) << p;
    for (const char *p : {" ffffffff-ffff-ffff-ffff-ffffffffffff", "ffffffff-ffff-ffff-ffff-ffffffffffff0", ""})
        EXPECT_FALSE(tq::is_placeholder_uuid(p)) << p;
}

TEST(SystemUuid, SysfsFirstThenDmidecodeThroughGrep)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    EXPECT_EQ(tqtest::take(system_uuid()), "<null>") << "neither source exists";
    fx.program("/usr/sbin/dmidecode", "# SMBIOS entry point at 0x000f0000\n4C4C4544-0042-3510-8052-B4C04F4E4D32\n");
    fx.write(kSysfs, "4c4c4544-0042-3510-8052-b4c04f4e4d32\r\n");
    EXPECT_EQ(tqtest::take(tavro_quenda_get_system_uuid()), "4c4c4544-0042-3510-8052-b4c04f4e4d32");
    fx.write(kSysfs, "\n"); // an empty first line is an answer, not a failure
    EXPECT_EQ(tqtest::take(system_uuid()), "");
    EXPECT_TRUE(fx.calls("/usr/sbin/dmidecode").empty());

    // A placeholder in sysfs: dmidecode's answer keeps its upper case; grep dropped the comment.
    fx.write(kSysfs, "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF\n");
    EXPECT_EQ(tqtest::take(system_uuid()), "4C4C4544-0042-3510-8052-B4C04F4E4D32");
    EXPECT_EQ(fx.calls("/usr/sbin/dmidecode"), std::vector<std::string>{"-s system-uuid"});
    EXPECT_TRUE(leaks.clean());
}

// Hand-checked: real UUIDs come back as recorded, in their own case; anonymised
// values ("--") give null.
TEST(SystemUuid, RecordedReportsOfRealMachines)
{
    const std::pair<const char *, const char *> cases[] = {
        {"vmware-vm-centos77-serial-with-blanks.txt", "28fd4d56-3389-e2f8-6474-0159923b580e"},
        {"lenovo-thinkpad-t480.txt", "<null>"},
    };
    for (const auto &[report, uuid] : cases) {
        tqtest::Fixture fx;
        tqtest::fake_dmidecode(fx, report);
        EXPECT_EQ(tqtest::take(system_uuid()), uuid) << report;
    }
}

TEST(SystemUuid, AgreesWithThisMachine)
{
    std::string sysfs = tqtest::read_file("/sys/class/dmi/id/product_uuid");
    sysfs = sysfs.substr(0, sysfs.find('\n'));
    if (!sysfs.empty()) {
        if (!tq::is_placeholder_uuid(sysfs.c_str())) {
            EXPECT_EQ(tqtest::take(system_uuid()), sysfs);
        }
        return;
    }
    std::unique_ptr<FILE, decltype(&pclose)> p(popen("/usr/sbin/dmidecode -s system-uuid 2>/dev/null", "r"), pclose);
    char line[256] = {};
    if (!p || !fgets(line, sizeof(line), p.get()))
        GTEST_SKIP() << "neither /sys/class/dmi/id/product_uuid nor a dmidecode that reports a UUID";
    std::string expected = std::string(line).substr(0, std::string(line).find('\n'));
    EXPECT_EQ(tqtest::take(system_uuid()),
              expected.size() == 36 && !tq::is_placeholder_uuid(expected.c_str()) ? expected : "<null>");
}

} // namespace
