// SPDX-License-Identifier: LGPL-2.1-or-later
// File and process helpers shared inside the library.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/unique_fd.h"

namespace tq {

// Size of the buffer a one-line fact is read into.
constexpr size_t kFactLineSize = 1024;

// The first line of stream as a fact: read with fgets() into a cleared
// 1024-byte buffer, every CR and LF turned into NUL. nullopt when nothing could
// be read; an empty first line is an answer (the empty string).
std::optional<std::string> read_fact_line(FILE *stream);

// The fact in the start of a file as read_fact_line() sees it: the text up to
// the first CR, LF or zero byte. nullopt for no bytes at all.
std::optional<std::string> fact_from_start(std::string_view start);

// The same first line of a file (through the OS gateway). Only a regular file
// is read, and only as far as that line: a FIFO or a device is no answer.
std::optional<std::string> read_fact_file(const char *path);

// read_fact_line() of a shell command's output. The command runs only when
// /usr/sbin/dmidecode may be read and executed: every such command line is a
// dmidecode pipeline.
std::optional<std::string> read_dmidecode_fact(const std::string &command);

// Levels below its top that empty_directory() descends: each holds a
// descriptor and a stack frame.
constexpr int kRemoveDepthMax = 256;

// Removes everything inside the open directory dir, never leaving it: each
// entry is removed relative to dir, and a subfolder is opened only as a
// directory that is not a link. Failures are ignored (what cannot be removed
// stays). depth counts the levels above dir.
void empty_directory(UniqueFD dir, int depth) noexcept;

// Path of the dmidecode program the fact pipelines start with.
inline constexpr const char kDmidecodePath[] = "/usr/sbin/dmidecode";

} // namespace tq
