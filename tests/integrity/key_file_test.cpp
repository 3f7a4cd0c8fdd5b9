#include <glib.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fixture.h"
#include "leak_check.h"
#include "peer_tools.h"
#include "tavro-quenda.h"

namespace {

struct KeyFileFree {
    void operator()(GKeyFile *k) const { g_key_file_free(k); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

std::string take(gchar *s)
{
    if (!s)
        return "<null>";
    std::string out(s);
    g_free(s);
    return out;
}

// Collects what the library passes to g_log while alive.
class Warnings {
public:
    Warnings() { old_ = g_log_set_default_handler(&Warnings::record, this); }
    ~Warnings() { g_log_set_default_handler(old_, nullptr); }
    std::vector<std::string> lines;

private:
    static void record(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer self)
    {
        if (domain == nullptr && (level & G_LOG_LEVEL_WARNING))
            static_cast<Warnings *>(self)->lines.push_back(message);
    }
    GLogFunc old_;
};

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

struct stat stat_of(const std::string &path)
{
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

TEST(KeyFile, ReadsRawValuesAndTellsAbsentFromEmpty)
{
    tqtest::TempDir dir;
    tqtest::write_bytes(dir / "s.ini", kSettings);
    KeyFile kf(key_file_load_from_file((dir / "s.ini").c_str()));
    ASSERT_TRUE(kf);
    EXPECT_EQ(take(key_file_get_value(kf.get(), "General", "Interval")), "15");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "General", "Name[fr]")), "gardien");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "General", "Empty")), "");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "General", "Missing")), "<null>");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "Nowhere", "Interval")), "<null>");

    // Raw values: no unescaping or list parsing on the way in or out.
    key_file_set_value(kf.get(), "New", "List", "a;b;c\\n");
    EXPECT_EQ(take(key_file_get_value(kf.get(), "New", "List")), "a;b;c\\n");

    gsize length = 0;
    std::string data = take(key_file_to_data(kf.get(), &length));
    EXPECT_EQ(length, data.size());
    EXPECT_NE(data.find("[New]\nList=a;b;c\\n\n"), std::string::npos);
}

TEST(KeyFile, RefusesFilesGLibCannotParse)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    tqtest::write_bytes(dir / "bad.ini", "[General]\nthis line is neither\n");
    EXPECT_EQ(key_file_load_from_file((dir / "bad.ini").c_str()), nullptr);
    EXPECT_EQ(key_file_load_from_file((dir / "missing.ini").c_str()), nullptr);
    EXPECT_EQ(key_file_load_from_file(nullptr), nullptr);
    EXPECT_TRUE(leaks.clean());
}

TEST(KeyFile, InteroperatesWithGLibAndKeepsComments)
{
    tqtest::TempDir dir;
    tqtest::write_bytes(dir / "s.ini", kSettings);
    KeyFile ours(key_file_load_from_file((dir / "s.ini").c_str()));
    ASSERT_TRUE(ours);
    key_file_set_value(ours.get(), "General", "Interval", "30");
    key_file_save_to_file(ours.get(), (dir / "s.ini").c_str());

    std::string text = tqtest::read_file(dir / "s.ini");
    EXPECT_NE(text.find("# Settings of the record keeper\n"), std::string::npos);
    EXPECT_NE(text.find("# how often, in minutes\nInterval=30\n"), std::string::npos);
    EXPECT_NE(text.find("Name[fr]=gardien\n"), std::string::npos);

    // GLib reads what the library wrote ...
    KeyFile glib(g_key_file_new());
    ASSERT_TRUE(g_key_file_load_from_file(glib.get(), (dir / "s.ini").c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr));
    EXPECT_EQ(take(g_key_file_get_value(glib.get(), "General", "Interval", nullptr)), "30");
    EXPECT_EQ(take(g_key_file_get_comment(glib.get(), "General", "Interval", nullptr)), " how often, in minutes");

    // ... and the library reads what GLib wrote.
    g_key_file_set_value(glib.get(), "Paths", "Store", "/srv/keeper");
    ASSERT_TRUE(g_key_file_save_to_file(glib.get(), (dir / "g.ini").c_str(), nullptr));
    KeyFile back(key_file_load_from_file((dir / "g.ini").c_str()));
    ASSERT_TRUE(back);
    EXPECT_EQ(take(key_file_get_value(back.get(), "Paths", "Store")), "/srv/keeper");
    EXPECT_EQ(take(key_file_get_value(back.get(), "General", "Interval")), "30");
}

