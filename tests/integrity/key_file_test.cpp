// SPDX-License-Identifier: LGPL-2.1-or-later
#include <glib.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bounded_call.h"
#include "fixture.h"
#include "integrity/key_file.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace {

using tqtest::contains;
using tqtest::take;

struct KeyFileFree {
    void operator()(GKeyFile *k) const { g_key_file_free(k); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

const char *const kSettings = "# Settings of the record keeper\n"
                              "[General]\n"
                              "# how often, in minutes\n"
                              "Interval=15\n"
                              "Name=keeper\n"
                              "Name[fr]=gardien\n"
                              "Empty=\n"
                              "\n"
                              "[Paths]\n"
                              "Store=/var/lib/keeper\n";

// kSettings written to path (under the library's root) and loaded by the library.
KeyFile load_settings(tqtest::Fixture &fx, const std::string &path)
{
    fx.write(path, kSettings);
    return KeyFile(key_file_load_from_file(path.c_str()));
}

using Lines = std::vector<std::string>;

// The g_log warnings of one save, each up to the ": " that precedes GLib's own message.
Lines save(GKeyFile *kf, const std::string &path)
{
    Lines warnings;
    GLogFunc old = g_log_set_default_handler(
        [](const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer out) {
            std::string text = message;
            if (domain == nullptr && (level & G_LOG_LEVEL_WARNING))
                static_cast<Lines *>(out)->push_back(text.substr(0, text.find(": ")));
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

TEST(KeyFile, ReadsRawValuesTellsAbsentFromEmptyAndRefusesBadFiles)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    const struct {
        const char *group, *key, *want;
    } cases[] = {{"General", "Interval", "15"}, {"General", "Name[fr]", "gardien"}, {"General", "Empty", ""},
                 {"General", "Missing", "<null>"}, {"Nowhere", "Interval", "<null>"}};
    for (const auto &c : cases)
        EXPECT_EQ(take(key_file_get_value(kf.get(), c.group, c.key)), c.want) << c.group << "/" << c.key;

    // Raw values: no unescaping or list parsing on the way in or out.
    key_file_set_value(kf.get(), "New", "List", "a;b;c\\n");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "New", "List")), "a;b;c\\n");
    gsize length = 0;
    std::string data = take(key_file_to_data(kf.get(), &length));
    EXPECT_EQ(length, data.size());
    EXPECT_TRUE(contains(data, "[New]\nList=a;b;c\\n\n"));

    fx.write("/bad.ini", "[General]\nthis line is neither\n");
    for (const char *path : {"/bad.ini", "/missing.ini", static_cast<const char *>(nullptr)})
        EXPECT_EQ(key_file_load_from_file(path), nullptr) << (path ? path : "-");
    EXPECT_TRUE(leaks.clean());
}

TEST(KeyFile, InteroperatesWithGLibAndKeepsComments)
{
    tqtest::Fixture fx;
    KeyFile ours = load_settings(fx, "/s.ini");
    ASSERT_TRUE(ours);
    key_file_set_value(ours.get(), "General", "Interval", "30");
    EXPECT_EQ(save(ours.get(), "/s.ini"), Lines{});
    std::string text = fx.read("/s.ini");
    for (const char *kept :
         {"# Settings of the record keeper\n", "# how often, in minutes\nInterval=30\n", "Name[fr]=gardien\n"})
        EXPECT_TRUE(contains(text, kept)) << kept;

    // GLib reads what the library wrote ...
    KeyFile glib(g_key_file_new());
    ASSERT_TRUE(g_key_file_load_from_file(glib.get(), fx.host("/s.ini").c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr));
    EXPECT_EQ(take(g_key_file_get_value(glib.get(), "General", "Interval", nullptr)), "30");
    EXPECT_EQ(take(g_key_file_get_comment(glib.get(), "General", "Interval", nullptr)), " how often, in minutes");

    // ... and the library reads what GLib wrote.
    g_key_file_set_value(glib.get(), "Paths", "Store", "/srv/keeper");
    ASSERT_TRUE(g_key_file_save_to_file(glib.get(), fx.host("/g.ini").c_str(), nullptr));
    KeyFile back(key_file_load_from_file("/g.ini"));
    ASSERT_TRUE(back);
    EXPECT_EQ(take(key_file_get_value(back.get(), "Paths", "Store")), "/srv/keeper");
    EXPECT_EQ(take(key_file_get_value(back.get(), "General", "Interval")), "30");
}

TEST(KeyFile, SavesOnlyChangedBytesAndWarnsWhenItCannot)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    // First save to a new path creates the file.
    const std::string copy = fx.host("/copy.ini");
    EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
    ASSERT_TRUE(std::filesystem::exists(copy));

