// SPDX-License-Identifier: LGPL-2.1-or-later
// Internal pieces of the key-file functions.
#pragma once

#include <glib.h>

#include <cstddef>

namespace tq {

// Settings files are small; a larger key file is refused when loaded, and an
// existing one is not read back when saving.
// Parsed, even the densest such file (a comment or a group on every line)
// costs GLib about 12 MiB.
inline constexpr size_t kKeyFileMax = 256 * 1024;

// A key file parsed from data[0, size) with comments and translations kept,
// exactly as key_file_load_from_file parses a file's bytes; null on a parse
// error or when size exceeds kKeyFileMax.
GKeyFile *key_file_from_data(const char *data, size_t size) noexcept;

} // namespace tq
