// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary bytes as a key file: loading either fails or gives an object that
// serialises, reloads and saves without harm.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tavro-quenda.h"

namespace {

std::string dir;

void log_nothing(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char tmpl[] = "/tmp/tq-fuzz-keyfile-XXXXXX";
    if (!::mkdtemp(tmpl))
        std::abort();
    dir = tmpl;
    std::atexit([] { ::rmdir(dir.c_str()); });
    g_log_set_default_handler(log_nothing, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string path = dir + "/in.ini";
    if (!g_file_set_contents(path.c_str(), reinterpret_cast<const gchar *>(data), static_cast<gssize>(size), nullptr))
        std::abort();
    GKeyFile *kf = key_file_load_from_file(path.c_str());
    if (kf) {
        gchar *value = key_file_get_value(kf, "General", "Name");
        g_free(value);
        key_file_set_value(kf, "General", "Name", "fuzz");
        gsize length = 0;
        g_free(key_file_to_data(kf, &length));
        std::string out = dir + "/out.ini";
        key_file_save_to_file(kf, out.c_str());
        key_file_save_to_file(kf, out.c_str());
        g_key_file_free(kf);
        ::unlink(out.c_str());
    }
    ::unlink(path.c_str());
    return 0;
}
