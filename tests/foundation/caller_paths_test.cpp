// SPDX-License-Identifier: LGPL-2.1-or-later
// Every exported function that takes a path from its caller, handed a FIFO
// without a writer, a character device that never ends and a huge sparse
// file: it answers without waiting, within the memory bound, and leaves
// nothing open or running.
// load_public_key hands out an RSA *, released with RSA_free.
#define OPENSSL_API_COMPAT 0x10100000L

#include <glib.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>

#include "bounded_call.h"
#include "fixture.h"
#include "foundation/os.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

using tqtest::take;
using KeyFile = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;
using Rsa = std::unique_ptr<RSA, decltype(&RSA_free)>;

// What is left at path: its size as lstat() sees it, or "gone".
std::string left_at(const char *path)
{
    struct stat st;
    return tq::os::lstat(path, &st) == 0 ? std::to_string(st.st_size) : "gone";
}

// The huge file starts with this text, then holds zero bytes up to kHugeFile:
// its first line ends only with its end.
constexpr char kHugeStart[] = "root=/dev/sda2";
constexpr char kHugeSha256[] = "6175aef95bf74058e1897a67205ecf20a4bde8df214ecd5c99f88d92cf62d48b";
const std::string kHugeSize = std::to_string(tqtest::kHugeFile);
// A log line of 43 bytes appended: "(II) Time: <date> <time>\t\tMessage: m\n".
const std::string kHugeLogged = std::to_string(tqtest::kHugeFile + 43);

// A call's answer as text.
template <auto F> std::string text(const char *path) { return take(F(path)); }
template <auto F> std::string matches_huge(const char *path) { return std::to_string(F(path, kHugeSha256)); }
template <auto F> std::string verified(const char *path) { return std::to_string(F(path, nullptr, nullptr)); }

struct Row {
    const char *name;
    std::function<std::string(const char *path)> call;
    const char *fifo, *device, *huge; // its answers; huge null: the huge file is skipped
};

const Row kRows[] = {
    {"log_write", [](const char *p) { return log_write(p, "m", "II", 1), left_at(p); }, "0", "9", kHugeLogged.c_str()},
    // A mode probe that opens nothing; links are followed.
    {"file_stat", [](const char *p) { return std::to_string(file_stat(p, 0177)); }, "36", "54", "36"},
    // A directory by contract: a file is left alone, a link removed as a link.
    {"remove_directory", [](const char *p) { return remove_directory(p), left_at(p); }, "0", "gone", kHugeSize.c_str()},
    {"command_line_get_root_device_name", text<command_line_get_root_device_name>, "<null>", "<null>", "/dev/sda2"},
    // A block device by contract: the fakes below would give one an identity.
    {"harddisk_id", text<harddisk_id>, "<null>", "<null>", "<null>"},
    {"harddisk_id_smartctl", text<harddisk_id_smartctl>, "<null>", "<null>", "<null>"},
    {"harddisk_id_lvm", text<harddisk_id_lvm>, "<null>", "<null>", "<null>"},
    // A disk name: /sys/block/<name>/device/model is linked to the file.
    {"harddisk_id_nvme_new", [](const char *p) { return take(harddisk_id_nvme_new(p + 4)); }, "", "", "root=/d"},
    // Only lsblk looks at the path.
    {"is_logical_volume", [](const char *p) { return std::to_string(is_logical_volume(p)); }, "0", "0", "0"},
    {"get_service_tag_from_sysfs", text<get_service_tag_from_sysfs>, "<null>", "<null>", "root=/dev/sda2"},
    {"get_machine_info_from_sysfs", text<get_machine_info_from_sysfs>, "<null>", "<null>", "root=/dev/sda2"},
    // Digests stream a huge file; the three share one reader, so one of them reads it.
    {"file_check_sha256", matches_huge<file_check_sha256>, "0", "0", "1"},
    {"file_check_sha1", matches_huge<file_check_sha1>, "0", "0", nullptr},
    {"file_check_md5", matches_huge<file_check_md5>, "0", "0", nullptr},
    {"load_public_key", [](const char *p) { return Rsa(load_public_key(p), RSA_free) ? "key" : "-"; }, "-", "-", "-"},
    {"gpg_verify_cmd", verified<gpg_verify_cmd>, "1", "1", "1"},
    {"gpg_verify_cmd_cached", verified<gpg_verify_cmd_cached>, "1", "1", "1"},
    {"gpg_verify", verified<gpg_verify>, "49", "49", "1"}, // streams the file to gpg, which finds no signature
    {"run_verify", [](const char *p) { return std::to_string(run_verify("/tmp", p)); }, "0", "0", "0"},
    {"get_custom_info", [](const char *p) { return take(get_custom_info(p, nullptr)); }, "<null>", "<null>", "<null>"},
    {"key_file_load_from_file",
     [](const char *p) { return KeyFile(key_file_load_from_file(p), g_key_file_free) ? "loaded" : "-"; }, "-", "-",
     "-"},
    // Left alone with two warnings, or, too large to be compared, replaced with one.
    {"key_file_save_to_file",
     [](const char *p) {
         int warnings = 0; // in a child process: the handler is never put back
         g_log_set_default_handler([](const gchar *, GLogLevelFlags, const gchar *, void *n) { ++*(int *)n; },
                                   &warnings);
         KeyFile kf(g_key_file_new(), g_key_file_free);
         key_file_set_value(kf.get(), "a", "b", "c");
         key_file_save_to_file(kf.get(), p);
         return std::to_string(warnings) + " " + left_at(p);
     },
     "2 0", "2 9", "1 8"},
    {"read_decrypt_file_to_str", text<read_decrypt_file_to_str>, "<null>", "<null>", "<null>"},
};

