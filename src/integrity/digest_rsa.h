// SPDX-License-Identifier: LGPL-2.1-or-later
// Internal pieces of the digest and RSA family.
#pragma once

#include <cstddef>

struct rsa_st; // OpenSSL's RSA

namespace tq {

// Writes the file's digest as lower-case hex into hex_out (no terminator);
// capacity must hold at least 2 x digest bytes. 0, or -1 on any failure.
using FileDigestRoutine = int (*)(const char *path, char *hex_out, size_t capacity);

int file_sha256_hex(const char *path, char *hex_out, size_t capacity) noexcept;
int file_sha1_hex(const char *path, char *hex_out, size_t capacity) noexcept;
int file_md5_hex(const char *path, char *hex_out, size_t capacity) noexcept;

// 1 when the file's hex digest equals the first 2 x digest_bytes characters
// of expected_hex (case-sensitive), else 0.
int file_digest_matches(const char *path, const char *expected_hex, FileDigestRoutine routine,
                        size_t digest_bytes) noexcept;

// The RSA public key in pem[0, size), PEM in PKCS #1 ("RSA PUBLIC KEY") or
// SubjectPublicKeyInfo ("PUBLIC KEY", RSA only) form, or null. A newly read
// object the caller frees with RSA_free.
::rsa_st *rsa_public_key_from_pem(const char *pem, size_t size) noexcept;

// The key every signature is checked against.
inline constexpr const char *kPublicKeyPath = "/etc/tavro-quenda/public.pem";

} // namespace tq