    // An identical file is left alone: same inode, same (back-dated) mtime.
    struct timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, copy.c_str(), old_times, 0), 0);
    const ino_t inode = stat_of(copy).st_ino;
    EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
    EXPECT_EQ(stat_of(copy).st_ino, inode);
    EXPECT_EQ(stat_of(copy).st_mtim.tv_sec, 1000000000);

    // A change rewrites it, also one that keeps the length.
    for (std::string interval : {"16", "17"}) {
        key_file_set_value(kf.get(), "General", "Interval", interval.c_str());
        EXPECT_EQ(save(kf.get(), "/copy.ini"), Lines{});
        EXPECT_NE(stat_of(copy).st_mtim.tv_sec, 1000000000);
        EXPECT_TRUE(contains(fx.read("/copy.ini"), "Interval=" + interval + "\n"));
    }

    // Failures warn and write nothing: a missing directory, a directory in the
    // way (it exists but cannot be read, nor replaced), null arguments.
    EXPECT_EQ(save(kf.get(), "/no/such/dir/s.ini"), Lines{"Unable to save settings3"});
    fx.mkdir("/d.ini");
    EXPECT_EQ(save(kf.get(), "/d.ini"), (Lines{"Unable to read existing file /d.ini", "Unable to save settings3"}));
    EXPECT_TRUE(std::filesystem::is_directory(fx.host("/d.ini")));
    key_file_save_to_file(nullptr, "/x.ini");
    key_file_save_to_file(kf.get(), nullptr);
    // No stray temporary files either.
    Lines entries;
    for (auto &e : std::filesystem::directory_iterator(fx.host("/")))
        entries.push_back(e.path().filename());
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (Lines{"copy.ini", "d.ini", "s.ini", "var"}));
    EXPECT_TRUE(leaks.clean());
}

TEST(KeyFile, AFifoADeviceOrAHugeFileIsNeitherWaitedOnNorTakenIntoMemory)
{
    tqtest::Fixture fx;
    ASSERT_TRUE(tqtest::make_fifo_and_zero(fx.host("/fifo.ini"), fx.host("/zero.ini")));
    ASSERT_TRUE(tqtest::make_sparse(fx.host("/huge.ini"), tqtest::kHugeFile));
    // The densest file still loaded: a comment line for every two bytes.
    std::string dense;
    for (size_t i = 0; dense.size() + 2 <= tq::kKeyFileMax; ++i)
        dense += "#\n";
    fx.write("/dense.ini", dense);
    KeyFile kf = load_settings(fx, "/s.ini");
    ASSERT_TRUE(kf);
    const auto load = [](const std::string &path) {
        KeyFile loaded(key_file_load_from_file(path.c_str()));
        return std::string(loaded ? "loaded" : "<null>");
    };
    const auto save_lines = [&kf](const std::string &path) {
        std::string joined;
        for (const std::string &line : save(kf.get(), path))
            joined += line + ";";
        return joined;
    };
    const struct {
        const char *path;
        std::string loaded, saved;
    } rows[] = {
        // Neither read nor replaced.
        {"/fifo.ini", "<null>", "Unable to read existing file /fifo.ini;Unable to save settings3;"},
        {"/zero.ini", "<null>", "Unable to read existing file /zero.ini;Unable to save settings3;"},
        // Too large to be a key file: not loaded, not compared, but replaced.
        {"/huge.ini", "<null>", "Unable to read existing file /huge.ini;"},
        {"/dense.ini", "loaded", ""},
    };
    for (const auto &row : rows) {
        for (const auto &[call, want] : {std::pair{std::function<std::string(const std::string &)>(load), row.loaded},
                                         std::pair{std::function<std::string(const std::string &)>(save_lines),
                                                   row.saved}}) {
            const tqtest::BoundedCall got = tqtest::bounded_call([&] { return call(row.path); });
            EXPECT_EQ(want, got.answer) << row.path;
            EXPECT_TRUE(tqtest::within_memory_bound(got.grown_kib)) << row.path;
        }
    }
    EXPECT_EQ(S_IFIFO, stat_of(fx.host("/fifo.ini")).st_mode & S_IFMT);
    gsize length = 0;
    EXPECT_EQ(fx.read("/huge.ini"), take(key_file_to_data(kf.get(), &length)));
}

} // namespace