TEST(KeyFile, SavesOnlyWhenTheBytesChange)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    Warnings warnings;
    std::string path = dir / "s.ini";
    tqtest::write_bytes(path, kSettings);
    KeyFile kf(key_file_load_from_file(path.c_str()));
    ASSERT_TRUE(kf);

    // First save to a new path creates the file.
    std::string copy = dir / "copy.ini";
    key_file_save_to_file(kf.get(), copy.c_str());
    ASSERT_TRUE(std::filesystem::exists(copy));

    // An identical file is left alone: same inode, same (back-dated) mtime.
    struct timespec old_times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, copy.c_str(), old_times, 0), 0);
    struct stat before = stat_of(copy);
    key_file_save_to_file(kf.get(), copy.c_str());
    struct stat after = stat_of(copy);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mtim.tv_sec, 1000000000);

    // A change rewrites it, through a new file renamed over the old one.
    key_file_set_value(kf.get(), "General", "Interval", "16");
    key_file_save_to_file(kf.get(), copy.c_str());
    struct stat changed = stat_of(copy);
    EXPECT_NE(changed.st_mtim.tv_sec, 1000000000);
    EXPECT_NE(tqtest::read_file(copy).find("Interval=16\n"), std::string::npos);

    // Same length, different bytes: still rewritten.
    key_file_set_value(kf.get(), "General", "Interval", "17");
    key_file_save_to_file(kf.get(), copy.c_str());
    EXPECT_NE(tqtest::read_file(copy).find("Interval=17\n"), std::string::npos);
    EXPECT_TRUE(warnings.lines.empty());
    EXPECT_TRUE(leaks.clean());
}

TEST(KeyFile, FailedSavesWarnAndWriteNothing)
{
    tqtest::TempDir dir;
    tqtest::write_bytes(dir / "s.ini", kSettings);
    KeyFile kf(key_file_load_from_file((dir / "s.ini").c_str()));
    ASSERT_TRUE(kf);
    {
        Warnings warnings;
        key_file_save_to_file(kf.get(), (dir / "no/such/dir/s.ini").c_str());
        ASSERT_EQ(warnings.lines.size(), 1u);
        EXPECT_EQ(warnings.lines[0].rfind("Unable to save settings3: ", 0), 0u) << warnings.lines[0];
        EXPECT_FALSE(std::filesystem::exists(dir / "no"));
    }
    {
        // A directory in the way: it exists but cannot be read, nor replaced.
        std::filesystem::create_directory(dir / "d.ini");
        Warnings warnings;
        key_file_save_to_file(kf.get(), (dir / "d.ini").c_str());
        ASSERT_EQ(warnings.lines.size(), 2u);
        EXPECT_EQ(warnings.lines[0].rfind("Unable to read existing file " + dir / "d.ini" + ": ", 0), 0u)
            << warnings.lines[0];
        EXPECT_EQ(warnings.lines[1].rfind("Unable to save settings3: ", 0), 0u) << warnings.lines[1];
        EXPECT_TRUE(std::filesystem::is_directory(dir / "d.ini"));
    }
    // No stray temporary files from the failed attempts.
    size_t entries = 0;
    for (auto &e : std::filesystem::directory_iterator(dir.path()))
        entries += e.path().filename() != "s.ini" && e.path().filename() != "d.ini";
    EXPECT_EQ(entries, 0u);
    key_file_save_to_file(nullptr, (dir / "x.ini").c_str());
    key_file_save_to_file(kf.get(), nullptr);
    EXPECT_FALSE(std::filesystem::exists(dir / "x.ini"));
}

TEST(KeyFile, PathsFollowTheLibraryRoot)
{
    tqtest::Fixture fixture;
    fixture.write("/etc/keeper/s.ini", kSettings);
    KeyFile kf(key_file_load_from_file("/etc/keeper/s.ini"));
    ASSERT_TRUE(kf);
    key_file_set_value(kf.get(), "General", "Interval", "5");
    key_file_save_to_file(kf.get(), "/etc/keeper/s.ini");
    EXPECT_NE(fixture.read("/etc/keeper/s.ini").find("Interval=5\n"), std::string::npos);
}

} // namespace
