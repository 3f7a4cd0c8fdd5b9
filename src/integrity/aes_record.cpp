// SPDX-License-Identifier: LGPL-2.1-or-later
// Small text records kept on disk under AES-128-CBC with the library's fixed
// key and IV, zero-padded after the text's NUL. Equal texts give equal
// ciphertexts by design: the records are obscured, not authenticated.
#include "integrity/aes_record.h"

#include <sys/stat.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"

extern "C" {
const unsigned char g_vex_key[16] = {'q', 'u', 'i', 'l', 'l', 'o', 'n', '_',
                                     'p', 'a', 'v', 'e', 'm', 'e', 'n', 't'};
}

namespace tq {
namespace {

constexpr size_t kBlock = 16;
constexpr std::array<unsigned char, kBlock> kIv = {0x5a, 0x1c, 0x0e, 0x77, 0xd2, 0x9b, 0x4f, 0x38,
                                                   0x06, 0xe1, 0xa9, 0xc4, 0x7b, 0x2d, 0x8f, 0x13};

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX *c) const noexcept { EVP_CIPHER_CTX_free(c); }
};
using UniqueCipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

// Raw CBC over whole blocks (len a multiple of 16), no padding added or removed.
bool cbc(bool encrypt, const unsigned char *iv, const unsigned char *in, unsigned char *out, size_t len) noexcept
{
    UniqueCipherCtx ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, g_vex_key, iv, encrypt ? 1 : 0) != 1)
        return false;
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    for (size_t done = 0; done < len;) {
        // EVP takes int lengths; records are tiny, but stay correct for any size.
        size_t n = std::min<size_t>(len - done, size_t{1} << 30);
        int produced = 0;
        if (EVP_CipherUpdate(ctx.get(), out + done, &produced, in + done, static_cast<int>(n)) != 1)
            return false;
        done += n;
    }
    int tail = 0;
    return EVP_CipherFinal_ex(ctx.get(), out + len, &tail) == 1;
}

} // namespace

char *decrypt_record(const unsigned char *record, size_t size) noexcept
{
    if (!record || size == 0 || size > kRecordMax)
        return nullptr;
    std::array<unsigned char, kRecordMax> in{};
    std::memcpy(in.data(), record, size);
    std::unique_ptr<unsigned char, FreeDeleter> out(static_cast<unsigned char *>(std::calloc(kRecordMax, 1)));
    if (!out || tavro_aes_decrypt(in.data(), out.get(), static_cast<uint32_t>(size)) != 0)
        return nullptr;
    // A damaged full-size record may decrypt without any zero byte; the
    // caller still gets a C string.
    out.get()[kRecordMax - 1] = 0;
    return reinterpret_cast<char *>(out.release());
}

int32_t write_encrypt_str_to_file(const char *path, const char *text) noexcept
{
    os::UniqueFile file = os::fopen(path, "w");
    if (!file)
        return -1;
    std::array<unsigned char, kRecordMax> buffer{};
    int32_t len = tavro_aes_encrypt(text, buffer.data(), static_cast<uint32_t>(buffer.size()));
    if (len < 0)
        return -1;
    if (std::fwrite(buffer.data(), static_cast<size_t>(len), 1, file.get()) != 1)
        return -1;
    return std::fclose(file.release()) == 0 ? 0 : -1;
}

} // namespace tq

extern "C" {

// Unlike the historical interface, which read a whole 1,024-byte block from
// text and ignored out_size, this reads text only up to its terminating zero
// (padding the block itself, so the ciphertext is the same) and refuses, with
// -1 and nothing written, an out buffer too small for the ciphertext: a short
// text or a short buffer is never overrun. Callers passing 1,024 see no change.
int32_t tavro_aes_encrypt(const char *text, unsigned char *out, uint32_t out_size) noexcept
{
    if (!text || !out)
        return -1;
    size_t n = ::strnlen(text, tq::kRecordMax);
    if (n >= tq::kRecordMax)
        return -1;
    size_t padded = (n + 1 + tq::kBlock - 1) / tq::kBlock * tq::kBlock;
    if (out_size < padded)
        return -1;
    // Only the text itself is read; the rest of the block is zeros.
    std::array<unsigned char, tq::kRecordMax> block{};
    std::memcpy(block.data(), text, n);
    if (!tq::cbc(true, tq::kIv.data(), block.data(), out, padded))
        return -1;
    return static_cast<int32_t>(padded);
}

int32_t tavro_aes_decrypt(const unsigned char *in, unsigned char *out, uint32_t length) noexcept
{
    if (length == 0)
        return 0;
    if (!in || !out)
        return -1;
    size_t whole = length / tq::kBlock * tq::kBlock;
    if (whole && !tq::cbc(false, tq::kIv.data(), in, out, whole))
        return -1;
    size_t rest = length - whole;
    if (rest) {
        // A torn last block: decrypt it zero-filled and keep only the bytes
        // that were present. Meaningless, but bounded to the caller's buffers.
        std::array<unsigned char, tq::kBlock> block{};
        std::array<unsigned char, tq::kBlock> plain{};
        std::memcpy(block.data(), in + whole, rest);
        const unsigned char *iv = whole ? in + whole - tq::kBlock : tq::kIv.data();
        if (!tq::cbc(false, iv, block.data(), plain.data(), tq::kBlock))
            return -1;
        std::memcpy(out + whole, plain.data(), rest);
    }
    return 0;
}

char *read_decrypt_file_to_str(const char *path) noexcept
{
    // A record is at most 1,024 bytes, read once from a regular file.
    std::string bytes;
    if (!path || !tq::os::read_input(path, tq::kRecordMax, &bytes))
        return nullptr;
    return tq::decrypt_record(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
}

} // extern "C"
