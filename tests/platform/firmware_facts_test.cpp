// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/dmidecode_pipeline.h"

#include "foundation/os.h"
#include "platform_support.h"

namespace {

using Text = std::optional<std::string>;
using Facts = std::vector<Text>;
using FirmwareFacts = tqtest::LeakCheckedTest;

// Serial (under both names), vendor, model and system UUID, in that order.
Facts facts()
{
    return {tqtest::take_optional(tavro_quenda_get_service_tag()),
            tqtest::take_optional(tavro_quenda_get_product_serial()), tqtest::take_optional(tavro_quenda_get_vendor()),
            tqtest::take_optional(tavro_quenda_get_model()), tqtest::take_optional(tavro_quenda_get_system_uuid())};
}

TEST_F(FirmwareFacts, SysfsAnswersFirstAndAnEmptyLineIsAnAnswer)
{
    tqtest::Fixture f;
    EXPECT_EQ(facts(), Facts(5)) << "neither sysfs nor dmidecode";
    tqtest::fake_dmidecode(f, "vmware-vm-ubuntu1804-serial-with-blanks-uppercase-uuid.txt");
    f.write("/sys/class/dmi/id/product_serial", "PF 12 AB\r\n");
    f.write("/sys/class/dmi/id/sys_vendor", "LENOVO\n");
    f.write("/sys/class/dmi/id/product_sku", "\n");
    f.write("/sys/devices/virtual/dmi/id/product_uuid", "4c4c4544-0042-3510-8052-b4c04f4e4d32\r\n");
    EXPECT_EQ(facts(), (Facts{"PF 12 AB", "PF 12 AB", "LENOVO", "", "4c4c4544-0042-3510-8052-b4c04f4e4d32"}));

    // An empty file gives no line at all, and a placeholder UUID (in any case) is none: dmidecode is asked.
    f.write("/sys/class/dmi/id/product_sku", "");
    f.write("/sys/devices/virtual/dmi/id/product_uuid", "FEFEFEFE-fefe-FEFE-fefe-FEFEFEFEFEFE\n");
    EXPECT_EQ(facts(), (Facts{"PF 12 AB", "PF 12 AB", "LENOVO", "None", "1A0D4D56-CFCC-FA45-4381-AC1F3B994517"}));

    // The exported readers of a caller's file or shell command line: its first line.
    f.write("/etc/fact", "line one\r\nline two\n");
    for (auto *reader : {get_machine_info_from_sysfs, get_service_tag_from_sysfs})
        EXPECT_EQ(tqtest::take_optional(reader("/etc/fact")), "line one");
    for (auto *reader : {get_machine_info_from_dmidecode, get_service_tag_from_dmidecode})
        EXPECT_EQ(tqtest::take_optional(reader("printf 'line one\\r\\n'; echo two")), "line one");
    ::chmod(f.host("/usr/sbin/dmidecode").c_str(), 0644); // no command runs while dmidecode cannot
    EXPECT_EQ(tqtest::take_optional(get_service_tag_from_dmidecode("echo one")), std::nullopt);
}

// Hand-checked: what the pipelines print for recorded machines when sysfs has no DMI attributes. Programs on a
// hostile PATH never run.
TEST_F(FirmwareFacts, DmidecodeAnswersForRecordedMachines)
{
    const struct { const char *file; int lenovo; Text serial, vendor, model, uuid = {}; bool no_s = false; } cases[] = {
            // Vendor is the first word of Family, model the first word of Version; the header's
            // "newer than version 3.2.0" comment is the first Version match. "--" is an anonymised UUID: none.
            {"lenovo-thinkpad-e14-gen3-smbios-newer-comment.txt", 1, "--", "ThinkPad", "SMBIOS"},
            {"vmware-vm-centos77-serial-with-blanks.txt", 0, "VMware-56 4d fd 28 89 33 f8 e2-64 74 01 59 92 3b 58 0e",
             "Not", "None", "28fd4d56-3389-e2f8-6474-0159923b580e"},
            {"acer-aspire-z5610-trailing-blanks.txt", 0, "--", "Acer", ""}, // a blank Version is an empty answer
            {"dell-poweredge-1600sc-trailing-blanks.txt", 0, "--", {}, "Not"}, // no Family
            {"kaitian-n80z-g1d.txt", 1, "--", "KaiTian", "N80z"},
            {"lenovo-mixed-case-ideacentre-k330.txt", 0, "--", "To", "Lenovo"},
            // Without -s, the type 1 record names the manufacturer.
            {"lenovo-thinkcentre-m700z.txt", 1, "--", "ThinkCentre", "ThinkCentre", {}, true},
        };
    for (const auto &c : cases) {
        tqtest::Fixture f;
        tqtest::fake_dmidecode(f, c.file, c.no_s);
        for (const char *hostile : {"sh", "grep", "awk", "dmidecode"})
            f.path_program(hostile, "hostile\n");
        EXPECT_EQ(facts(), (Facts{c.serial, c.serial, c.vendor, c.model, c.uuid})) << c.file;
        EXPECT_EQ(is_lenovo_machine(), c.lenovo) << c.file;
        for (const char *hostile : {"sh", "grep", "awk", "dmidecode"})
            EXPECT_EQ(f.calls(hostile), std::vector<std::string>{}) << hostile;
    }
}

// The in-process filters against the real pipelines they replace (grep and awk in the C locale), over every
// recorded report and lines that probe awk's splitting: for each pipeline the whole output must be equal.
TEST(DmidecodePipelines, FilterPrintsWhatTheShellPipelinePrinted)
{
    std::vector<std::string> reports = {
        "\tSerial Number: a: b: c\nserial number:none\nSERIAL NUMBER: \nSerial Number\nManufacturer: LENOVO\r\n"
        "  Family  two\t words \n\tVersion:\tX\nVersion\nfamily \t\n: Version: : x\n"
        "x 12345678-1234-5678-90ab-CDDEEFAABBCC y\n1234567-1234-5678-90ab-cddeefaabbcc\n"
        "\n\tFamily: last line without its line end"};
    for (const auto &entry : std::filesystem::directory_iterator(tqtest::corpus("dmidecode")))
        reports.push_back(tqtest::read_file(entry.path()));
    for (const std::string &report : reports) {
        for (const tq::DmidecodePipeline *pipeline : tq::kDmidecodePipelines) {
            const std::string command = pipeline->command;
            const std::string shell = "export LC_ALL=C; printf %s " + tq::os::shell_quote(report) + " " +
                                      command.substr(std::min(command.find('|'), command.size()));
            const char *argv[] = {"/bin/sh", "-c", shell.c_str(), nullptr};
            EXPECT_EQ(tq::filter_dmidecode_report(*pipeline, report), tq::os::spawn(argv).out) << report << command;
        }
    }
}

} // namespace
