#include "platform/firmware_facts.h"

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

TEST(FirmwareFacts, SysfsAnswersFirstAndAnEmptyLineIsAnAnswer)
{
    tqtest::Fixture f;
    tqtest::fake_dmidecode(f, tqtest::corpus("dmidecode/lenovo-thinkpad-t480.txt"));
    f.write("/sys/class/dmi/id/product_serial", "PF 12 AB\r\n");
    f.write("/sys/class/dmi/id/sys_vendor", "LENOVO\n");
    f.write("/sys/class/dmi/id/product_sku", "\n");
    tqtest::LeakCheck leaks;

    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_service_tag()), "PF 12 AB");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_product_serial()), "PF 12 AB");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_vendor()), "LENOVO");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_model()), "");
    EXPECT_TRUE(f.calls("/usr/sbin/dmidecode").empty()) << "sysfs answered every fact";
    EXPECT_TRUE(leaks.clean());

    // Only the product serial getter traces.
    std::string log = f.trace_log();
    EXPECT_NE(log.find(": tavro_quenda_get_product_serial: PF 12 AB\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("LENOVO"), std::string::npos);

    // An empty file gives no line at all: dmidecode is asked.
    f.write("/sys/class/dmi/id/product_sku", "");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_model()), "ThinkPad");
    EXPECT_EQ(f.calls("/usr/sbin/dmidecode"), std::vector<std::string>{"-t 1"});
}

// Hand-checked: what grep -i KEY | awk prints for each recorded machine when
// sysfs has no DMI attributes.
TEST(FirmwareFacts, DmidecodeFallbackOnRealReports)
{
    struct Case {
        const char *report;
        std::optional<std::string> serial, vendor, model;
    };
    const Case cases[] = {
        // Vendor is the first word of Family, model the first word of Version.
        {"lenovo-thinkpad-x1-carbon-4th.txt", "--", "ThinkPad", "ThinkPad"},
        // The header's "newer than version 3.2.0" comment is the first Version match.
        {"lenovo-thinkpad-e14-gen3-smbios-newer-comment.txt", "--", "ThinkPad", "SMBIOS"},
        // The serial keeps its inner blanks.
        {"vmware-vm-centos77-serial-with-blanks.txt", "VMware-56 4d fd 28 89 33 f8 e2-64 74 01 59 92 3b 58 0e", "Not",
         "None"},
        // A blank Version prints an empty field: an answer, not a failure.
        {"acer-aspire-z5610-trailing-blanks.txt", "--", "Acer", ""},
        // SMBIOS 2.3 record: no Family line at all.
        {"asus-a8n5x-system-manufacturer.txt", "--", std::nullopt, "System"},
        {"asus-k8n-dl-old-format-dmidecode26.txt", "System Serial Number", std::nullopt, "System"},
        {"prestigio-multipad-placeholder-uuid-12345678-forum-spaces.txt", "PMP250363210595", "BayTrail-T", "Type1"},
        {"hp-g72-uuid-not-settable-trailing-blanks.txt", "5CB10601BB", "103C_5335KV", "04A7100000200000000020000"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.report);
        tqtest::Fixture f;
        tqtest::fake_dmidecode(f, tqtest::corpus(std::string("dmidecode/") + c.report));
        tqtest::LeakCheck leaks;
        EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_service_tag()), c.serial);
        EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_product_serial()), c.serial);
        EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_vendor()), c.vendor);
        EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_model()), c.model);
        EXPECT_TRUE(leaks.clean());
        EXPECT_EQ(f.calls("/usr/sbin/dmidecode").size(), 4u);
    }
}

TEST(FirmwareFacts, CommandsRunOnlyWithAnExecutableDmidecode)
{
    tqtest::Fixture f;
    // No dmidecode: only sysfs can answer.
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_service_tag()), std::nullopt);
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_product_serial()), std::nullopt);
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_vendor()), std::nullopt);
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_model()), std::nullopt);
    EXPECT_EQ(f.trace_log(), "") << "a missing serial is not traced";
    f.write("/sys/class/dmi/id/sys_vendor", "HUAWEI\n");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_vendor()), "HUAWEI");

    // The check is of /usr/sbin/dmidecode, whatever the command line runs.
    const std::string marker = f.host("/ran");
    const std::string command = "touch '" + marker + "'; echo first; echo second";
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode(command.c_str())), std::nullopt);
    f.write("/usr/sbin/dmidecode", "#!/bin/sh\n", 0644);
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_dmidecode(command.c_str())), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(marker));
    f.program("/usr/sbin/dmidecode", "");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode(command.c_str())), "first");
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_dmidecode("printf 'a\\rb\\n'")), "a");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode("true")), std::nullopt) << "no line is no answer";
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode(nullptr)), std::nullopt);

    // The file readers.
    f.write("/etc/fact", "line one\r\nline two\n");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_sysfs("/etc/fact")), "line one");
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_sysfs("/etc/fact")), "line one");
    f.write("/etc/long", std::string(2000, 'x'));
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_sysfs("/etc/long")), std::string(1023, 'x'));
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_sysfs("/etc/none")), std::nullopt);
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_sysfs(nullptr)), std::nullopt);
}

TEST(FirmwareFacts, ReplayedDmidecodeBehavesLikeTheRecordedOne)
{
    tqtest::DmidecodeReplay old = tqtest::parse_dmidecode_report(
        tqtest::read_file(tqtest::corpus("dmidecode/asus-k8n-dl-old-format-dmidecode26.txt")));
    EXPECT_EQ(old.strings["system-manufacturer"], "System manufacturer");
    EXPECT_EQ(old.strings["baseboard-version"], "1.XX    ");
    EXPECT_EQ(old.type1.find("Table at"), std::string::npos);
    EXPECT_NE(old.type1.find("\t\tSerial Number: System Serial Number\n"), std::string::npos);
    EXPECT_EQ(old.type1.find("K8N-DL\n"), std::string::npos) << "only the type 1 record";

    tqtest::DmidecodeReplay blank = tqtest::parse_dmidecode_report(
        tqtest::read_file(tqtest::corpus("dmidecode/asrock-775vm800-blank-manufacturer-dmidecode212.txt")));
    EXPECT_EQ(blank.strings["system-manufacturer"], std::string(22, ' '));
    EXPECT_EQ(blank.strings.count("system-family"), 0u);
}

} // namespace
