// SPDX-License-Identifier: LGPL-2.1-or-later
// INI key files through GLib's GKeyFile, with comments and translations kept,
// and a save that leaves the file alone when its bytes would not change.
#include <glib.h>

#include <cstring>
#include <memory>
#include <string>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

struct GFreeDeleter {
    void operator()(gpointer p) const noexcept { g_free(p); }
};
using UniqueGChars = std::unique_ptr<gchar, GFreeDeleter>;

struct GKeyFileDeleter {
    void operator()(GKeyFile *k) const noexcept { g_key_file_free(k); }
};
using UniqueKeyFile = std::unique_ptr<GKeyFile, GKeyFileDeleter>;

// Takes ownership of whatever GLib stored in the GError ** it was handed.
class ErrorSlot {
public:
    GError **out() noexcept { return &raw_; }
    const char *message() const noexcept { return raw_ && raw_->message ? raw_->message : ""; }
    ErrorSlot() = default;
    ErrorSlot(const ErrorSlot &) = delete;
    ErrorSlot &operator=(const ErrorSlot &) = delete;
    ~ErrorSlot()
    {
        if (raw_)
            g_error_free(raw_);
    }

private:
    GError *raw_ = nullptr;
};

} // namespace
} // namespace tq

extern "C" {

GKeyFile *key_file_load_from_file(const char *path) noexcept
{
    if (!path)
        return nullptr;
    return tq::guarded<GKeyFile *>(nullptr, [&]() -> GKeyFile * {
        std::string host = tq::os::host_path(path);
        tq::UniqueKeyFile key_file(g_key_file_new());
        tq::ErrorSlot error;
        if (!g_key_file_load_from_file(key_file.get(), host.c_str(),
                                       static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS |
                                                                  G_KEY_FILE_KEEP_TRANSLATIONS),
                                       error.out()))
            return nullptr;
        return key_file.release();
    });
}

gchar *key_file_get_value(GKeyFile *key_file, const char *group, const char *key) noexcept
{
    if (!key_file || !group || !key)
        return nullptr;
    if (!g_key_file_has_group(key_file, group) || !g_key_file_has_key(key_file, group, key, nullptr))
        return nullptr;
    return g_key_file_get_value(key_file, group, key, nullptr);
}

void key_file_set_value(GKeyFile *key_file, const char *group, const char *key, const char *value) noexcept
{
    if (!key_file || !group || !key || !value)
        return;
    g_key_file_set_value(key_file, group, key, value);
}

gchar *key_file_to_data(GKeyFile *key_file, gsize *length) noexcept
{
    if (!key_file)
        return nullptr;
    return g_key_file_to_data(key_file, length, nullptr);
}

void key_file_save_to_file(GKeyFile *key_file, const char *path) noexcept
{
    if (!key_file || !path)
        return;
    tq::guarded_void([&] {
        gsize length = 0;
        tq::ErrorSlot to_data_error;
        tq::UniqueGChars data(g_key_file_to_data(key_file, &length, to_data_error.out()));
        if (!data) {
            g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to save settings2: %s", to_data_error.message());
            return;
        }

        std::string host = tq::os::host_path(path);
        if (g_file_test(host.c_str(), G_FILE_TEST_EXISTS)) {
            gchar *raw = nullptr;
            gsize old_length = 0;
            tq::ErrorSlot read_error;
            bool read = g_file_get_contents(host.c_str(), &raw, &old_length, read_error.out());
            tq::UniqueGChars old(raw);
            if (!read)
                g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to read existing file %s: %s", path, read_error.message());
            else if (old_length == length && std::memcmp(old.get(), data.get(), length) == 0)
                return; // unchanged: keep the file, its inode and its mtime
        }

        tq::ErrorSlot write_error;
        if (!g_file_set_contents(host.c_str(), data.get(), static_cast<gssize>(length), write_error.out()))
            g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to save settings3: %s", write_error.message());
    });
}

} // extern "C"
