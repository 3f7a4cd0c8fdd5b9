// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading helper output the way the disk readers see it.
#pragma once

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/strutil.h"

namespace tq {

// Calls fn(line) for each piece that an fgets(buf, size, stream) loop returns
// over text: at most size - 1 bytes, ending after a line feed where one comes
// first. Each piece is cut at its first zero byte, as the C string functions
// that inspect it would see it.
template <typename Fn>
void for_each_fgets_line(std::string_view text, size_t size, Fn &&fn)
{
    const size_t most = size > 1 ? size - 1 : 1;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t end = nl == std::string_view::npos ? text.size() : nl + 1;
        end = std::min(end, pos + most);
        std::string_view line = text.substr(pos, end - pos);
        fn(line.substr(0, line.find('\0')));
        pos = end;
    }
}

// Splits text on any of delimiters the way strtok() does: runs of delimiters
// count as one and empty pieces never appear.
inline std::vector<std::string_view> split_tokens(std::string_view text, std::string_view delimiters)
{
    std::vector<std::string_view> pieces;
    size_t pos = text.find_first_not_of(delimiters);
    while (pos != std::string_view::npos) {
        size_t end = text.find_first_of(delimiters, pos);
        if (end == std::string_view::npos)
            end = text.size();
        pieces.push_back(text.substr(pos, end - pos));
        pos = text.find_first_not_of(delimiters, end);
    }
    return pieces;
}

// What follows the last '/' of path (all of it when there is none).
inline std::string_view base_name(std::string_view path)
{
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Text up to its first zero byte.
inline std::string_view up_to_nul(std::string_view text) { return text.substr(0, text.find('\0')); }

// The whole rest of stream; false on a read error.
inline bool read_all(FILE *stream, std::string &out)
{
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), stream)) > 0)
        out.append(chunk, n);
    return !std::ferror(stream);
}

// Standard output of the helper program argv[0] (an absolute path), started
// directly with argv as its arguments, never through a shell or PATH;
// nullopt when it could not be started.
std::optional<std::string> helper_output(std::initializer_list<std::string> argv);

// At most the first n bytes of text.
inline std::string_view cut(std::string_view text, size_t n) { return text.substr(0, std::min(n, text.size())); }

} // namespace tq
