// SPDX-License-Identifier: LGPL-2.1-or-later
// Internal pieces of the encrypted-record family.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tq {

// Records hold at most this many bytes: 1,023 characters, their NUL, padding.
inline constexpr size_t kRecordMax = 1024;

// Writes the encrypted form of text to path (created or truncated); 0 or -1.
// A text too long for a record leaves the file truncated and empty.
int32_t write_encrypt_str_to_file(const char *path, const char *text) noexcept;

// The decrypted text of an encrypted record's bytes, in a new 1,024-byte
// buffer (free()), or null for an empty or oversized record.
char *decrypt_record(const unsigned char *record, size_t size) noexcept;

} // namespace tq
