// SPDX-License-Identifier: LGPL-2.1-or-later
// File digests compared with an expected hex text, and RSA-SHA256 (PKCS #1
// v1.5) signature checks against the provisioned PEM key (PKCS #1 or
// SubjectPublicKeyInfo form).
//
// load_public_key hands out an RSA *, so this file uses the RSA API that
// OpenSSL 3 keeps for compatibility; pin the API level before any OpenSSL
// header so that those calls are declared without deprecation attributes.
#define OPENSSL_API_COMPAT 0x10100000L

#include "integrity/digest_rsa.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX *c) const noexcept { EVP_MD_CTX_free(c); }
};
using UniqueMdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

struct RsaFree {
    void operator()(RSA *r) const noexcept { RSA_free(r); }
};
using UniqueRsa = std::unique_ptr<RSA, RsaFree>;

struct BioFree {
    void operator()(BIO *b) const noexcept { BIO_free(b); }
};
using UniqueBio = std::unique_ptr<BIO, BioFree>;

// A PEM public key is a few hundred bytes; this leaves room for comments.
constexpr size_t kPublicKeyFileMax = 1024 * 1024;

// Large reads keep the syscall count negligible next to the hashing itself.
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kHexBufferSize = 1024;

int file_digest_hex(const char *path, char *hex_out, size_t capacity, const EVP_MD *md) noexcept
{
    const size_t digest_bytes = static_cast<size_t>(EVP_MD_get_size(md));
    if (!hex_out || capacity < 2 * digest_bytes)
        return -1;
    // A disk image may be a block device; a FIFO or a character device
    // could block or never end, so those are refused.
    UniqueFD fd = os::open_input(path, os::InputKind::regular_or_block);
    if (!fd)
        return -1;
    UniqueMdCtx ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1)
        return -1;

    std::unique_ptr<unsigned char[]> chunk(new (std::nothrow) unsigned char[kReadChunk]);
    if (!chunk)
        return -1;
    ssize_t n;
    for (;;) {
        n = ::read(fd.get(), chunk.get(), kReadChunk);
        if (n > 0) {
            if (EVP_DigestUpdate(ctx.get(), chunk.get(), static_cast<size_t>(n)) != 1)
                return -1;
        } else if (!(n < 0 && errno == EINTR)) {
            break;
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &len) != 1 || n < 0)
        return -1;

    static constexpr char kHex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < len; ++i) {
        hex_out[2 * i] = kHex[digest[i] >> 4];
        hex_out[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    return 0;
}

void print_error(const char *format, const char *path) noexcept
{
    std::fprintf(stderr, format, path ? path : "(null)");
}

} // namespace

::rsa_st *rsa_public_key_from_pem(const char *pem, size_t size) noexcept
{
    if (size > kPublicKeyFileMax)
        return nullptr;
    // Both PEM forms of an RSA public key: PKCS #1 ("RSA PUBLIC KEY"), and the
    // SubjectPublicKeyInfo ("PUBLIC KEY") that `openssl rsa -pubout` writes,
    // which must hold an RSA key. Accepting the second is a deliberate
    // widening of the original PKCS #1-only reader; PKCS #1 keys load as before.
    for (auto read : {PEM_read_bio_RSAPublicKey, PEM_read_bio_RSA_PUBKEY}) {
        UniqueBio bio(BIO_new_mem_buf(pem, static_cast<int>(size)));
        if (!bio)
            return nullptr;
        if (RSA *key = read(bio.get(), nullptr, nullptr, nullptr)) {
            ERR_clear_error();
            return key;
        }
    }
    return nullptr;
}

int file_sha256_hex(const char *path, char *hex_out, size_t capacity) noexcept
{
    return file_digest_hex(path, hex_out, capacity, EVP_sha256());
}

int file_sha1_hex(const char *path, char *hex_out, size_t capacity) noexcept
{
    return file_digest_hex(path, hex_out, capacity, EVP_sha1());
}

