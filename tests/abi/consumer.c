// SPDX-License-Identifier: LGPL-2.1-or-later
/* A plain C user of the library: includes the public header and links
 * through pkg-config. */
#include <tavro-quenda.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef void (*any_function)(void);

int main(void)
{
    /* One entry point of each family must resolve. */
    any_function entry_points[] = {
        (any_function)tavro_quenda_get_harddisk_id,
        (any_function)tavro_quenda_get_network_interface_max_mac,
        (any_function)tavro_quenda_get_system_uuid,
        (any_function)tavro_quenda_get_hw_oeminfo,
        (any_function)gpg_verify_cmd_cached,
        (any_function)tavro_quenda_rsa_check,
        (any_function)key_file_save_to_file,
        (any_function)read_decrypt_file_to_str,
    };
    for (size_t i = 0; i < sizeof(entry_points) / sizeof(entry_points[0]); ++i) {
        if (!entry_points[i])
            return 1;
    }

    char text[] = " a (b)\n";
    removeSpecialChar(text);
    if (strcmp(text, "ab") != 0)
        return 2;

    char encoded[8] = {0};
    uint32_t length = 0;
    if (base64_encode((const unsigned char *)"abc", 3, encoded, &length) != 0 || length != 4 ||
        strcmp(encoded, "YWJj") != 0)
        return 3;

    GKeyFile *keys = g_key_file_new();
    key_file_set_value(keys, "identity", "checked", "yes");
    gchar *value = key_file_get_value(keys, "identity", "checked");
    int ok = value && strcmp(value, "yes") == 0;
    g_free(value);
    g_key_file_free(keys);
    if (!ok)
        return 4;

    if (g_vex_key[0] == 0)
        return 5;
    printf("C consumer: ok (%s)\n", time_string());
    return 0;
}
