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

#include "bounded_call.h"
#include "fixture.h"
#include "foundation/os.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

using tqtest::take;

// What is left at path: its size as lstat() sees it, or "gone".
std::string left_at(const char *path)
{
    struct stat st;
    return tq::os::lstat(path, &st) == 0 ? std::to_string(st.st_size) : "gone";
}

std::string gpg_outcome(int32_t (*verify)(const char *, char **, size_t *), const char *path)
{
    char *content = nullptr;
    size_t len = 77;
    const int32_t code = verify(path, &content, &len);
    return std::to_string(code) + "|" + take(content) + "|" + std::to_string(len);
}

struct Row {
    const char *name;
    std::function<std::string(const char *path)> call;
    const char *fifo, *device, *huge; // its answers; huge null: the huge file is skipped
};

// The huge file starts with this line, then holds zero bytes up to kHugeFile.
constexpr char kHugeFirstLine[] = "root=/dev/sda2\n";
constexpr char kHugeSha256[] = "795ef0ee3c467d168985266c909832585d1625de39a40d325512563fa46e94df";
const std::string kHugeSize = std::to_string(tqtest::kHugeFile);
// A log line of 43 bytes appended: "(II) Time: <date> <time>\t\tMessage: m\n".
const std::string kHugeLogged = std::to_string(tqtest::kHugeFile + 43);

const Row kRows[] = {
    {"log_write", [](const char *p) { return log_write(p, "m", "II", 1), left_at(p); }, "0", "9", kHugeLogged.c_str()},
    // A mode probe that opens nothing.
    {"file_stat", [](const char *p) { return std::to_string(file_stat(p, 0200)); }, "128", "128", "128"},
    // A directory by contract: anything else is left alone, and a link is removed as a link.
    {"remove_directory", [](const char *p) { return remove_directory(p), left_at(p); }, "0", "gone", kHugeSize.c_str()},
    {"command_line_get_root_device_name", [](const char *p) { return take(command_line_get_root_device_name(p)); },
     "<null>", "<null>", "/dev/sda2"},
    // A block device by contract: the fakes below would name one.
    {"harddisk_id", [](const char *p) { return take(harddisk_id(p)); }, "<null>", "<null>", "<null>"},
    {"harddisk_id_smartctl", [](const char *p) { return take(harddisk_id_smartctl(p)); }, "<null>", "<null>", "<null>"},
    {"harddisk_id_lvm", [](const char *p) { return take(harddisk_id_lvm(p)); }, "<null>", "<null>", "<null>"},
    // Its name picks /sys/block/<name>/device/model, linked to the file below.
    {"harddisk_id_nvme_new", [](const char *p) { return take(harddisk_id_nvme_new(p + 4)); }, "", "", "root=/d"},
    // Only lsblk looks at the path.
    {"is_logical_volume", [](const char *p) { return std::to_string(is_logical_volume(p)); }, "0", "0", "0"},
    {"get_service_tag_from_sysfs", [](const char *p) { return take(get_service_tag_from_sysfs(p)); }, "<null>",
     "<null>", "root=/dev/sda2"},
    {"get_machine_info_from_sysfs", [](const char *p) { return take(get_machine_info_from_sysfs(p)); }, "<null>",
     "<null>", "root=/dev/sda2"},
    // Digests stream a huge file; the three share one reader, so one of them reads it.
    {"file_check_sha256", [](const char *p) { return std::to_string(file_check_sha256(p, kHugeSha256)); }, "0", "0", "1"},
    {"file_check_sha1", [](const char *p) { return std::to_string(file_check_sha1(p, "")); }, "0", "0", nullptr},
    {"file_check_md5", [](const char *p) { return std::to_string(file_check_md5(p, "")); }, "0", "0", nullptr},
    {"load_public_key",
     [](const char *p) {
         RSA *key = load_public_key(p);
         RSA_free(key);
         return key ? "key" : "<null>";
     },
     "<null>", "<null>", "<null>"},
    {"gpg_verify_cmd", [](const char *p) { return gpg_outcome(gpg_verify_cmd, p); }, "1|<null>|77", "1|<null>|77",
     "1|<null>|77"},
    {"gpg_verify_cmd_cached", [](const char *p) { return gpg_outcome(gpg_verify_cmd_cached, p); }, "1|<null>|77",
     "1|<null>|77", "1|<null>|77"},
    // Streams the file to gpg, which finds no signature in it.
    {"gpg_verify", [](const char *p) { return gpg_outcome(gpg_verify, p); }, "49|<null>|77", "49|<null>|77",
     "1|<null>|77"},
    {"run_verify", [](const char *p) { return std::to_string(run_verify("/tmp", p)); }, "0", "0", "0"},
    {"get_custom_info", [](const char *p) { return take(get_custom_info(p, nullptr)); }, "<null>", "<null>", "<null>"},
    {"key_file_load_from_file",
     [](const char *p) {
         GKeyFile *kf = key_file_load_from_file(p);
         return kf ? (g_key_file_free(kf), "loaded") : "<null>";
     },
     "<null>", "<null>", "<null>"},
    // Left alone, or, too large to be compared, replaced.
    {"key_file_save_to_file",
     [](const char *p) {
         GKeyFile *kf = g_key_file_new();
         key_file_set_value(kf, "a", "b", "c");
         key_file_save_to_file(kf, p);
         g_key_file_free(kf);
         return left_at(p);
     },
     "0", "9", "8"},
    {"read_decrypt_file_to_str", [](const char *p) { return take(read_decrypt_file_to_str(p)); }, "<null>", "<null>",
     "<null>"},
};

class CallerPaths : public ::testing::TestWithParam<Row> {};

TEST_P(CallerPaths, AFifoADeviceOrAHugeFileIsAnsweredAtOnceWithinTheMemoryBound)
{
    const Row &row = GetParam();
    tqtest::Fixture fx;
    fx.mkdir("/tmp");
    fx.write("/in/huge", kHugeFirstLine);
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

    for (const auto &[path, want] : {std::pair{"/in/fifo", row.fifo}, {"/in/zero", row.device}, {"/in/huge", row.huge}}) {
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
