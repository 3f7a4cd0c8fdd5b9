// SPDX-License-Identifier: LGPL-2.1-or-later
// load_public_key hands out an RSA *, released with RSA_free: use the API
// level that declares it without deprecation.
#define OPENSSL_API_COMPAT 0x10100000L

#include <openssl/err.h>

#include <algorithm>
#include <fstream>

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
    const struct {
        Check check;
        const char *path, *hex;
    } refused[] = {
        {file_check_sha256, "/empty", "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
        {file_check_md5, "/empty", "d41d8cd98f00b204e9800998ecf8427"}, // one character short
        {file_check_md5, "/empty", nullptr},
        {file_check_md5, "/var/log", md5.c_str()}, // a directory: the read fails
        {file_check_md5, nullptr, md5.c_str()},
    };
    for (const auto &c : refused)
        EXPECT_EQ(c.check(c.path, c.hex), 0) << (c.path ? c.path : "-") << " " << (c.hex ? c.hex : "-");

    // The routines write exactly the hex characters, and refuse a short buffer.
    char hex[70];
    std::memset(hex, '#', sizeof hex);
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex, 63), -1);
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex, 64), 0);
    EXPECT_EQ(std::string(hex, 65), sha256 + "#");
    EXPECT_TRUE(leaks.clean());
}

// A check's result, its standard output dropped and its standard error kept in *err.
int captured(Check check, const char *message, const char *signature, std::string *err)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int result = check(message, signature);
    testing::internal::GetCapturedStdout();
    *err = testing::internal::GetCapturedStderr();
    return result;
}

TEST(RsaCheck, AcceptsWhatOpensslSignedInEitherPemFormAndExplainsEachRefusal)
{
    tqtest::Fixture fx;
    fx.mkdir("/keys");
    // An RSA key, its public half in both PEM forms, an EC public key, and a
    // signature as `base64` prints it (wrapped at 76 columns).
    const std::string message = "serial=ABC123;expires=2031-01-01", keys = fx.host("/keys");
    fx.write("/keys/msg", message);
    const std::string sig = tqtest::run(
        "cd " + keys + " && openssl genrsa -out key.pem 2048 2>/dev/null" +
        " && openssl rsa -in key.pem -RSAPublicKey_out -out pkcs1.pem 2>/dev/null" +
        " && openssl rsa -in key.pem -pubout -out spki.pem 2>/dev/null" +
        " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 2>/dev/null | openssl pkey -pubout -out ec.pem" +
        " && openssl dgst -sha256 -sign key.pem msg | base64");
    ASSERT_GT(std::count(sig.begin(), sig.end(), '\n'), 1) << "expected a wrapped signature";
    std::string flipped = sig;
    flipped[10] = flipped[10] == 'A' ? 'B' : 'A';
    const std::string no_key = "Failed to load public key\n", bad_sig = "Failed to decode base64 si11gnature\n",
                      null_arg = "Invalid parameters: message or signature is NULL\n", m = message + "\n";
    const struct {
        const char *key, *message, *signature;
        int want;
        std::string err;
    } cases[] = {
        {nullptr, message.c_str(), sig.c_str(), 0,
         "Error opening public key file: /etc/tavro-quenda/public.pem\n" + no_key},
        // A SubjectPublicKeyInfo key that is not RSA.
        {"ec.pem", message.c_str(), sig.c_str(), 0,
         "Error reading public key from file: /etc/tavro-quenda/public.pem\n" + no_key},
        {"pkcs1.pem", message.c_str(), sig.c_str(), 1, ""},
        {"spki.pem", message.c_str(), sig.c_str(), 1, ""},
        {"spki.pem", m.c_str(), sig.c_str(), 0, ""}, // the message is hashed as it is, without its NUL
        {"spki.pem", message.c_str(), flipped.c_str(), 0, ""},
        {"spki.pem", message.c_str(), "AA==", 0, ""}, // one byte: decoded, then refused by the check
        {"spki.pem", message.c_str(), " \r\n", 0, bad_sig},
        {"spki.pem", nullptr, sig.c_str(), 0, null_arg},
        {"spki.pem", message.c_str(), nullptr, 0, null_arg},
    };
    tqtest::LeakCheck leaks;
    for (const auto &c : cases) {
        if (c.key)
            fx.copy(tq::kPublicKeyPath, keys + "/" + c.key);
        for (Check check : {verify_signature, tavro_quenda_rsa_check}) {
            std::string err;
            EXPECT_EQ(captured(check, c.message, c.signature, &err), c.want) << c.err;
            EXPECT_EQ(err, c.err);
        }
    }
    EXPECT_EQ(ERR_peek_error(), 0u); // refusals leave nothing on the caller's OpenSSL error queue
    EXPECT_TRUE(leaks.clean());
}

TEST(RsaCheck, AgreesWithEveryValidAndInvalidPublishedCase)
{
    tqtest::Fixture fx;
    const std::string dir = tqtest::corpus("vectors/rsa-pkcs1-sha256/");
    std::ifstream in(dir + "cases.tsv");
    std::string id, key, hex, sig, expected, rest, loaded, err;
    std::getline(in, rest); // the header
    std::vector<std::string> disagreed;
    int rows = 0;
    while (std::getline(in, id, '\t') && std::getline(in, key, '\t') && std::getline(in, hex, '\t') &&
           std::getline(in, sig, '\t') && std::getline(in, expected, '\t') && std::getline(in, rest)) {
        if (key != loaded)
            fx.copy(tq::kPublicKeyPath, dir + (loaded = key));
        std::string message;
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            message += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        const int got = captured(verify_signature, message.c_str(), sig.c_str(), &err);
        if ((expected == "valid" && got != 1) || (expected == "invalid" && got != 0))
            disagreed.push_back(id + " " + expected + " " + rest);
        ++rows;
    }
    EXPECT_EQ(rows, 773);
    EXPECT_EQ(disagreed, std::vector<std::string>{});
}

} // namespace
