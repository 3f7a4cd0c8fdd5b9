// SPDX-License-Identifier: LGPL-2.1-or-later
/* A plain C user of the library: includes the public header and links
 * through pkg-config. */
#include <tavro-quenda.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void)
{
    char text[] = " a (b)\n";
    removeSpecialChar(text);
    if (strcmp(text, "ab") != 0)
        return 1;

    char encoded[8] = {0};
    uint32_t length = 0;
    if (base64_encode((const unsigned char *)"abc", 3, encoded, &length) != 0 || length != 4 ||
        strcmp(encoded, "YWJj") != 0)
        return 2;

    GKeyFile *keys = g_key_file_new();
    key_file_set_value(keys, "identity", "checked", "yes");
    gchar *value = key_file_get_value(keys, "identity", "checked");
    int ok = value && strcmp(value, "yes") == 0;
    g_free(value);
    g_key_file_free(keys);
    if (!ok)
        return 3;

    if (g_vex_key[0] == 0)
        return 4;
    printf("C consumer: ok (%s)\n", time_string());
    return 0;
}
