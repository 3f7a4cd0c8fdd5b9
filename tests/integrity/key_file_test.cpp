// SPDX-License-Identifier: LGPL-2.1-or-later
#include <glib.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "integrity/key_file.h"
#include "peer_tools.h"

namespace {

using tqtest::contains;
using tqtest::take;
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

// The g_log warnings of one save, each up to the path or the ": " that precedes GLib's own message.
Lines save(GKeyFile *kf, const std::string &path)
{
    Lines warnings;
    GLogFunc old = g_log_set_default_handler(
        [](const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer out) {
            std::string text = message;
            if (domain == nullptr && (level & G_LOG_LEVEL_WARNING))
                static_cast<Lines *>(out)->push_back(text.substr(0, std::min(text.find(": "), text.find(" /"))));
        },
        &warnings);
    key_file_save_to_file(kf, path.c_str());
    g_log_set_default_handler(old, nullptr);
    return warnings;
}

struct stat stat_of(const std::string &host_path)
{
    struct stat st {};
    EXPECT_EQ(::stat(host_path.c_str(), &st), 0) << host_path;
    return st;
}

TEST(KeyFile, ReadsRawValuesKeepsCommentsAndInteroperatesWithGLib)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile ours = load_settings(fx, "/s.ini");
    ASSERT_TRUE(ours);
    for (auto [group, key, want] : {std::tuple{"General", "Name[fr]", "gardien"}, {"General", "Empty", ""},
                                    {"General", "Missing", "<null>"}, {"Nowhere", "Interval", "<null>"}})
        EXPECT_EQ(take(key_file_get_value(ours.get(), group, key)), want) << group << "/" << key;
    fx.write("/bad.ini", "[General]\nthis line is neither\n");
    for (const char *path : {"/bad.ini", "/missing.ini", static_cast<const char *>(nullptr)})
        EXPECT_EQ(key_file_load_from_file(path), nullptr) << (path ? path : "-");

    // Raw values: no unescaping or list parsing on the way in or out.
    key_file_set_value(ours.get(), "New", "List", "a;b;c\\n");
    key_file_set_value(ours.get(), "General", "Interval", "30");
    // A line break would forge keys and groups once saved: refused, nothing set, and traced.
    for (auto [group, key, value] : {std::tuple{"New\n[Forged]", "K", "v"}, {"New", "K\r", "v"}, {"New", "K", "v\nForged=1"}})
        key_file_set_value(ours.get(), group, key, value);
    for (const char *what : {"group", "key", "value"})
        EXPECT_TRUE(contains(fx.trace_log(), std::string("key_file_set_value: the ") + what + " holds a line break"));
    gsize length = 0;
    const std::string data = take(key_file_to_data(ours.get(), &length));
    EXPECT_EQ(length, data.size());
    EXPECT_TRUE(contains(data, "[New]\nList=a;b;c\\n\n"));
    EXPECT_FALSE(contains(data, "Forged") || contains(data, "K=")) << data;
    EXPECT_EQ(save(ours.get(), "/s.ini"), Lines{});
    EXPECT_EQ(fx.read("/s.ini"), data);
    EXPECT_TRUE(leaks.clean());

    // GLib reads what the library wrote, comments included ...
    KeyFile glib(g_key_file_new(), &g_key_file_free);
    ASSERT_TRUE(g_key_file_load_from_file(glib.get(), fx.host("/s.ini").c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr));
    EXPECT_EQ(take(g_key_file_get_value(glib.get(), "General", "Interval", nullptr)), "30");
    EXPECT_EQ(take(g_key_file_get_comment(glib.get(), "General", "Interval", nullptr)), " how often, in minutes");
    // ... and the library reads what GLib wrote.
    g_key_file_set_value(glib.get(), "Paths", "Store", "/srv/keeper");
    ASSERT_TRUE(g_key_file_save_to_file(glib.get(), fx.host("/g.ini").c_str(), nullptr));
    KeyFile back = load("/g.ini");
    ASSERT_TRUE(back);
    EXPECT_EQ(take(key_file_get_value(back.get(), "Paths", "Store")), "/srv/keeper");
}

