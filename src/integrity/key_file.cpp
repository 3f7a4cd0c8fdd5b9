// SPDX-License-Identifier: LGPL-2.1-or-later
// INI key files through GLib's GKeyFile, with comments and translations kept,
// and a save that leaves the file alone when its bytes would not change and
// otherwise replaces it atomically, keeping its mode and owner.
#include "integrity/key_file.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

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

// A temporary file that is removed again unless it was renamed into place.
class TempFile {
public:
    TempFile() = default;
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile()
    {
        if (!path.empty())
            os::unlink(path.c_str());
    }
    std::string path;
};

bool failed(std::string *why, const char *step)
{
    *why = std::string(step) + ": " + g_strerror(errno);
    return false;
}

// Writes data to a new file beside path, flushes it and renames it over path,
// so that readers see the old file or the new one, never a mix. An existing
// file (old) keeps its mode and owner; a new one gets 0644 less the umask, so
// it is never writable by group or others. On failure *why says what went
// wrong, and path is as it was.
bool replace_file(const char *path, const char *data, size_t length, const struct stat *old, std::string *why)
{
    TempFile temp;
    // Until it has the old file's owner, the copy is readable by its writer only.
    UniqueFD fd = os::create_beside(path, old ? 0600 : 0644, &temp.path);
    if (!fd)
        return failed(why, "cannot create a temporary file");
    if (!os::write_all(fd.get(), data, length))
        return failed(why, "cannot write");
    if (old) {
        struct stat now {};
        if (::fstat(fd.get(), &now) != 0)
            return failed(why, "cannot keep the owner");
        // Owner first: a change of owner clears the set-id bits that the mode restores.
        const uid_t uid = now.st_uid == old->st_uid ? static_cast<uid_t>(-1) : old->st_uid;
        const gid_t gid = now.st_gid == old->st_gid ? static_cast<gid_t>(-1) : old->st_gid;
        if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) && ::fchown(fd.get(), uid, gid) != 0)
            return failed(why, "cannot keep the owner");
        if (::fchmod(fd.get(), old->st_mode & 07777) != 0)
            return failed(why, "cannot keep the mode");
    }
    if (::fsync(fd.get()) != 0 || ::close(fd.release()) != 0)
        return failed(why, "cannot write");
    if (os::rename(temp.path.c_str(), path) != 0)
        return failed(why, "cannot replace the file");
    temp.path.clear();
    return true;
}

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

// Unlike GLib's raw setter, which stores any text, this refuses a group, key
// or value holding a line break (CR or LF): once saved, the text after it
// would be read back as keys or groups of its own. Nothing is set, and the
// trace says why. (A C string cannot hold a NUL.) Everything else is stored
// raw.
void key_file_set_value(GKeyFile *key_file, const char *group, const char *key, const char *value) noexcept
{
    if (!key_file || !group || !key || !value)
        return;
    for (auto [what, text] : {std::pair{"group", group}, {"key", key}, {"value", value}}) {
        if (std::strpbrk(text, "\r\n")) {
            quenda_trace("key_file_set_value: the %s holds a line break; nothing set", what);
            return;
        }
    }
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

        // Unlike a plain g_file_set_contents(), which gives the replacement
        // the default mode and the caller's ownership, a replaced file keeps
        // its mode and owner, and a new one is never writable by group or
        // others whatever the umask. The replacement stays atomic.
        struct stat old_stat {};
        bool have_old = false;
        std::string host = tq::os::host_path(path);
        if (g_file_test(host.c_str(), G_FILE_TEST_EXISTS)) {
            have_old = tq::os::stat(path, &old_stat) == 0 && S_ISREG(old_stat.st_mode);
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

        std::string why;
        if (!tq::replace_file(path, data.get(), length, have_old ? &old_stat : nullptr, &why))
            g_log(nullptr, G_LOG_LEVEL_WARNING, "Unable to save settings3: %s", why.c_str());
    });
}

} // extern "C"
