// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/dmidecode_pipeline.h"

#include "foundation/os.h"
#include "platform_support.h"

namespace {

using Facts = std::vector<std::optional<std::string>>;
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
    EXPECT_TRUE(f.calls("/usr/sbin/dmidecode").empty()) << "sysfs answered every fact";

    // An empty file gives no line at all, and a placeholder UUID (in any case) is none: dmidecode is asked.
    f.write("/sys/class/dmi/id/product_sku", "");
    f.write("/sys/devices/virtual/dmi/id/product_uuid", "FEFEFEFE-fefe-FEFE-fefe-FEFEFEFEFEFE\n");
    EXPECT_EQ(facts(), (Facts{"PF 12 AB", "PF 12 AB", "LENOVO", "None", "1A0D4D56-CFCC-FA45-4381-AC1F3B994517"}));

    // The exported readers of a caller's file or shell command line: its first line.
    f.write("/etc/fact", "line one\r\nline two\n");
    const std::pair<char *(*)(const char *), const char *> readers[] = {
        {get_machine_info_from_sysfs, "/etc/fact"},
        {get_service_tag_from_sysfs, "/etc/fact"},
        {get_machine_info_from_dmidecode, "echo line one; echo two"},
        {get_service_tag_from_dmidecode, "printf 'line one\\r\\n'"}};
    for (const auto &[reader, source] : readers) {
        EXPECT_EQ(tqtest::take_optional(reader(source)), "line one") << source;
        EXPECT_EQ(tqtest::take_optional(reader(nullptr)), std::nullopt);
    }
}

// Hand-checked: what the pipelines print for recorded machines when sysfs has no DMI attributes. Programs on a
// hostile PATH never run.
TEST_F(FirmwareFacts, DmidecodeAnswersForRecordedMachines)
{
    const std::optional<std::string> none;
    const std::string vm = "VMware-56 4d fd 28 89 33 f8 e2-64 74 01 59 92 3b 58 0e";
    const struct { const char *report; std::optional<std::string> serial, vendor, model, uuid; int lenovo; bool no_s; }
        cases[] = {
            // Vendor is the first word of Family, model the first word of Version; the header's
            // "newer than version 3.2.0" comment is the first Version match. "--" is an anonymised UUID: none.
            {"lenovo-thinkpad-e14-gen3-smbios-newer-comment.txt", "--", "ThinkPad", "SMBIOS", none, 1, false},
            {"vmware-vm-centos77-serial-with-blanks.txt", vm, "Not", "None", "28fd4d56-3389-e2f8-6474-0159923b580e", 0,
             false},
            {"acer-aspire-z5610-trailing-blanks.txt", "--", "Acer", "", none, 0, false}, // a blank Version: empty
            {"dell-poweredge-1600sc-trailing-blanks.txt", "--", none, "Not", none, 0, false}, // no Family
            {"kaitian-n80z-g1d.txt", "--", "KaiTian", "N80z", none, 1, false},
            {"lenovo-mixed-case-ideacentre-k330.txt", "--", "To", "Lenovo", none, 0, false},
            // Without -s, the type 1 record names the manufacturer.
            {"lenovo-thinkcentre-m700z.txt", "--", "ThinkCentre", "ThinkCentre", none, 1, true},
        };
    for (const auto &c : cases) {
        tqtest::Fixture f;
        tqtest::fake_dmidecode(f, c.report, c.no_s);
        for (const char *hostile : {"sh", "grep", "awk", "sed", "dmidecode"})
            f.path_program(hostile, "hostile\n");
        EXPECT_EQ(facts(), (Facts{c.serial, c.serial, c.vendor, c.model, c.uuid})) << c.report;
        EXPECT_EQ(is_lenovo_machine(), c.lenovo) << c.report;
        for (const char *hostile : {"sh", "grep", "awk", "sed", "dmidecode"})
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