TEST(KeyFile, SavesOnlyChangedBytesWarnsWhenItCannotAndNeverWaitsOrFloodsMemory)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    // First save to a new path creates the file.
    const std::string copy = fx.host("/copy.ini");
    EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
    // An identical file is left alone: same inode, same (back-dated) mtime.
    struct timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, copy.c_str(), old_times, 0), 0);
    const ino_t inode = stat_of(copy).st_ino;
    EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
    EXPECT_EQ(stat_of(copy).st_ino, inode);
    EXPECT_EQ(stat_of(copy).st_mtim.tv_sec, 1000000000);
    // A change rewrites it, also one that keeps the length.
    key_file_set_value(kf.get(), "General", "Interval", "16");
    EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
    EXPECT_TRUE(contains(fx.read("/copy.ini"), "Interval=16\n"));

    // Failures warn and write nothing: a missing directory, a directory in the
    // way (it exists but cannot be read, nor replaced), null arguments.
    EXPECT_EQ(save(kf.get(), "/no/such/dir/s.ini"), Lines{"Unable to save settings3"});
    fx.mkdir("/d.ini");
    EXPECT_EQ(save(kf.get(), "/d.ini"), (Lines{"Unable to read existing file", "Unable to save settings3"}));
    EXPECT_TRUE(std::filesystem::is_directory(fx.host("/d.ini")));
    // No stray temporary files either.
    Lines entries;
    for (auto &e : std::filesystem::directory_iterator(fx.host("/")))
        entries.push_back(e.path().filename());
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (Lines{"copy.ini", "d.ini", "s.ini", "var"}));
    EXPECT_TRUE(leaks.clean());

    // Neither loaded nor replaced; a file too large to be a key file is not
    // loaded, nor compared, but replaced.
    tqtest::expect_hostile_files(fx, "", "load", [](const std::string &path) { return load(path) ? "ok" : "<null>"; },
                                 "<null>", "<null>");
    tqtest::expect_hostile_files(
        fx, "", "save",
        [&kf](const std::string &path) {
            std::string joined;
            for (const std::string &line : save(kf.get(), path))
                joined += line + ";";
            return joined;
        },
        "Unable to read existing file;Unable to save settings3;", "Unable to read existing file;");
    EXPECT_EQ(S_IFIFO, stat_of(fx.host("/fifo")).st_mode & S_IFMT);
    gsize length = 0;
    EXPECT_EQ(fx.read("/huge"), take(key_file_to_data(kf.get(), &length)));

    // The densest file still loaded: a comment line for every two bytes.
    std::string dense;
    while (dense.size() + 2 <= tq::kKeyFileMax)
        dense += "#\n";
    fx.write("/dense.ini", dense);
    const tqtest::BoundedCall got = tqtest::bounded_call(
        [&kf] { return (load("/dense.ini") ? "ok|" : "<null>|") + std::to_string(save(kf.get(), "/dense.ini").size()); });
    EXPECT_EQ("ok|0", got.answer); // loaded, and compared before it is replaced
    EXPECT_TRUE(tqtest::within_memory_bound(got.grown_kib));
}

TEST(KeyFile, AReplacedFileKeepsItsModeAndOwnerAndANewOneIsNeverWritableByOthers)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    // umask, mode of the file before the save (0: none there), mode after it.
    for (auto [mask, before, after] : {std::tuple{0u, 0u, 0644u}, {077u, 0u, 0600u}, {022u, 0600u, 0600u}, {0u, 0640u, 0640u}}) {
        const std::string path = "/m" + std::to_string(mask) + "-" + std::to_string(before) + ".ini";
        if (before)
            fx.write(path, "[Old]\n", before);
        const mode_t saved = ::umask(mask);
        EXPECT_EQ(save(kf.get(), path), Lines{});
        ::umask(saved);
        EXPECT_EQ(stat_of(fx.host(path)).st_mode & 07777, after) << path;
    }
    EXPECT_TRUE(leaks.clean());

    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can save a file that another user owns";
    fx.write("/theirs.ini", "[Old]\n", 0600);
    ASSERT_EQ(::chown(fx.host("/theirs.ini").c_str(), 65534, 65534), 0);
    EXPECT_EQ(save(kf.get(), "/theirs.ini"), Lines{});
    const struct stat st = stat_of(fx.host("/theirs.ini"));
    EXPECT_EQ(std::tuple(st.st_uid, st.st_gid, st.st_mode & 07777), std::tuple(65534u, 65534u, 0600u));
    EXPECT_TRUE(contains(fx.read("/theirs.ini"), "[General]"));
}

} // namespace
