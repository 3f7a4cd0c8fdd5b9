// SPDX-License-Identifier: LGPL-2.1-or-later
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <memory>
#include <string>

#include "fixture.h"
#include "leak_check.h"
#include "platform_support.h"
#include "results.h"
#include "platform/system_uuid.h"
#include "tavro-quenda.h"

namespace {

constexpr char kSysfs[] = "/sys/devices/virtual/dmi/id/product_uuid";

TEST(PlaceholderUuid, WholeTextAnyCase)
{
    EXPECT_TRUE(tq::is_placeholder_uuid("12345678-1234-5678-90AB-CDDEEFAABBCC"));
    EXPECT_TRUE(tq::is_placeholder_uuid("03000200-0400-0500-0006-000700080009"));
    EXPECT_TRUE(tq::is_placeholder_uuid("FEFEFEFE-fefe-FEFE-fefe-FEFEFEFEFEFE"));
    EXPECT_TRUE(tq::is_placeholder_uuid("ffffffff-ffff-ffff-ffff-ffffffffffff"));
    EXPECT_FALSE(tq::is_placeholder_uuid(" ffffffff-ffff-ffff-ffff-ffffffffffff"));
    EXPECT_FALSE(tq::is_placeholder_uuid("ffffffff-ffff-ffff-ffff-ffffffffffff0"));
    EXPECT_FALSE(tq::is_placeholder_uuid(""));
}

TEST(SystemUuid, SysfsAnswersAsWrittenWithoutLineEnds)
{
    tqtest::Fixture fx;
    fx.program("/usr/sbin/dmidecode", "never asked\n");
    fx.write(kSysfs, "4c4c4544-0042-3510-8052-b4c04f4e4d32\r\n");
    EXPECT_EQ(tqtest::take(tavro_quenda_get_system_uuid()), "4c4c4544-0042-3510-8052-b4c04f4e4d32");

    fx.write(kSysfs, "\n"); // an empty first line is an answer, not a failure
    EXPECT_EQ(tqtest::take(system_uuid()), "");
    EXPECT_TRUE(fx.calls("/usr/sbin/dmidecode").empty());
}

TEST(SystemUuid, PlaceholderInSysfsFallsBackToDmidecodeThroughGrep)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    fx.write(kSysfs, "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF\n");
    fx.program("/usr/sbin/dmidecode", "# SMBIOS entry point at 0x000f0000\n"
                                      "4C4C4544-0042-3510-8052-B4C04F4E4D32\n");
    // dmidecode's answer keeps its upper case; grep dropped the comment.
    EXPECT_EQ(tqtest::take(system_uuid()), "4C4C4544-0042-3510-8052-B4C04F4E4D32");
    EXPECT_EQ(fx.calls("/usr/sbin/dmidecode"), std::vector<std::string>{"-s system-uuid"});

    fx.program("/usr/sbin/dmidecode", "ffffffff-ffff-ffff-ffff-ffffffffffff\n");
    EXPECT_EQ(tqtest::take(system_uuid()), "<null>");
    fx.program("/usr/sbin/dmidecode", "Not Settable\n");
    EXPECT_EQ(tqtest::take(system_uuid()), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(SystemUuid, DmidecodeRunsOnlyWhenExecutable)
{
    tqtest::Fixture fx;
    EXPECT_EQ(tqtest::take(system_uuid()), "<null>"); // neither source exists

    fx.program("/usr/sbin/dmidecode", "4C4C4544-0042-3510-8052-B4C04F4E4D32\n");
    chmod(fx.host("/usr/sbin/dmidecode").c_str(), 0644);
    EXPECT_EQ(tqtest::take(system_uuid()), "<null>");
    EXPECT_TRUE(fx.calls("/usr/sbin/dmidecode").empty());
}

TEST(SystemUuid, RecordedReportsOfRealMachines)
{
    // Hand-checked: real UUIDs come back as recorded, in their own case;
    // placeholders, "Not Settable" and anonymised values ("--") give null.
    const std::map<std::string, std::string> checked = {
        {"asus-k8n-dl-old-format-dmidecode26.txt", "50ECB49C-06A4-D911-B7D5-E9686682C17E"},
        {"vmware-vm-centos77-serial-with-blanks.txt", "28fd4d56-3389-e2f8-6474-0159923b580e"},
        {"azw-eq-placeholder-uuid-03000200-broken-table.txt", "<null>"},
        {"prestigio-multipad-placeholder-uuid-12345678-forum-spaces.txt", "<null>"},
        {"hp-g72-uuid-not-settable-trailing-blanks.txt", "<null>"},
        {"lenovo-thinkpad-t480.txt", "<null>"},
    };
    size_t seen = 0, checked_seen = 0;
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("dmidecode"))) {
        std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        std::string uuid = tqtest::parse_dmidecode_report(tqtest::read_file(entry.path().string()))
                               .strings["system-uuid"];
        tqtest::Fixture fx;
        tqtest::fake_dmidecode(fx, entry.path().string());
        std::string got = tqtest::take(system_uuid());
        bool well_formed = std::regex_match(uuid, std::regex("[0-9a-fA-F]{8}(-[0-9a-fA-F]{4}){3}-[0-9a-fA-F]{12}"));
        EXPECT_EQ(got, well_formed && !tq::is_placeholder_uuid(uuid.c_str()) ? uuid : "<null>");
        if (auto it = checked.find(name); it != checked.end()) {
            EXPECT_EQ(got, it->second);
            ++checked_seen;
        }
        ++seen;
    }
    EXPECT_GE(seen, 30u);
    EXPECT_EQ(checked_seen, checked.size());
}

TEST(SystemUuid, AgreesWithThisMachine)
{
    std::string sysfs = tqtest::read_file("/sys/class/dmi/id/product_uuid");
    if (sysfs.empty() && access("/usr/sbin/dmidecode", X_OK) != 0)
        GTEST_SKIP() << "this machine has neither /sys/class/dmi/id/product_uuid nor dmidecode";
    std::string got = tqtest::take(system_uuid());
    if (!sysfs.empty()) {
        sysfs = sysfs.substr(0, sysfs.find('\n'));
        if (!tq::is_placeholder_uuid(sysfs.c_str())) {
            EXPECT_EQ(got, sysfs);
        }
        return;
    }
    std::unique_ptr<FILE, decltype(&pclose)> p(popen("/usr/sbin/dmidecode -s system-uuid 2>/dev/null", "r"), pclose);
    char line[256] = {};
    if (!p || !fgets(line, sizeof(line), p.get()))
        GTEST_SKIP() << "dmidecode reports no system UUID here (no SMBIOS table)";
    std::string expected(line);
    expected = expected.substr(0, expected.find('\n'));
    bool usable = expected.size() == 36 && !tq::is_placeholder_uuid(expected.c_str());
    EXPECT_EQ(got, usable ? expected : "<null>");
}

} // namespace
