// SPDX-License-Identifier: LGPL-2.1-or-later
#include <glib.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "integrity/key_file.h"
#include "peer_tools.h"

namespace {

using tqtest::contains, tqtest::take;
using KeyFile = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;
using Lines = std::vector<std::string>;

KeyFile load(const std::string &path) { return KeyFile(key_file_load_from_file(path.c_str()), &g_key_file_free); }

// A settings file with comments, a translation and an empty value, at path, loaded by the library.
KeyFile load_settings(tqtest::Fixture &fx, const std::string &path)
{
    fx.write(path, "# Settings of the record keeper\n[General]\n# how often, in minutes\nInterval=15\nName=keeper\n"
                   "Name[fr]=gardien\nEmpty=\n\n[Paths]\nStore=/var/lib/keeper\n");
    return load(path);
}

// The g_log warnings of one save.
Lines save(GKeyFile *kf, const std::string &path)
{
    Lines warnings;
    GLogFunc old = g_log_set_default_handler(
        [](const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer out) {
            if (domain == nullptr && (level & G_LOG_LEVEL_WARNING))
                static_cast<Lines *>(out)->push_back(message);
        },
        &warnings);
    key_file_save_to_file(kf, path.c_str());
    g_log_set_default_handler(old, nullptr);
    return warnings;
}

TEST(KeyFile, ReadsAndSetsRawValuesKeepingCommentsAndTranslations)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    for (auto [key, want] : {std::pair{"Name[fr]", "gardien"}, {"Empty", ""}, {"Missing", "<null>"}})
        EXPECT_EQ(take(key_file_get_value(kf.get(), "General", key)), want) << key;
    fx.write("/bad.ini", "[General]\nthis line is neither\n");
    EXPECT_EQ(key_file_load_from_file("/bad.ini"), nullptr);

    // Raw values: no unescaping or list parsing on the way in or out.
    key_file_set_value(kf.get(), "New", "List", "a;b;c\\n");
    key_file_set_value(kf.get(), "General", "Interval", "30");
    // A line break would forge keys and groups once saved: refused, nothing set, and traced.
    for (auto [what, group, key, value] : {std::tuple{"group", "New\n[Forged]", "K", "v"}, {"key", "New", "K\r", "v"},
                                           {"value", "New", "K", "v\nForged=1"}}) {
        key_file_set_value(kf.get(), group, key, value);
        EXPECT_TRUE(contains(fx.trace_log(), std::string("key_file_set_value: the ") + what + " holds a line break"));
    }
    const std::string data = take(key_file_to_data(kf.get(), nullptr));
    EXPECT_TRUE(contains(data, "# how often, in minutes\nInterval=30\n") && contains(data, "[New]\nList=a;b;c\\n\n"));
    EXPECT_FALSE(contains(data, "Forged") || contains(data, "K=")) << data;
    EXPECT_TRUE(leaks.clean());
}

TEST(KeyFile, SaveReplacesAFileAtomicallyOnlyWhenItsBytesChangeKeepingItsModeAndOwner)
{
    tqtest::Fixture fx;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    fx.mkdir("/d.ini");
    fx.write("/target.ini", "[Old]\n");
    fx.symlink("target.ini", "/link.ini");
    // The largest file still loaded; larger ones are refused by the reader.
    fx.write("/max.ini", std::string(tq::kKeyFileMax - 1, '#') + "\n");
    EXPECT_TRUE(load("/max.ini"));

    const std::string not_regular = "Unable to save settings3: not a regular file",
                      no_dir = "Unable to save settings3: cannot create a temporary file: No such file or directory";
    const struct {
        const char *path, *interval;
        Lines warnings;
        bool replaced;
    } saves[] = {
        {"/k.ini", "15", {}, true},    // created
        {"/k.ini", "15", {}, false},   // unchanged: same inode, same (back-dated) time
        {"/k.ini", "16", {}, true},    // a change that keeps the length
        {"/link.ini", "16", {}, true}, // the link itself is replaced; its target stays as it was
        {"/max.ini", "16", {}, true},  // read and compared first
        {"/no/dir/k.ini", "16", {no_dir}, false},
        {"/d.ini", "16", {"Unable to read existing file /d.ini: not a regular file", not_regular}, false},
    };
    tqtest::LeakCheck leaks;
    for (const auto &s : saves) {
        key_file_set_value(kf.get(), "General", "Interval", s.interval);
        const struct timespec long_ago[2] = {{1000000000, 0}, {1000000000, 0}};
        ::utimensat(AT_FDCWD, fx.host(s.path).c_str(), long_ago, AT_SYMLINK_NOFOLLOW);
        struct stat before {}, after {};
        ::lstat(fx.host(s.path).c_str(), &before);
        EXPECT_EQ(save(kf.get(), s.path), s.warnings) << s.path;
        ::lstat(fx.host(s.path).c_str(), &after);
        // Replaced means a new inode: readers see the old file or the new one, never a mix.
        EXPECT_EQ(std::pair(after.st_ino == before.st_ino, after.st_mtim.tv_sec == before.st_mtim.tv_sec),
                  std::pair(!s.replaced, !s.replaced)) << s.path;
        EXPECT_EQ(fx.read(s.path), s.warnings.empty() ? take(key_file_to_data(kf.get(), nullptr)) : "") << s.path;
    }
    EXPECT_EQ(fx.read("/target.ini"), "[Old]\n");

    // A replaced file keeps its mode and owner; a new one is never writable by others. The
    // umask, mode of the file before the save (0: none there), its owner (0: the caller), mode after it.
    const std::tuple<mode_t, mode_t, uid_t, gid_t, mode_t> cases[] = {
        {0, 0, 0, 0, 0644}, {077, 0, 0, 0, 0600}, {077, 0640, 0, 0, 0640},
        // Root only. The owner is set before the mode: a change of owner clears the set-user-ID bit.
        {022, 04750, 65534, 0, 04750}, {022, 0600, 0, 65534, 0600},
    };
    bool skipped = false;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &[mask, before, uid, gid, after] = cases[i];
        const std::string path = "/m" + std::to_string(i) + ".ini", host = fx.host(path);
        const uid_t owner = uid ? uid : ::geteuid();
        const gid_t group = gid ? gid : ::getegid();
        if ((uid || gid) && (skipped = ::geteuid() != 0))
            continue;
        if (before) {
            fx.write(path, "[Old]\n");
            ASSERT_TRUE(::chown(host.c_str(), owner, group) == 0 && ::chmod(host.c_str(), before) == 0);
        }
        const mode_t saved = ::umask(mask);
        EXPECT_EQ(save(kf.get(), path), Lines{}) << path;
        ::umask(saved);
        struct stat st {};
        ASSERT_EQ(::stat(host.c_str(), &st), 0);
        EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_uid, st.st_gid), std::tuple(after, owner, group)) << path;
    }
    EXPECT_TRUE(leaks.clean());
    if (skipped)
        GTEST_SKIP() << "only root can save a file that another user owns";
}

} // namespace