int file_md5_hex(const char *path, char *hex_out, size_t capacity) noexcept
{
    return file_digest_hex(path, hex_out, capacity, EVP_md5());
}

int file_digest_matches(const char *path, const char *expected_hex, FileDigestRoutine routine,
                        size_t digest_bytes) noexcept
{
    if (!routine || !expected_hex || 2 * digest_bytes > kHexBufferSize)
        return 0;
    char hex[kHexBufferSize] = {};
    if (routine(path, hex, sizeof hex) != 0)
        return 0;
    // Only the digest's own length is compared: a longer expected text that
    // begins with the digest matches too.
    return std::strncmp(expected_hex, hex, 2 * digest_bytes) == 0 ? 1 : 0;
}

} // namespace tq

extern "C" {

int file_check_sha256(const char *path, const char *expected_hex) noexcept
{
    return tq::file_digest_matches(path, expected_hex, tq::file_sha256_hex, 32);
}

int file_check_sha1(const char *path, const char *expected_hex) noexcept
{
    return tq::file_digest_matches(path, expected_hex, tq::file_sha1_hex, 20);
}

int file_check_md5(const char *path, const char *expected_hex) noexcept
{
    return tq::file_digest_matches(path, expected_hex, tq::file_md5_hex, 16);
}

bool compute_sha256(const char *message, unsigned char *digest) noexcept
{
    if (!message || !digest)
        return false;
    tq::UniqueMdCtx ctx(EVP_MD_CTX_new());
    unsigned int len = 0;
    return ctx && EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) == 1 &&
           EVP_DigestUpdate(ctx.get(), message, std::strlen(message)) == 1 &&
           EVP_DigestFinal_ex(ctx.get(), digest, &len) == 1;
}

RSA *load_public_key(const char *path) noexcept
{
    tq::UniqueFD fd = path ? tq::os::open_input(path) : tq::UniqueFD();
    if (!fd) {
        tq::print_error("Error opening public key file: %s\n", path);
        return nullptr;
    }
    // Read once, bounded; a key file far larger than any PEM key is refused.
    std::string pem;
    RSA *key = nullptr;
    if (tq::os::read_bounded(fd.get(), tq::kPublicKeyFileMax, &pem)) {
        fd.reset();
        key = tq::rsa_public_key_from_pem(pem.data(), pem.size());
    }
    if (!key) {
        ERR_clear_error();
        tq::print_error("Error reading public key from file: %s\n", path);
        return nullptr;
    }
    return key;
}

int verify_signature(const char *message, const char *signature_b64) noexcept
{
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    if (!message || !signature_b64) {
        std::fputs("Invalid parameters: message or signature is NULL\n", stderr);
        return 0;
    }

    int32_t sig_len = 0;
    std::unique_ptr<unsigned char, tq::FreeDeleter> sig(base64_decode_clean(signature_b64, &sig_len));
    if (!sig || sig_len < 1) {
        std::fputs("Failed to decode base64 si11gnature\n", stderr);
        return 0;
    }

    unsigned char digest[32];
    if (!compute_sha256(message, digest)) {
        std::fputs("Failed to compute SHA256 hash of message\n", stderr);
        return 0;
    }

    tq::UniqueRsa key(load_public_key(tq::kPublicKeyPath));
    if (!key) {
        std::fputs("Failed to load public key\n", stderr);
        return 0;
    }
    int ok = RSA_verify(NID_sha256, digest, sizeof digest, sig.get(), static_cast<unsigned int>(sig_len),
                        key.get());
    // Leave no stale failure on this thread's OpenSSL error queue.
    ERR_clear_error();
    return ok == 1 ? 1 : 0;
}

int tavro_quenda_rsa_check(const char *message, const char *signature_b64) noexcept
{
    return verify_signature(message, signature_b64) != 0 ? 1 : 0;
}

} // extern "C"
