// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * libtavro-quenda: machine identity and small-file protection for Linux.
 *
 * Every function here runs synchronously on the caller's thread.
 *
 * Ownership: every text result is a new heap string released with free(),
 * except where a comment says otherwise (GLib results from the key-file family
 * are released with g_free(), GKeyFile objects with g_key_file_free(); the
 * result of time_string() is static; find_string() points into its argument).
 * The string cleaners work in place.
 *
 * Results: fact getters return a string or NULL ("not found or failed");
 * predicates return 1 or 0; the data-integrity family returns 0 for success
 * and a small positive code for failure, as listed with each function.
 *
 * Helper programs run in a process group of their own with standard input and
 * standard error on /dev/null (their messages never reach the caller's
 * standard error) and for at most 30 seconds: past that the whole group is
 * killed and reaped, and the call fails as if the helper had failed.
 */
#ifndef TAVRO_QUENDA_H
#define TAVRO_QUENDA_H

/* The version of this header; the build refuses a mismatch with the library's. */
#define TAVRO_QUENDA_VERSION_MAJOR 1
#define TAVRO_QUENDA_VERSION_MINOR 0
#define TAVRO_QUENDA_VERSION_PATCH 0

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <glib.h>
#include <openssl/rsa.h>

#ifdef __cplusplus
#define TAVRO_QUENDA_NOEXCEPT noexcept
#else
#define TAVRO_QUENDA_NOEXCEPT
#endif

