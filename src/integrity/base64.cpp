// SPDX-License-Identifier: LGPL-2.1-or-later
// Base64 through OpenSSL's filter BIO (always one unbroken line), and the
// percent-escaped form of it that travels safely in a URL query.
#include "integrity/base64.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/strutil.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

enum : int {
    kBadLength = 59,
    kBadByte = 60,
    kBadPadding = 61,
    kEncodeArgs = 62,
    kDecodeArgs = 63,
    kBadUrlByte = 64,
    kFromUrlArgs = 65,
    kBadEscape = 66,
    kToUrlArgs = 67,
};

struct BioChainFree {
    void operator()(BIO *b) const noexcept { BIO_free_all(b); }
};
using UniqueBio = std::unique_ptr<BIO, BioChainFree>;

// A base64 filter without line breaks on top of sink; the chain owns sink.
UniqueBio base64_over(BIO *sink) noexcept
{
    if (!sink)
        return nullptr;
    BIO *b64 = BIO_new(BIO_f_base64());
    if (!b64) {
        BIO_free(sink);
        return nullptr;
    }
    BIO_set_flags(b64, BIO_FLAGS_BASE64_NO_NL);
    return UniqueBio(BIO_push(b64, sink));
}

// Decodes at most cap bytes of text into out; the BIO_read result.
int decode_into(std::string_view text, unsigned char *out, int cap) noexcept
{
    int len = static_cast<int>(std::min<size_t>(text.size(), INT_MAX));
    UniqueBio chain = base64_over(BIO_new_mem_buf(text.data(), len));
    if (!chain)
        return -1;
    return BIO_read(chain.get(), out, cap);
}

struct Escape {
    char plain;
    const char *escaped;
};
constexpr Escape kEscapes[] = {{'+', "%2B"}, {'/', "%2F"}, {'=', "%3D"}};

} // namespace

bool base64_char_ok(unsigned char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

bool url_char_ok(unsigned char c) noexcept { return base64_char_ok(c) || c == '%'; }

int base64_text_check(const char *text) noexcept
{
    size_t len = std::strlen(text);
    if (len % 4 != 0)
        return kBadLength;
    for (size_t i = 0; i < len; ++i) {
        if (!base64_char_ok(static_cast<unsigned char>(text[i])))
            return kBadByte;
    }
    for (size_t i = 0; i < len; ++i) {
        if (text[i] == '=' && len - i > 2)
            return kBadPadding;
        if (i == len - 1 && text[i] != '=' && i > 0 && text[i - 1] == '=')
            return kBadPadding;
    }
    return 0;
}

int url_text_check(const char *text) noexcept
{
    for (const char *p = text; *p; ++p) {
        if (!url_char_ok(static_cast<unsigned char>(*p)))
            return kBadUrlByte;
    }
    return 0;
}

} // namespace tq

extern "C" {

int base64_encode(const unsigned char *in, uint32_t in_len, char *out, uint32_t *out_len) noexcept
{
    if (!in || !out || !out_len || in_len == 0)
        return tq::kEncodeArgs;
    tq::UniqueBio chain = tq::base64_over(BIO_new(BIO_s_mem()));
    if (!chain)
        return -1;
    // BIO_write takes an int; feed larger inputs piecewise (in multiples of 3
    // so that no padding appears mid-stream).
    constexpr uint32_t kPiece = 3u << 28;
    for (uint32_t done = 0; done < in_len;) {
        uint32_t n = std::min(in_len - done, kPiece);
        BIO_write(chain.get(), in + done, static_cast<int>(n));
        done += n;
    }
    (void)BIO_flush(chain.get());
    BUF_MEM *mem = nullptr;
    BIO_get_mem_ptr(BIO_next(chain.get()), &mem);
    if (!mem)
        return -1;
    std::memcpy(out, mem->data, mem->length);
    *out_len = static_cast<uint32_t>(mem->length);
    return 0;
}

int base64_decode(const char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len) noexcept
{
    if (!in || !out || !out_len || in_len == 0)
        return tq::kDecodeArgs;
    if (int rc = tq::base64_text_check(in))
        return rc;
    // Never read beyond the terminator, whatever in_len claims.
    std::string_view text(in, ::strnlen(in, in_len));
    int cap = static_cast<int>(std::min<uint32_t>(in_len, INT_MAX));
    int n = tq::decode_into(text, out, cap);
    // A negative count would read as ~4 GiB to the caller.
    *out_len = n > 0 ? static_cast<uint32_t>(n) : 0;
    return 0;
}

unsigned char *base64_decode_clean(const char *in, int32_t *out_len) noexcept
{
    if (!in || !out_len)
        return nullptr;
    return tq::guarded<unsigned char *>(nullptr, [&]() -> unsigned char * {
        std::string clean;
        clean.reserve(std::strlen(in));
        for (const char *p = in; *p; ++p) {
            if (*p != '\n' && *p != '\r' && *p != ' ')
                clean += *p;
        }
        std::printf("Cleaned Base64 (%d chars): %s\n", static_cast<int>(clean.size()), clean.c_str());

        size_t cap = clean.size() * 3 / 4 + 4;
        std::unique_ptr<unsigned char, tq::FreeDeleter> buf(static_cast<unsigned char *>(std::malloc(cap)));
        if (!buf)
            return nullptr;
        int n = tq::decode_into(clean, buf.get(), static_cast<int>(std::min<size_t>(cap, INT_MAX)));
        *out_len = n;
        return n > 0 ? buf.release() : nullptr;
    });
}

int transform_to_url(const char *in, int32_t in_len, char *out, uint32_t *out_len) noexcept
{
    if (!in || !out || !out_len || in_len <= 0)
        return tq::kToUrlArgs;
    *out_len = 0;
    if (int rc = tq::url_text_check(in))
        return rc;
    size_t n = ::strnlen(in, static_cast<size_t>(in_len));
    char *o = out;
    for (size_t i = 0; i < n; ++i) {
        const char *escaped = nullptr;
        for (const auto &e : tq::kEscapes) {
            if (in[i] == e.plain)
                escaped = e.escaped;
        }
        if (escaped) {
            std::memcpy(o, escaped, 3);
            o += 3;
        } else {
            *o++ = in[i];
        }
    }
    *o = '\0';
    *out_len = static_cast<uint32_t>(o - out);
    return 0;
}

int transform_from_url(const char *in, int32_t in_len, char *out, uint32_t *out_len) noexcept
{
    if (!in || !out || !out_len || in_len <= 0)
        return tq::kFromUrlArgs;
    *out_len = 0;
    if (int rc = tq::url_text_check(in))
        return rc;
    std::string_view text(in, ::strnlen(in, static_cast<size_t>(in_len)));
    char *o = out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] != '%') {
            *o++ = text[i++];
            continue;
        }
        std::string_view seq = text.substr(i, 3);
        const tq::Escape *match = nullptr;
        for (const auto &e : tq::kEscapes) {
            if (seq == e.escaped)
                match = &e;
        }
        if (!match)
            return tq::kBadEscape;
        *o++ = match->plain;
        i += 3;
    }
    *o = '\0';
    *out_len = static_cast<uint32_t>(o - out);
    return 0;
}

} // extern "C"
