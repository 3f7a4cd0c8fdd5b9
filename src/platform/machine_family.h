// SPDX-License-Identifier: LGPL-2.1-or-later
// Machine families (Kirin SoCs, Lenovo/KaiTian) and the OEM text (internal).
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace tq {

// Whether a cpuinfo stream has a Hardware line naming a Kirin 990, 9006C or 9A0.
bool cpuinfo_names_kirin_9x0(FILE *stream);

// Whether a manufacturer text begins with "KaiTian" or "LENOVO" (case matters).
bool is_lenovo_manufacturer(std::string_view manufacturer) noexcept;

// "SERIAL_PRODUCTNAME_CID"; "" when a part cannot be read; nullopt without dmidecode.
std::optional<std::string> oem_text();

} // namespace tq