void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }

class CallerPaths : public ::testing::TestWithParam<Row> {};

TEST_P(CallerPaths, AFifoADeviceOrAHugeFileIsAnsweredAtOnceWithinTheMemoryBound)
{
    const Row &row = GetParam();
    tqtest::Fixture fx;
    fx.mkdir("/tmp");
    fx.write("/in/huge", kHugeStart);
    ASSERT_TRUE(tqtest::make_fifo_and_zero(fx.host("/in/fifo"), fx.host("/in/zero")) &&
                truncate(fx.host("/in/huge").c_str(), tqtest::kHugeFile) == 0);
    // Helpers that would name a disk, and gpg as installed.
    fx.block_device("/dev/sda");
    fx.program("/usr/sbin/smartctl", "Device Model: M\nSerial Number: S\n");
    fx.program("/sbin/lvdisplay", "  VG Name  vg\n");
    fx.program("/sbin/pvdisplay", "  PV Name  /dev/sda\n  VG Name  vg\n");
    fx.script("/usr/bin/gpg", "exec /usr/bin/gpg \"$@\"");
    ::setenv("GNUPGHOME", fx.host("/tmp").c_str(), 1); // never the user's own
    for (const char *kind : {"fifo", "zero", "huge"})
        fx.symlink(fx.host(std::string("/in/") + kind), std::string("/sys/block/") + kind + "/device/model");
    ASSERT_EQ(take(harddisk_id_lvm("/dev/sda")), "M_S");

    const std::pair<const char *, const char *> kinds[] = {{"/in/fifo", row.fifo}, {"/in/zero", row.device},
                                                           {"/in/huge", row.huge}};
    for (const auto &[path, want] : kinds) {
        if (!want)
            continue;
        SCOPED_TRACE(path);
        const tqtest::BoundedCall got = tqtest::bounded_call(
            [&] {
                tqtest::LeakCheck leaks;
                const std::string answer = row.call(path);
                return answer + (leaks.clean() ? "" : " leaked");
            },
            want == row.huge ? 60 : 10);
        EXPECT_EQ(got.answer, want);
        EXPECT_TRUE(tqtest::within_memory_bound(got.grown_kib));
    }
}

INSTANTIATE_TEST_SUITE_P(Every, CallerPaths, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row> &info) { return std::string(info.param.name); });

} // namespace
