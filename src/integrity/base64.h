// SPDX-License-Identifier: LGPL-2.1-or-later
// Internal pieces of the Base64 family: the validators the strict decoder and
// the URL transforms run before touching their input.
#pragma once

namespace tq {

// Members of the standard Base64 alphabet plus '='.
bool base64_char_ok(unsigned char c) noexcept;
// Members of the Base64 alphabet, '=' and '%'.
bool url_char_ok(unsigned char c) noexcept;
// 0, or 59 (length not a multiple of 4), 60 (foreign byte) or 61 (misplaced '=').
int base64_text_check(const char *text) noexcept;
// 0, or 64 when a byte is neither Base64, '=' nor '%'.
int url_text_check(const char *text) noexcept;

} // namespace tq
