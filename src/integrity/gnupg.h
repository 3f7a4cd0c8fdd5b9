// SPDX-License-Identifier: LGPL-2.1-or-later
// OpenPGP verification and encryption bound to the one compiled-in key:
// internal pieces behind gpg_verify_cmd, gpg_verify_cmd_cached, gpg_verify and
// gpg_encrypt.
#pragma once

#include <gpgme.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tq {

// The key signed files must be signed with; supplied at build time.
struct TrustedKey {
    const unsigned char *data; // the first `length` bytes are the key
    uint32_t length;
    const char *fingerprint; // 40 upper-case hex digits
    const char *key_id;      // its last 16 digits
    int64_t created;         // seconds since the epoch
};
inline constexpr size_t kTrustedKeyCount = 1;
extern const TrustedKey trusted_key[kTrustedKeyCount];

using Sha256Digest = std::array<unsigned char, 32>;

// One remembered verification of gpg_verify_cmd_cached.
struct GpgCacheEntry {
    std::string path; // cut to 4095 characters
    int64_t mtime = 0;
    Sha256Digest sha256{};
    int32_t result = 0;
    std::string content; // empty: no content was returned
    int64_t inserted = 0;
};
inline constexpr size_t kGpgCacheSize = 10;
inline constexpr size_t kGpgCachePathMax = 4095;

// True when text is one clear-signed message and nothing else: blank lines
// may surround it; each marker appears once, alone on its line.
bool single_clear_signed_message(std::string_view text) noexcept;

// The entry for path with this modification time and content digest, or null.
const GpgCacheEntry *gpg_cache_lookup(const char *path, int64_t mtime, const Sha256Digest &digest);
// Adds an entry, dropping the oldest when all places are taken.
void gpg_cache_insert(const char *path, int64_t mtime, const Sha256Digest &digest, int32_t result,
                      const char *content, size_t content_size);
// Number of entries held (for tests).
size_t gpg_cache_count() noexcept;

// Imports every trusted key into ctx's keyring; failures are ignored.
void import_trusted_keys(gpgme_ctx_t ctx) noexcept;
// True when a signature made by the key signing_fpr (a fingerprint, or the
// key ID a verifier gives when it lacks the key) whose primary key is
// primary_fpr (null when unknown) is one of keys': either the key itself, or
// a signing subkey of it. The callers hand in a primary fingerprint only for a
// subkey that gpg found valid for signing.
bool trusted_signer(const char *signing_fpr, const char *primary_fpr,
                    std::span<const TrustedKey> keys = trusted_key) noexcept;
// Result code of the verification just run in ctx.
int32_t evaluate_verify_result(gpgme_ctx_t ctx, std::span<const TrustedKey> keys = trusted_key);
// True when every signature was made by one of keys or a valid signing subkey
// of it (looked up in ctx's keyring).
bool signatures_from_trusted_keys(gpgme_ctx_t ctx, gpgme_signature_t signatures,
                                  std::span<const TrustedKey> keys = trusted_key);
// The same for what gpg --status-file wrote for a verification that ended
// with status 0: at least one valid signature, and each one by keys.
bool status_from_trusted_keys(std::string_view status, std::span<const TrustedKey> keys = trusted_key);
// The signed text of a successful verification (up to 4096 bytes), malloc()ed.
void read_verified_text(gpgme_data_t text, char **content, size_t *content_len) noexcept;
// Result code of the encryption just run in ctx.
int32_t evaluate_encrypt_result(gpgme_ctx_t ctx) noexcept;
// The armoured message, malloc()ed and terminated.
void read_armoured_output(gpgme_data_t armoured, char **out, size_t *out_len) noexcept;

} // namespace tq
