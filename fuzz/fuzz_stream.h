// SPDX-License-Identifier: LGPL-2.1-or-later
// Hands a fuzzer's bytes to a parser that reads a FILE*.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace fuzz {

// The parser's answer over the bytes as a read-only stream; nullopt for empty
// input or when the stream cannot be made.
template <typename Parse>
auto parse_stream(const std::string &bytes, Parse parse) -> std::optional<decltype(parse(nullptr))>
{
    if (bytes.empty())
        return std::nullopt;
    std::string copy = bytes; // fmemopen wants a mutable buffer
    std::unique_ptr<FILE, int (*)(FILE *)> stream(::fmemopen(copy.data(), copy.size(), "r"), std::fclose);
    if (!stream)
        return std::nullopt;
    return parse(stream.get());
}

} // namespace fuzz
