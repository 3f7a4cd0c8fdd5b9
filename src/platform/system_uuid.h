// SPDX-License-Identifier: LGPL-2.1-or-later
// System UUID readers (internal).
#pragma once

#include <optional>
#include <string>

namespace tq {

// First line of path, unless it is a placeholder UUID.
std::optional<std::string> read_uuid_file(const char *path);
// The UUID line of "dmidecode -s system-uuid", unless it is a placeholder.
std::optional<std::string> read_uuid_dmidecode();
// Whether text is, whole and in any case, one of the UUIDs firmware ships as a placeholder.
bool is_placeholder_uuid(const char *text) noexcept;

} // namespace tq
