// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/dmidecode_pipeline.h"

#include <sys/stat.h>

#include <array>
#include <memory>

#include "foundation/os.h"

#include "platform_support.h"

namespace {

using Facts = std::array<std::optional<std::string>, 4>;
using FirmwareFacts = tqtest::LeakCheckedTest;

// Serial (under both names), vendor and model, in that order.
Facts facts()
{
    return {tqtest::take_optional(tavro_quenda_get_service_tag()),
            tqtest::take_optional(tavro_quenda_get_product_serial()), tqtest::take_optional(tavro_quenda_get_vendor()),
            tqtest::take_optional(tavro_quenda_get_model())};
}

TEST_F(FirmwareFacts, SysfsAnswersFirstAndAnEmptyLineIsAnAnswer)
{
    tqtest::Fixture f;
    EXPECT_EQ(facts(), Facts{}) << "neither sysfs nor dmidecode";
    tqtest::fake_dmidecode(f, "lenovo-thinkpad-t480.txt");
    f.write("/sys/class/dmi/id/product_serial", "PF 12 AB\r\n");
    f.write("/sys/class/dmi/id/sys_vendor", "LENOVO\n");
    f.write("/sys/class/dmi/id/product_sku", "\n");
    EXPECT_EQ(facts(), (Facts{"PF 12 AB", "PF 12 AB", "LENOVO", ""}));
    EXPECT_TRUE(f.calls("/usr/sbin/dmidecode").empty()) << "sysfs answered every fact";

    // An empty file gives no line at all: dmidecode is asked.
    f.write("/sys/class/dmi/id/product_sku", "");
    EXPECT_EQ(tqtest::take_optional(tavro_quenda_get_model()), "ThinkPad");
    EXPECT_EQ(f.calls("/usr/sbin/dmidecode"), std::vector<std::string>{"-t 1"});
}

// The in-process filters against the real pipelines they replace (grep and awk in the C locale), over every
// recorded report and lines that probe awk's splitting: for each pipeline the whole output must be equal.
TEST(DmidecodePipelines, FilterPrintsWhatTheShellPipelinePrinted)
{
    tqtest::Fixture f;
    f.write("/edge", "\tSerial Number: a: b: c\nserial number:none\nSERIAL NUMBER: \nSerial Number\n"
                     "Manufacturer: LENOVO\r\n  Family  two\t words \n\tVersion:\tX\nVersion\nfamily \t\n"
                     ": Version: : x\nx 12345678-1234-5678-90ab-CDDEEFAABBCC y\n1234567-1234-5678-90ab-cddeefaabbcc\n"
                     "\n\tFamily: last line without its line end");
    std::vector<std::string> reports = {f.host("/edge")};
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("dmidecode")))
        reports.push_back(entry.path());
    for (const std::string &report : reports) {
        for (const tq::DmidecodePipeline *pipeline : tq::kDmidecodePipelines) {
            const std::string command = pipeline->command;
            const size_t bar = command.find('|');
            const std::string shell = "export LC_ALL=C; cat " + tq::os::shell_quote(report) + " " +
                                      (bar == std::string::npos ? "" : command.substr(bar));
            std::unique_ptr<FILE, decltype(&::pclose)> p(::popen(shell.c_str(), "r"), ::pclose);
            ASSERT_TRUE(p);
            std::string expected;
            char buf[4096];
            for (size_t n; (n = std::fread(buf, 1, sizeof(buf), p.get())) > 0;)
                expected.append(buf, n);
            EXPECT_EQ(tq::filter_dmidecode_report(*pipeline, tqtest::read_file(report)), expected)
                << report << "\n" << command;
        }
    }
}

// Hand-checked: what grep -i KEY | awk prints for recorded machines when sysfs has no DMI attributes. Programs
// on a hostile PATH never run, and an empty PATH changes nothing.
TEST_F(FirmwareFacts, DmidecodeFallbackOnRealReports)
{
    const struct { const char *report; std::optional<std::string> serial, vendor, model; } cases[] = {
        // Vendor is the first word of Family, model the first word of Version; the header's
        // "newer than version 3.2.0" comment is the first Version match.
        {"lenovo-thinkpad-e14-gen3-smbios-newer-comment.txt", "--", "ThinkPad", "SMBIOS"},
        {"vmware-vm-centos77-serial-with-blanks.txt", "VMware-56 4d fd 28 89 33 f8 e2-64 74 01 59 92 3b 58 0e", "Not",
         "None"},
        {"acer-aspire-z5610-trailing-blanks.txt", "--", "Acer", ""}, // a blank Version is an empty answer
        {"dell-poweredge-1600sc-trailing-blanks.txt", "--", std::nullopt, "Not"}, // no Family
    };
    for (const auto &c : cases) {
        for (bool empty_path : {false, true}) {
            tqtest::Fixture f;
            tqtest::fake_dmidecode(f, c.report);
            for (const char *hostile : {"sh", "grep", "awk", "dmidecode"})
                f.path_program(hostile, "hostile\n");
            if (empty_path)
                ::setenv("PATH", "", 1); // the fixture puts the caller's PATH back
            EXPECT_EQ(facts(), (Facts{c.serial, c.serial, c.vendor, c.model})) << c.report;
            for (const char *hostile : {"sh", "grep", "awk", "dmidecode"})
                EXPECT_EQ(f.calls(hostile), std::vector<std::string>{}) << hostile;
        }
    }
}

TEST_F(FirmwareFacts, ReadersTakeOnlyRegularFilesAndAnExecutableDmidecode)
{
    tqtest::Fixture f;
    // The check is of /usr/sbin/dmidecode, whatever the command line runs.
    const std::string command = "echo ran >'" + f.host("/ran") + "'; echo first; echo second";
    f.write("/usr/sbin/dmidecode", "#!/bin/sh\n", 0644);
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_dmidecode(command.c_str())), std::nullopt);
    EXPECT_EQ(f.read("/ran"), "") << "nothing ran";
    f.program("/usr/sbin/dmidecode", "");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode(command.c_str())), "first");
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_dmidecode("printf 'a\\rb\\n'")), "a");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode("true")), std::nullopt) << "no line is no answer";
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_dmidecode(nullptr)), std::nullopt);

    f.write("/etc/fact", "line one\nline two\n");
    EXPECT_EQ(tqtest::take_optional(get_machine_info_from_sysfs("/etc/fact")), "line one");
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_sysfs("/etc/fact")), "line one");
    // Nothing but a regular file is read: no wait for a FIFO's writer, no endless device.
    ASSERT_EQ(mkfifo(f.host("/etc/fifo").c_str(), 0600), 0);
    f.symlink("/dev/zero", "/etc/zero");
    for (const char *path : {"/etc/fifo", "/etc/zero", "/etc", "/etc/none", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(tqtest::take_optional(get_machine_info_from_sysfs(path)), std::nullopt) << (path ? path : "null");
        EXPECT_EQ(tqtest::take_optional(get_service_tag_from_sysfs(path)), std::nullopt) << (path ? path : "null");
    }
}

} // namespace
