// SPDX-License-Identifier: LGPL-2.1-or-later
// load_public_key hands out an RSA *, released with RSA_free: use the API
// level that declares it without deprecation.
#define OPENSSL_API_COMPAT 0x10100000L

#include <openssl/err.h>

#include <algorithm>

#include "integrity/digest_rsa.h"
#include "peer_tools.h"

namespace {

using Check = int (*)(const char *, const char *);

TEST(FileDigest, AgreesWithCoreutilsComparesTheDigestsLengthOnlyAndFailsClosed)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    // Sizes around the read chunk. The expected text is the tool's whole line: only
    // the digest's own length is compared, so the path after it does not matter.
    for (size_t size : {0u, 1u, 65535u, 65536u, 65537u, 3u * 65536u + 17u}) {
        fx.write("/f", tqtest::random_bytes(size, static_cast<unsigned>(size)));
        for (auto [tool, check] : {std::pair<const char *, Check>{"md5sum", file_check_md5},
                                   {"sha1sum", file_check_sha1}, {"sha256sum", file_check_sha256}})
            EXPECT_EQ(check("/f", tqtest::run(std::string(tool) + " " + fx.host("/f")).c_str()), 1) << tool << size;
    }

    fx.write("/empty", "");
    const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e",
                      sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    const std::tuple<Check, const char *, const char *> refused[] = {
        {file_check_sha256, "/empty", "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
        {file_check_md5, "/empty", "d41d8cd98f00b204e9800998ecf8427"}, // one character short
        {file_check_md5, "/empty", nullptr},
        {file_check_md5, "/var/log", md5.c_str()}, // a directory: the read fails
        {file_check_md5, nullptr, md5.c_str()},
    };
    for (const auto &[check, path, hex] : refused)
        EXPECT_EQ(check(path, hex), 0) << (path ? path : "-") << " " << (hex ? hex : "-");

    // The routines write exactly the hex characters, and refuse a short buffer.
    std::string hex(70, '#');
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex.data(), 63), -1);
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex.data(), 64), 0);
    EXPECT_EQ(hex.substr(0, 65), sha256 + "#");
    EXPECT_TRUE(leaks.clean());
}

TEST(RsaCheck, AcceptsWhatOpensslSignedInEitherPemFormAndExplainsEachRefusal)
{
    tqtest::Fixture fx;
    // An RSA key, its public half in both PEM forms, an EC public key, and a
    // signature as `base64` prints it (wrapped at 76 columns).
    const char *msg = "serial=ABC123;expires=2031-01-01";
    const std::string keys = fx.host("/keys");
    fx.write("/keys/msg", msg);
    const std::string sig = tqtest::run(
        "cd " + keys + " && openssl genrsa -out key.pem 2048 2>/dev/null" +
        " && openssl rsa -in key.pem -RSAPublicKey_out -out pkcs1.pem 2>/dev/null" +
        " && openssl rsa -in key.pem -pubout -out spki.pem 2>/dev/null" +
        " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 2>/dev/null" +
        " | openssl pkey -pubout -out ec.pem && openssl dgst -sha256 -sign key.pem msg | base64");
    ASSERT_GT(std::count(sig.begin(), sig.end(), '\n'), 1) << "expected a wrapped signature";
    std::string flipped = sig;
    flipped[10] = flipped[10] == 'A' ? 'B' : 'A';
    const std::string no_key = std::string(tq::kPublicKeyPath) + "\nFailed to load public key\n",
                      bad_sig = "Failed to decode base64 si11gnature\n",
                      null_arg = "Invalid parameters: message or signature is NULL\n";
    // Key provisioned (none: the one before), message, signature, result, standard error.
    const std::tuple<const char *, const char *, const char *, int, std::string> cases[] = {
        {nullptr, msg, sig.c_str(), 0, "Error opening public key file: " + no_key},
        // A SubjectPublicKeyInfo key that is not RSA.
        {"ec.pem", msg, sig.c_str(), 0, "Error reading public key from file: " + no_key},
        {"pkcs1.pem", msg, sig.c_str(), 1, ""},
        {"spki.pem", msg, sig.c_str(), 1, ""},
        {"spki.pem", msg, flipped.c_str(), 0, ""},
        {"spki.pem", msg, "AA==", 0, ""}, // one byte: decoded, then refused by the check
        {"spki.pem", msg, " \r\n", 0, bad_sig},
        {"spki.pem", nullptr, sig.c_str(), 0, null_arg},
        {"spki.pem", msg, nullptr, 0, null_arg},
    };
    tqtest::LeakCheck leaks;
    for (const auto &[key, message, signature, want, err] : cases) {
        if (key)
            fx.copy(tq::kPublicKeyPath, keys + "/" + key);
        for (Check check : {verify_signature, tavro_quenda_rsa_check}) {
            testing::internal::CaptureStdout();
            testing::internal::CaptureStderr();
            EXPECT_EQ(check(message, signature), want) << err;
            testing::internal::GetCapturedStdout();
            EXPECT_EQ(testing::internal::GetCapturedStderr(), err);
        }
    }
    EXPECT_EQ(ERR_peek_error(), 0u); // refusals leave nothing on the caller's OpenSSL error queue
    EXPECT_TRUE(leaks.clean());
}

} // namespace