#if defined(__GNUC__)
#define TAVRO_QUENDA_API __attribute__((visibility("default")))
#define TAVRO_QUENDA_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define TAVRO_QUENDA_API
#define TAVRO_QUENDA_PRINTF(f, a)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Foundation: trace log
 *
 * quenda_trace() appends one line to /var/log/tavro-quenda/libtavro-quenda.log:
 * "<date> <time>.<ms> [<pid>]: <message>\n". Lines are written whole with one
 * write(), so concurrent processes and threads interleave whole lines. When the
 * log cannot be opened, standard error receives "Open log file failed: <reason>", once per process.
 * The log is refused, with that line, when it is a symbolic link, not a
 * regular file ("Not a regular file"), has more than one link ("Too many
 * links"), or, in a process running as root, belongs to another user ("Owned
 * by another user"). A log directory created here is mode 0755 whatever the
 * umask.
 * ------------------------------------------------------------------------ */

/* 1 when the log was opened and the line handed to it, 0 when nothing was written. */
TAVRO_QUENDA_API int quenda_trace(const char *format, ...) TAVRO_QUENDA_NOEXCEPT TAVRO_QUENDA_PRINTF(1, 2);
/* Creates the log directory (0755 whatever the umask; an existing one is left as it is); always true. */
TAVRO_QUENDA_API bool quenda_logger_env_init(void) TAVRO_QUENDA_NOEXCEPT;
/* Always true: tracing cannot be switched off. */
TAVRO_QUENDA_API bool quenda_is_tracing(void) TAVRO_QUENDA_NOEXCEPT;
/* "YYYY-MM-DD HH:MM:SS.mmm" in static storage: do not free; the next call overwrites it. */
TAVRO_QUENDA_API char *time_string(void) TAVRO_QUENDA_NOEXCEPT;
/* Appends "(tag) Time: <stamp>\t\tMessage: <message>\n" to path (mode 0640 when created).
 * Does nothing when enabled is 0. Conventional tags: "II", "WW", "EE".
 * Writes only into a regular file with a single link that, for a process
 * running as root, root owns; anything else (a FIFO, a device, a hard link)
 * is silently left alone, and the call never waits on a FIFO. */
TAVRO_QUENDA_API void log_write(const char *path, const char *message, const char *tag, int enabled) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Foundation: string, file and process helpers
 * ------------------------------------------------------------------------ */

/* In-place cleaners; each keeps the order of the bytes it keeps. */
/* Lower-cases ASCII A-Z only; NULL is ignored. */
TAVRO_QUENDA_API void toLowerCase(char *str) TAVRO_QUENDA_NOEXCEPT;
/* Drops ' ' and '\n'; NULL is ignored. */
TAVRO_QUENDA_API void removeSpaces(char *str) TAVRO_QUENDA_NOEXCEPT;
/* Drops ' ', '\n', '(' and ')'; NULL is ignored. */
TAVRO_QUENDA_API void removeSpecialChar(char *str) TAVRO_QUENDA_NOEXCEPT;
/* Drops ' ' and '\t'; str must not be NULL. */
TAVRO_QUENDA_API void removeSpacesTabs(char *str) TAVRO_QUENDA_NOEXCEPT;
/* Removes zero bytes from the first len bytes. The freed tail positions keep
 * copies of the range's last byte; place a terminator beyond the range to learn
 * the new length. buf must not be NULL. */
TAVRO_QUENDA_API void remove_null_chars(char *buf, size_t len) TAVRO_QUENDA_NOEXCEPT;
/* First occurrence of needle in haystack (not owned), or NULL. Neither may be NULL. */
TAVRO_QUENDA_API char *find_string(const char *haystack, const char *needle) TAVRO_QUENDA_NOEXCEPT;

/* The file's mode bits (links followed) ANDed with mask; 0 when it cannot be examined. */
TAVRO_QUENDA_API int file_stat(const char *path, int mask) TAVRO_QUENDA_NOEXCEPT;
/* Removes the tree below path, then path itself, as far as it can; symbolic
 * links are removed, never followed. Reports nothing. */
TAVRO_QUENDA_API void remove_directory(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* Opens every closed descriptor of 0, 1 and 2 on /dev/null; open ones are untouched. */
TAVRO_QUENDA_API void redirect_stdio(void) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Disk identity: "MODEL_SERIAL" of the disk that holds the root file system
 * ------------------------------------------------------------------------ */

TAVRO_QUENDA_API char *tavro_quenda_get_harddisk_id(void) TAVRO_QUENDA_NOEXCEPT;

/* Block device of the root file system (mount table, then kernel command line). */
TAVRO_QUENDA_API char *root_device(void) TAVRO_QUENDA_NOEXCEPT;
/* Device path named by the root= word of the kernel command line stored in path.
 * path must name a regular file (a FIFO, device or directory gives NULL); only
 * its first line is read, and a first line over 1 MiB gives NULL. */
TAVRO_QUENDA_API char *command_line_get_root_device_name(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* The whole standard output of "lsblk -J" (lsblk found through PATH; at most 16 MiB). */
TAVRO_QUENDA_API char *get_lsblk_output(void) TAVRO_QUENDA_NOEXCEPT;
/* Name (without /dev/) of the disk whose partition is mounted on "/", from lsblk JSON. */
TAVRO_QUENDA_API char *find_root_disk(const char *json) TAVRO_QUENDA_NOEXCEPT;

/* Identity by device-mapper, NVMe sysfs or ATA identify; may answer a node path
 * for a device-mapper device on a whole disk. */
TAVRO_QUENDA_API char *harddisk_id(const char *path) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *harddisk_id_smartctl(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* Up to 7 characters of the model of disk name (e.g. "nvme0n1"), read from
 * /sys/block/<name>/device/model in-process (no cat is run); an attribute that
 * is missing or not a regular file gives "". */
TAVRO_QUENDA_API char *harddisk_id_nvme_new(const char *name) TAVRO_QUENDA_NOEXCEPT;

/* 1 when lsblk calls path "lvm" (or prints nothing), else 0. */
TAVRO_QUENDA_API int is_logical_volume(const char *path) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *harddisk_id_lvm(const char *path) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Platform identity
 * ------------------------------------------------------------------------ */

/* Largest permanent MAC ("xx:xx:xx:xx:xx:xx") of the wired NICs and bonding
 * slaves; the first non-NULL answer is kept for the life of the process.
 * Interface device links are resolved with realpath(), not by running readlink. */
TAVRO_QUENDA_API char *tavro_quenda_get_network_interface_max_mac(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *network_interface_get_max_mac(void) TAVRO_QUENDA_NOEXCEPT;

/* SMBIOS system UUID as read, placeholder values rejected. The dmidecode
 * fallback pipes into grep, found through PATH. */
TAVRO_QUENDA_API char *tavro_quenda_get_system_uuid(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *system_uuid(void) TAVRO_QUENDA_NOEXCEPT;

/* Firmware facts: sysfs first, dmidecode when sysfs gives nothing. An empty
 * string is an answer. The dmidecode fallbacks pipe into grep and awk, found
 * through PATH. */
TAVRO_QUENDA_API char *tavro_quenda_get_service_tag(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *tavro_quenda_get_product_serial(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *tavro_quenda_get_vendor(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *tavro_quenda_get_model(void) TAVRO_QUENDA_NOEXCEPT;
/* First line of a file / of a shell command's output (the command runs only
 * when /usr/sbin/dmidecode is executable). The two pairs behave alike. The
 * file must be a regular file: a FIFO, device or directory gives NULL. The
 * command runs through /bin/sh under the helper time limit. */
TAVRO_QUENDA_API char *get_service_tag_from_sysfs(const char *path) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *get_service_tag_from_dmidecode(const char *command) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *get_machine_info_from_sysfs(const char *path) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *get_machine_info_from_dmidecode(const char *command) TAVRO_QUENDA_NOEXCEPT;

/* Machine family and OEM text. The dmidecode pipelines of is_lenovo_machine
 * and hw_oem_info use grep and awk, found through PATH. */
TAVRO_QUENDA_API int is_huawei_9x0(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int is_lenovo_machine(void) TAVRO_QUENDA_NOEXCEPT;
/* "SERIAL_PRODUCTNAME_CID"; "" when a part is unreadable; NULL without dmidecode. */
TAVRO_QUENDA_API char *hw_oem_info(void) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API char *tavro_quenda_get_hw_oeminfo(void) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Data integrity: Base64 and its percent-escaped URL form
 * Codes: 59 length not a multiple of 4; 60 byte outside the alphabet;
 * 61 misplaced '='; 62 bad encode arguments; 63 bad decode arguments;
 * 64 byte outside the URL alphabet; 65 bad from-URL arguments;
 * 66 '%' not starting %2B, %2F or %3D; 67 bad to-URL arguments.
 * ------------------------------------------------------------------------ */

/* out needs 4 * ceil(in_len / 3) bytes; no terminator is written. */
TAVRO_QUENDA_API int base64_encode(const unsigned char *in, uint32_t in_len, char *out, uint32_t *out_len) TAVRO_QUENDA_NOEXCEPT;
/* in must be NUL-terminated; out needs in_len bytes. */
TAVRO_QUENDA_API int base64_decode(const char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len) TAVRO_QUENDA_NOEXCEPT;
/* Ignores '\r', '\n' and ' '; prints "Cleaned Base64 (N chars): ..." on stdout.
 * Returns a malloc()ed buffer (no terminator) or NULL. */
TAVRO_QUENDA_API unsigned char *base64_decode_clean(const char *in, int32_t *out_len) TAVRO_QUENDA_NOEXCEPT;
/* out needs 3 * in_len + 1 bytes; output is NUL-terminated. */
TAVRO_QUENDA_API int transform_to_url(const char *in, int32_t in_len, char *out, uint32_t *out_len) TAVRO_QUENDA_NOEXCEPT;
/* out needs in_len + 1 bytes; output is NUL-terminated. */
TAVRO_QUENDA_API int transform_from_url(const char *in, int32_t in_len, char *out, uint32_t *out_len) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Data integrity: file digests and RSA-SHA256 checks
 * ------------------------------------------------------------------------ */

/* 1 when the file's digest, in lower-case hex, begins expected_hex; else 0.
 * Only a regular file or a block device is read (a FIFO or a character
 * device gives 0 at once); the file is streamed in constant memory. */
TAVRO_QUENDA_API int file_check_sha256(const char *path, const char *expected_hex) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int file_check_sha1(const char *path, const char *expected_hex) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int file_check_md5(const char *path, const char *expected_hex) TAVRO_QUENDA_NOEXCEPT;
/* SHA-256 of message without its terminator into digest[32]. */
TAVRO_QUENDA_API bool compute_sha256(const char *message, unsigned char *digest) TAVRO_QUENDA_NOEXCEPT;
/* An RSA public key in PEM, PKCS #1 ("RSA PUBLIC KEY") or SubjectPublicKeyInfo
 * ("PUBLIC KEY", as openssl rsa -pubout writes it); release with RSA_free() (deprecated in
 * OpenSSL 3: callers that use it define OPENSSL_API_COMPAT=0x10100000L).
 * Reads only a regular file of at most 1 MiB, once; anything else is NULL. */
TAVRO_QUENDA_API RSA *load_public_key(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* 1 for a good RSA-SHA256 PKCS #1 v1.5 signature (Base64) by /etc/tavro-quenda/public.pem. */
TAVRO_QUENDA_API int verify_signature(const char *message, const char *signature_b64) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int tavro_quenda_rsa_check(const char *message, const char *signature_b64) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Data integrity: OpenPGP verification and encryption (built-in trusted key)
 * Codes: 0 good; 1 gpg --verify failed; 14 key missing; 15 clock before the
 * key's creation; 16 no private home, key file, import or context, or gpg
 * could not run (such a 16 is never cached); 44 bad input
 * text; 45 encryption failed; 46 signer not trusted; 49 file unreadable;
 * 50 red summary; 51 bad signature; 52 other signature error; 53 unsigned;
 * 100 no output object.
 * ------------------------------------------------------------------------ */

/* Every OpenPGP function works in a private GnuPG home of its own holding the
 * trusted key alone, runs /usr/bin/gpg without a shell, and leaves the
 * process environment (GNUPGHOME), locale and signal dispositions as they
 * were. A signature by a valid signing subkey of the trusted key counts as
 * the key's; a signature over no text is a failure (1).
 *
 * gpg_verify_cmd and gpg_verify_cmd_cached read the file once (a regular file
 * of at most 4 MiB; anything else gives 1) and have gpg verify a private copy
 * of those bytes, so a file changed during the call cannot change the answer;
 * the cache is keyed on those bytes too. Unlike a body cut out of the file,
 * the text handed back (at most 4095 bytes) is the one gpg wrote out for the
 * signature it checked: trailing blanks, CRs, dash escapes and extra armour
 * headers that the signature does not cover cannot change it.
 * A file that holds anything but one clear-signed message (text before or
 * after it, a second message, a marker that is not alone at the start of its
 * line) gives 1 even when gpg accepts a signature in it. A signed file with no
 * clear-signing armour at all keeps result 0 with no content. */
TAVRO_QUENDA_API int32_t gpg_verify_cmd(const char *path, char **content, size_t *content_len) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int32_t gpg_verify_cmd_cached(const char *path, char **content, size_t *content_len) TAVRO_QUENDA_NOEXCEPT;
/* Streams a regular file to gpg (49 for a FIFO, a device or an unreadable
 * path) and keeps at most 4097 bytes of the signed text in memory. Unlike a
 * GPGME set-up through GNUPGHOME, the private home is given to the GPGME
 * context alone; without one the result is 16, never the caller's home. */
TAVRO_QUENDA_API int32_t gpg_verify(const char *path, char **content, size_t *content_len) TAVRO_QUENDA_NOEXCEPT;
/* Encrypts to the trusted key alone, in a private home of its own: unlike the
 * caller's home, no gpg.conf there can add a recipient. */
TAVRO_QUENDA_API int32_t gpg_encrypt(const char *text, char **armoured, size_t *armoured_len) TAVRO_QUENDA_NOEXCEPT;
/* Body of a clear-signed message into body (terminated); 0 or -1. */
TAVRO_QUENDA_API int32_t extract_signed_message(const char *text, char *body, size_t *body_len) TAVRO_QUENDA_NOEXCEPT;
/* Path of a new temporary file holding the trusted key, or NULL. */
TAVRO_QUENDA_API char *write_temp_pubkey(void) TAVRO_QUENDA_NOEXCEPT;
/* 1 when "gpg --verify" of path succeeds in homedir, else 0. Only a regular
 * file of at most 4 MiB is handed to gpg; anything else is 0 at once. */
TAVRO_QUENDA_API int32_t run_verify(const char *homedir, const char *path) TAVRO_QUENDA_NOEXCEPT;
/* Body of the clear-signed file at path in a 4096-byte buffer, or NULL.
 * Reads at most the first 4095 bytes of a regular file; anything else is NULL. */
TAVRO_QUENDA_API char *get_custom_info(const char *path, size_t *body_len) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Data integrity: INI key files (GLib GKeyFile)
 * ------------------------------------------------------------------------ */

/* Loads a regular file of at most 256 KiB, read once; anything else is NULL. */
TAVRO_QUENDA_API GKeyFile *key_file_load_from_file(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* Raw value (g_free it), or NULL when the group or key is absent. */
TAVRO_QUENDA_API gchar *key_file_get_value(GKeyFile *key_file, const char *group, const char *key) TAVRO_QUENDA_NOEXCEPT;
/* Sets the raw value. A group, key or value holding CR or LF is refused:
 * nothing is set, and the trace says why. */
TAVRO_QUENDA_API void key_file_set_value(GKeyFile *key_file, const char *group, const char *key,
                                         const char *value) TAVRO_QUENDA_NOEXCEPT;
/* Serialised file (g_free it); its length in *length. */
TAVRO_QUENDA_API gchar *key_file_to_data(GKeyFile *key_file, gsize *length) TAVRO_QUENDA_NOEXCEPT;
/* Writes path only when its content would change. An existing file is read
 * back only when it is a regular file of at most 256 KiB; a larger one is
 * replaced without comparing, and a FIFO, device or directory there is left
 * alone with the "Unable to save settings3" warning. The file is replaced
 * atomically (a new file beside it, renamed over it; a link there is replaced,
 * not followed); a replaced file keeps its mode and owner (the save fails when
 * the owner cannot be kept), and a new file is 0644 less the umask, never
 * writable by group or others. */
TAVRO_QUENDA_API void key_file_save_to_file(GKeyFile *key_file, const char *path) TAVRO_QUENDA_NOEXCEPT;

/* ------------------------------------------------------------------------
 * Data integrity: AES-128-CBC records
 * ------------------------------------------------------------------------ */

/* Ciphertext length (16 * ceil((strlen(text) + 1) / 16)), or -1 for a text of
 * 1024 characters or more, or an out_size below that length (nothing written).
 * text is read only up to its terminating zero. */
TAVRO_QUENDA_API int32_t tavro_aes_encrypt(const char *text, unsigned char *out, uint32_t out_size) TAVRO_QUENDA_NOEXCEPT;
TAVRO_QUENDA_API int32_t tavro_aes_decrypt(const unsigned char *in, unsigned char *out, uint32_t length) TAVRO_QUENDA_NOEXCEPT;
/* Decrypted text of the record file at path in a 1024-byte buffer, or NULL.
 * Only a regular file of at most 1024 bytes is read. */
TAVRO_QUENDA_API char *read_decrypt_file_to_str(const char *path) TAVRO_QUENDA_NOEXCEPT;
/* The 16-byte record key. */
TAVRO_QUENDA_API extern const unsigned char g_vex_key[16];

#ifdef __cplusplus
}
#endif

#endif /* TAVRO_QUENDA_H */
