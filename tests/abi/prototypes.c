// SPDX-License-Identifier: LGPL-2.1-or-later
// The exported names with their expected types, written out once more: a
// changed return or parameter type stops this file from compiling, in every
// build (the abidiff check of scripts/abi-dump.sh needs a build of its own and
// runs in CI). A deliberate ABI change updates this table, the ABI baseline and
// the symbols file together.
#include <stdio.h>

#include "tavro-quenda.h"

#define TQ_PROTOTYPE(name, ret, args)                                                        \
    _Static_assert(__builtin_types_compatible_p(__typeof__(&name), ret(*) args),           \
                   #name " changed its prototype");                                          \
    static ret(*const tq_check_##name) args = &name;

TQ_PROTOTYPE(quenda_trace, int, (const char *, ...))
TQ_PROTOTYPE(quenda_logger_env_init, bool, (void))
TQ_PROTOTYPE(quenda_is_tracing, bool, (void))
TQ_PROTOTYPE(time_string, char *, (void))
TQ_PROTOTYPE(log_write, void, (const char *, const char *, const char *, int))
TQ_PROTOTYPE(toLowerCase, void, (char *))
TQ_PROTOTYPE(removeSpaces, void, (char *))
TQ_PROTOTYPE(removeSpecialChar, void, (char *))
TQ_PROTOTYPE(removeSpacesTabs, void, (char *))
TQ_PROTOTYPE(remove_null_chars, void, (char *, size_t))
TQ_PROTOTYPE(find_string, char *, (const char *, const char *))
TQ_PROTOTYPE(file_stat, int, (const char *, int))
TQ_PROTOTYPE(remove_directory, void, (const char *))
TQ_PROTOTYPE(redirect_stdio, void, (void))
TQ_PROTOTYPE(tavro_quenda_get_harddisk_id, char *, (void))
TQ_PROTOTYPE(root_device, char *, (void))
TQ_PROTOTYPE(command_line_get_root_device_name, char *, (const char *))
TQ_PROTOTYPE(get_lsblk_output, char *, (void))
TQ_PROTOTYPE(find_root_disk, char *, (const char *))
TQ_PROTOTYPE(harddisk_id, char *, (const char *))
TQ_PROTOTYPE(harddisk_id_smartctl, char *, (const char *))
TQ_PROTOTYPE(harddisk_id_nvme_new, char *, (const char *))
TQ_PROTOTYPE(is_logical_volume, int, (const char *))
TQ_PROTOTYPE(harddisk_id_lvm, char *, (const char *))
TQ_PROTOTYPE(tavro_quenda_get_network_interface_max_mac, char *, (void))
TQ_PROTOTYPE(network_interface_get_max_mac, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_system_uuid, char *, (void))
TQ_PROTOTYPE(system_uuid, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_service_tag, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_product_serial, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_vendor, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_model, char *, (void))
TQ_PROTOTYPE(get_service_tag_from_sysfs, char *, (const char *))
TQ_PROTOTYPE(get_service_tag_from_dmidecode, char *, (const char *))
TQ_PROTOTYPE(get_machine_info_from_sysfs, char *, (const char *))
TQ_PROTOTYPE(get_machine_info_from_dmidecode, char *, (const char *))
TQ_PROTOTYPE(is_huawei_9x0, int, (void))
TQ_PROTOTYPE(is_lenovo_machine, int, (void))
TQ_PROTOTYPE(hw_oem_info, char *, (void))
TQ_PROTOTYPE(tavro_quenda_get_hw_oeminfo, char *, (void))
TQ_PROTOTYPE(base64_encode, int, (const unsigned char *, uint32_t, char *, uint32_t *))
TQ_PROTOTYPE(base64_decode, int, (const char *, uint32_t, unsigned char *, uint32_t *))
TQ_PROTOTYPE(base64_decode_clean, unsigned char *, (const char *, int32_t *))
TQ_PROTOTYPE(transform_to_url, int, (const char *, int32_t, char *, uint32_t *))
TQ_PROTOTYPE(transform_from_url, int, (const char *, int32_t, char *, uint32_t *))
TQ_PROTOTYPE(file_check_sha256, int, (const char *, const char *))
TQ_PROTOTYPE(file_check_sha1, int, (const char *, const char *))
TQ_PROTOTYPE(file_check_md5, int, (const char *, const char *))
TQ_PROTOTYPE(compute_sha256, bool, (const char *, unsigned char *))
TQ_PROTOTYPE(load_public_key, RSA *, (const char *))
TQ_PROTOTYPE(verify_signature, int, (const char *, const char *))
TQ_PROTOTYPE(tavro_quenda_rsa_check, int, (const char *, const char *))
TQ_PROTOTYPE(gpg_verify_cmd, int32_t, (const char *, char **, size_t *))
TQ_PROTOTYPE(gpg_verify_cmd_cached, int32_t, (const char *, char **, size_t *))
TQ_PROTOTYPE(gpg_verify, int32_t, (const char *, char **, size_t *))
TQ_PROTOTYPE(gpg_encrypt, int32_t, (const char *, char **, size_t *))
TQ_PROTOTYPE(extract_signed_message, int32_t, (const char *, char *, size_t *))
TQ_PROTOTYPE(write_temp_pubkey, char *, (void))
TQ_PROTOTYPE(run_verify, int32_t, (const char *, const char *))
TQ_PROTOTYPE(get_custom_info, char *, (const char *, size_t *))
TQ_PROTOTYPE(key_file_load_from_file, GKeyFile *, (const char *))
TQ_PROTOTYPE(key_file_get_value, gchar *, (GKeyFile *, const char *, const char *))
TQ_PROTOTYPE(key_file_set_value, void, (GKeyFile *, const char *, const char *, const char *))
TQ_PROTOTYPE(key_file_to_data, gchar *, (GKeyFile *, gsize *))
TQ_PROTOTYPE(key_file_save_to_file, void, (GKeyFile *, const char *))
TQ_PROTOTYPE(tavro_aes_encrypt, int32_t, (const char *, unsigned char *, uint32_t))
TQ_PROTOTYPE(tavro_aes_decrypt, int32_t, (const unsigned char *, unsigned char *, uint32_t))
TQ_PROTOTYPE(read_decrypt_file_to_str, char *, (const char *))
_Static_assert(__builtin_types_compatible_p(__typeof__(g_vex_key), const unsigned char[16]),
               "g_vex_key changed its type");

int main(void)
{
    // Taking every address makes the linker resolve each name in the library.
    const void *const resolved[] = {
        (const void *)tq_check_quenda_trace,
        (const void *)tq_check_quenda_logger_env_init,
        (const void *)tq_check_quenda_is_tracing,
        (const void *)tq_check_time_string,
        (const void *)tq_check_log_write,
        (const void *)tq_check_toLowerCase,
        (const void *)tq_check_removeSpaces,
        (const void *)tq_check_removeSpecialChar,
        (const void *)tq_check_removeSpacesTabs,
        (const void *)tq_check_remove_null_chars,
        (const void *)tq_check_find_string,
        (const void *)tq_check_file_stat,
        (const void *)tq_check_remove_directory,
        (const void *)tq_check_redirect_stdio,
        (const void *)tq_check_tavro_quenda_get_harddisk_id,
        (const void *)tq_check_root_device,
        (const void *)tq_check_command_line_get_root_device_name,
        (const void *)tq_check_get_lsblk_output,
        (const void *)tq_check_find_root_disk,
        (const void *)tq_check_harddisk_id,
        (const void *)tq_check_harddisk_id_smartctl,
        (const void *)tq_check_harddisk_id_nvme_new,
        (const void *)tq_check_is_logical_volume,
        (const void *)tq_check_harddisk_id_lvm,
        (const void *)tq_check_tavro_quenda_get_network_interface_max_mac,
        (const void *)tq_check_network_interface_get_max_mac,
        (const void *)tq_check_tavro_quenda_get_system_uuid,
        (const void *)tq_check_system_uuid,
        (const void *)tq_check_tavro_quenda_get_service_tag,
        (const void *)tq_check_tavro_quenda_get_product_serial,
        (const void *)tq_check_tavro_quenda_get_vendor,
        (const void *)tq_check_tavro_quenda_get_model,
        (const void *)tq_check_get_service_tag_from_sysfs,
        (const void *)tq_check_get_service_tag_from_dmidecode,
        (const void *)tq_check_get_machine_info_from_sysfs,
        (const void *)tq_check_get_machine_info_from_dmidecode,
        (const void *)tq_check_is_huawei_9x0,
        (const void *)tq_check_is_lenovo_machine,
        (const void *)tq_check_hw_oem_info,
        (const void *)tq_check_tavro_quenda_get_hw_oeminfo,
        (const void *)tq_check_base64_encode,
        (const void *)tq_check_base64_decode,
        (const void *)tq_check_base64_decode_clean,
        (const void *)tq_check_transform_to_url,
        (const void *)tq_check_transform_from_url,
        (const void *)tq_check_file_check_sha256,
        (const void *)tq_check_file_check_sha1,
        (const void *)tq_check_file_check_md5,
        (const void *)tq_check_compute_sha256,
        (const void *)tq_check_load_public_key,
        (const void *)tq_check_verify_signature,
        (const void *)tq_check_tavro_quenda_rsa_check,
        (const void *)tq_check_gpg_verify_cmd,
        (const void *)tq_check_gpg_verify_cmd_cached,
        (const void *)tq_check_gpg_verify,
        (const void *)tq_check_gpg_encrypt,
        (const void *)tq_check_extract_signed_message,
        (const void *)tq_check_write_temp_pubkey,
        (const void *)tq_check_run_verify,
        (const void *)tq_check_get_custom_info,
        (const void *)tq_check_key_file_load_from_file,
        (const void *)tq_check_key_file_get_value,
        (const void *)tq_check_key_file_set_value,
        (const void *)tq_check_key_file_to_data,
        (const void *)tq_check_key_file_save_to_file,
        (const void *)tq_check_tavro_aes_encrypt,
        (const void *)tq_check_tavro_aes_decrypt,
        (const void *)tq_check_read_decrypt_file_to_str,
        g_vex_key,
    };
    size_t count = sizeof resolved / sizeof resolved[0];
    for (size_t i = 0; i < count; i++) {
        if (resolved[i] == NULL)
            return 1;
    }
    printf("%zu exported names have the expected types\n", count);
    return 0;
}
