// SPDX-License-Identifier: LGPL-2.1-or-later
// INI key files through GLib's GKeyFile, with comments and translations kept,
// and a save that leaves the file alone when its bytes would not change.
#include "integrity/key_file.h"

#include <glib.h>

#include <cerrno>
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

GKeyFile *key_file_from_data(const char *data, size_t size) noexcept
{
    if (size > kKeyFileMax)
        return nullptr;
    UniqueKeyFile key_file(g_key_file_new());
    ErrorSlot error;
    if (!g_key_file_load_from_data(key_file.get(), data, size,
                                   static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS),
                                   error.out()))
        return nullptr;
    return key_file.release();
}

} // namespace tq

extern "C" {

GKeyFile *key_file_load_from_file(const char *path) noexcept
{
    if (!path)
        return nullptr;
    return tq::guarded<GKeyFile *>(nullptr, [&]() -> GKeyFile * {
        // Read once and bounded: a FIFO, a device or a huge file is refused.
        std::string bytes;
        if (!tq::os::read_input(path, tq::kKeyFileMax, &bytes))
            return nullptr;
        return tq::key_file_from_data(bytes.data(), bytes.size());
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
            // Only a regular file is read back, and only up to the size a key
            // file may have; anything else there is not replaced either.
            std::string old;
            tq::UniqueFD fd = tq::os::open_input(path);
            const bool regular = fd || errno != EINVAL;
            if (!fd || !tq::os::read_bounded(fd.get(), tq::kKeyFileMax, &old)) {
                g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to read existing file %s: %s", path,
                      regular ? g_strerror(errno) : "not a regular file");
                if (!regular) {
                    g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to save settings3: %s", "not a regular file");
                    return;
                }
            } else if (old.size() == length && std::memcmp(old.data(), data.get(), length) == 0)
                return; // unchanged: keep the file, its inode and its mtime
        }

        tq::ErrorSlot write_error;
        if (!g_file_set_contents(host.c_str(), data.get(), static_cast<gssize>(length), write_error.out()))
            g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to save settings3: %s", write_error.message());
    });
}

} // extern "C"
