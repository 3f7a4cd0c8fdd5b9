// Small helpers for checking what library calls hand back.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace tqtest {

// Takes over a malloc()ed library result: its text, or "<null>" for null.
inline std::string take(char *owned)
{
    std::string text = owned ? owned : "<null>";
    std::free(owned);
    return text;
}

// Takes over a malloc()ed library result: its text, or nullopt for null.
inline std::optional<std::string> take_optional(char *owned)
{
    if (!owned)
        return std::nullopt;
    std::string text = owned;
    std::free(owned);
    return text;
}

// An internal reader's answer: its text, or "<null>".
inline std::string or_null(const std::optional<std::string> &text) { return text ? *text : "<null>"; }

inline bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

} // namespace tqtest
