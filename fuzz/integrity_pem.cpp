// SPDX-License-Identifier: LGPL-2.1-or-later
// Arbitrary bytes as the public key file, parsed as load_public_key parses
// the file's content: either no key, or a key that writes out as PKCS #1 PEM
// and reads back as the same key.
#define OPENSSL_API_COMPAT 0x10100000L
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdint>
#include <cstdlib>

#include "integrity/digest_rsa.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    RSA *key = tq::rsa_public_key_from_pem(reinterpret_cast<const char *>(data), size);
    if (!key)
        return 0;
    BIO *out = BIO_new(BIO_s_mem());
    if (!out || PEM_write_bio_RSAPublicKey(out, key) != 1)
        std::abort();
    char *pem = nullptr;
    const long len = BIO_get_mem_data(out, &pem);
    RSA *again = tq::rsa_public_key_from_pem(pem, static_cast<size_t>(len));
    const BIGNUM *n1, *e1, *n2, *e2;
    if (!again)
        std::abort();
    RSA_get0_key(key, &n1, &e1, nullptr);
    RSA_get0_key(again, &n2, &e2, nullptr);
    if (BN_cmp(n1, n2) != 0 || BN_cmp(e1, e2) != 0)
        std::abort();
    RSA_free(again);
    BIO_free(out);
    RSA_free(key);
    return 0;
}
