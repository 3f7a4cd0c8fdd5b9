// SPDX-License-Identifier: LGPL-2.1-or-later
// A plain C user of the library: includes the public header (and GLib's
// through it) and links through pkg-config.
#include <tavro-quenda.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    char encoded[8] = {0};
    uint32_t length = 0;
    GKeyFile *keys = g_key_file_new();
    key_file_set_value(keys, "identity", "checked", "yes");
    gchar *value = key_file_get_value(keys, "identity", "checked");
    int ok = base64_encode((const unsigned char *)"abc", 3, encoded, &length) == 0 && length == 4 &&
             strcmp(encoded, "YWJj") == 0 && value && strcmp(value, "yes") == 0 && g_vex_key[0] != 0;
    g_free(value);
    g_key_file_free(keys);
    printf("C consumer: %s (%s)\n", ok ? "ok" : "failed", time_string());
    return !ok;
}
