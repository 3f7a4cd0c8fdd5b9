// SPDX-License-Identifier: LGPL-2.1-or-later
// Small helpers for checking what library calls hand back.
#pragma once

#include <cstdlib>
#include <optional>
#include <sstream>
#include <vector>
#include <string>
#include <string_view>

namespace tqtest {

// Takes over a malloc()ed library result: its text, or nullopt for null.
inline std::optional<std::string> take_optional(char *owned)
{
    std::optional<std::string> text;
    if (owned)
        text = owned;
    std::free(owned);
    return text;
}

// The same, with "<null>" for null.
inline std::string take(char *owned) { return take_optional(owned).value_or("<null>"); }

// An internal reader's answer: its text, or "<null>".
inline std::string or_null(const std::optional<std::string> &text) { return text ? *text : "<null>"; }

// The lines of a text, without their line ends.
inline std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

inline bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

} // namespace tqtest
