// SPDX-License-Identifier: LGPL-2.1-or-later
// The trace log's line builder, shared with its fuzz target and tests.
#pragma once

#include <cstddef>
#include <string_view>

namespace tq {

// Size of the buffer a trace line is assembled in; a line is at most one byte
// less, its line end included.
inline constexpr size_t kTraceLineSize = 1024;

// Completes the trace line in line (kTraceLineSize bytes), whose first prefix
// bytes already hold "<stamp> [<pid>]: ", with message: the caller's formatted
// text, and cut when more text followed it that did not fit. Returns the
// line's length; the line is terminated by a zero byte behind it.
//
// Every line is exactly one line and ends with "\n": unlike a plain copy of
// the text, which lets a caller's value forge further lines or send terminal
// sequences to whoever reads the log, each control byte (C0, tab included,
// and DEL) is written as an escape: "\n", "\r", "\t", or "\x" and two hex
// digits. One "\n" that ends the message is its line end, not escaped. Text
// without control bytes keeps its exact wording. A line longer than 1022
// bytes is cut there, never inside an escape, and still gets its "\n".
size_t finish_trace_line(char *line, size_t prefix, std::string_view message, bool cut) noexcept;

} // namespace tq

namespace tq::os::testing {

// Lets the next failure to open or write the trace log be reported on
// standard error again (it is reported once per process).
void rearm_trace_log_report();

} // namespace tq::os::testing
