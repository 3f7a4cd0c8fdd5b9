// SPDX-License-Identifier: LGPL-2.1-or-later
// load_public_key hands out an RSA *, released with RSA_free: use the API
// level that declares it without deprecation.
#define OPENSSL_API_COMPAT 0x10100000L

#include <openssl/err.h>
#include <openssl/rsa.h>

#include "integrity/digest_rsa.h"
#include "peer_tools.h"

namespace {

using Check = int (*)(const char *, const char *);

TEST(FileDigest, AgreesWithPublishedVectorsAndCoreutilsAndFailsClosed)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    auto rows = tqtest::read_tsv(tqtest::corpus("vectors/digests.tsv"));
    ASSERT_GE(rows.size(), 10u);
    for (const auto &row : rows) { // name, unit hex, repeat, md5, sha1, sha256
        std::string unit = tqtest::from_hex(row[1]), bytes, path = "/" + row[0];
        for (int i = std::stoi(row[2]); i > 0; --i)
            bytes += unit;
        fx.write(path, bytes);
        EXPECT_EQ(file_check_md5(path.c_str(), row[3].c_str()), 1) << row[0];
        EXPECT_EQ(file_check_sha1(path.c_str(), row[4].c_str()), 1) << row[0];
        EXPECT_EQ(file_check_sha256(path.c_str(), row[5].c_str()), 1) << row[0];
    }

    // Sizes around the read boundaries of both the old and the new chunk size.
    for (size_t size : {0u, 1u, 1023u, 1024u, 1025u, 65535u, 65536u, 65537u, 3u * 65536u + 17u}) {
        fx.write("/f", tqtest::random_bytes(size, static_cast<unsigned>(size)));
        for (auto [tool, check] : {std::pair<const char *, Check>{"md5sum", file_check_md5},
                                   {"sha1sum", file_check_sha1}, {"sha256sum", file_check_sha256}}) {
            std::string out = tqtest::run(std::string(tool) + " " + fx.host("/f"));
            EXPECT_EQ(check("/f", out.substr(0, out.find(' ')).c_str()), 1) << tool << " " << size;
        }
    }

    // A case-sensitive prefix of the digest's length is compared, and any failure refuses.
    fx.write("/empty", "");
    const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e",
                      sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
                      md5_short = md5.substr(0, 31), md5_long = md5 + "anything at all";
    const struct {
        Check check;
        const char *path, *hex;
        int want;
    } cases[] = {
        {file_check_sha256, "/empty", "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855", 0},
        {file_check_md5, "/empty", md5_short.c_str(), 0},
        {file_check_md5, "/empty", md5_long.c_str(), 1},
        {file_check_md5, "/empty", nullptr, 0},
        {file_check_md5, "/var/log", md5.c_str(), 0}, // a directory: the read fails
        {file_check_md5, nullptr, md5.c_str(), 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.check(c.path, c.hex), c.want) << (c.path ? c.path : "-") << " " << (c.hex ? c.hex : "-");

    // The routines write exactly the hex characters, and refuse a short buffer.
    char hex[70];
    std::memset(hex, '#', sizeof hex);
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex, 63), -1);
    EXPECT_EQ(tq::file_sha256_hex("/empty", hex, 64), 0);
    EXPECT_EQ(std::string(hex, 65), sha256 + "#");
    EXPECT_TRUE(leaks.clean());
}

// A check's result, with its standard output dropped and its standard error handed back.
int captured(Check check, const char *message, const char *signature, std::string *err = nullptr)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int result = check(message, signature);
    testing::internal::GetCapturedStdout();
    const std::string text = testing::internal::GetCapturedStderr();
    if (err)
        *err = text;
    return result;
}

// A fresh RSA key made by the openssl tool, its public half in both PEM
// forms, and an EC public key, under /keys of the library's root.
class RsaCheck : public testing::Test {
protected:
    void SetUp() override
    {
        fx_.mkdir("/keys");
        tqtest::run("cd " + fx_.host("/keys") + " && openssl genrsa -out key.pem 2048 2>/dev/null" +
                    " && openssl rsa -in key.pem -RSAPublicKey_out -out pkcs1.pem 2>/dev/null" +
                    " && openssl rsa -in key.pem -pubout -out spki.pem 2>/dev/null" +
                    " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 2>/dev/null" +
                    " | openssl pkey -pubout -out ec.pem");
    }

    void provision(const std::string &name) { fx_.copy(tq::kPublicKeyPath, fx_.host("/keys/" + name)); }

    // The signature made by `openssl dgst -sha256 -sign` over the exact bytes,
    // as the `base64` tool prints it (wrapped at 76 columns).
    std::string sign(const std::string &bytes)
    {
        fx_.write("/msg", bytes);
        return tqtest::run("openssl dgst -sha256 -sign " + fx_.host("/keys/key.pem") + " " + fx_.host("/msg") +
                           " | base64");
    }

    tqtest::Fixture fx_;
};

TEST_F(RsaCheck, AcceptsWhatOpensslSignedAndNothingElse)
{
    provision("pkcs1.pem");
    const std::string message = "serial=ABC123;expires=2031-01-01";
    const std::string sig = sign(message), with_lf = sign(message + "\n");
    ASSERT_GT(std::count(sig.begin(), sig.end(), '\n'), 1) << "expected a wrapped signature";
    std::string flipped = sig;
    flipped[10] = flipped[10] == 'A' ? 'B' : 'A';
    tqtest::LeakCheck leaks;
    const struct {
        std::string message, signature;
        int want;
    } cases[] = {
        {message, sig, 1},
        {message, with_lf, 0}, // the text with its line feed is not what was signed
        {message + "\n", with_lf, 1},
        {message, flipped, 0},
    };
    for (const auto &c : cases) {
        for (Check check : {verify_signature, tavro_quenda_rsa_check}) {
            std::string err;
            EXPECT_EQ(captured(check, c.message.c_str(), c.signature.c_str(), &err), c.want) << c.message << c.signature;
            EXPECT_EQ(err, "");
        }
    }
    EXPECT_EQ(ERR_peek_error(), 0u); // refusals leave nothing on the caller's OpenSSL error queue
    EXPECT_TRUE(leaks.clean());
}

TEST_F(RsaCheck, TakesBothPemFormsOfAnRsaKeyAndExplainsEachRefusal)
{
    tqtest::LeakCheck leaks;
    const std::string sig = sign("m"), no_key = "Failed to load public key\n",
                      bad_sig = "Failed to decode base64 si11gnature\n",
                      null_arg = "Invalid parameters: message or signature is NULL\n";
    const struct {
        const char *key, *message, *signature;
        std::string err;
    } cases[] = {
        {nullptr, "m", sig.c_str(), "Error opening public key file: /etc/tavro-quenda/public.pem\n" + no_key},
        // A SubjectPublicKeyInfo key that is not RSA.
        {"ec.pem", "m", sig.c_str(), "Error reading public key from file: /etc/tavro-quenda/public.pem\n" + no_key},
        {"pkcs1.pem", "m", " \r\n", bad_sig},
        {"pkcs1.pem", "m", "", bad_sig},
        {"pkcs1.pem", nullptr, sig.c_str(), null_arg},
        {"pkcs1.pem", "m", nullptr, null_arg},
    };
    for (const auto &c : cases) {
        if (c.key)
            provision(c.key);
        std::string err;
        EXPECT_EQ(captured(verify_signature, c.message, c.signature, &err), 0) << c.err;
        EXPECT_EQ(err, c.err);
    }
    for (const char *key : {"pkcs1.pem", "spki.pem"}) {
        provision(key);
        EXPECT_EQ(captured(verify_signature, "m", sig.c_str()), 1) << key;
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
    EXPECT_TRUE(leaks.clean());
}

TEST(Wycheproof, AgreesWithEveryValidAndInvalidCase)
{
    tqtest::Fixture fixture;
    auto rows = tqtest::read_tsv(tqtest::corpus("vectors/rsa-pkcs1-sha256/cases.tsv"));
    ASSERT_EQ(rows.size(), 773u);
    std::vector<std::string> disagreed;
    std::string key;
    for (const auto &row : rows) { // id, key file, message hex, signature, expected result, flags
        if (row[1] != key)
            fixture.copy(tq::kPublicKeyPath, tqtest::corpus("vectors/rsa-pkcs1-sha256/" + (key = row[1])));
        int got = captured(verify_signature, tqtest::from_hex(row[2]).c_str(), row[3].c_str());
        if ((row[4] == "valid" && got != 1) || (row[4] == "invalid" && got != 0))
            disagreed.push_back(row[0] + " " + row[4] + " " + row[5]);
    }
    EXPECT_EQ(disagreed, std::vector<std::string>{});
}

TEST(FileDigest, AFifoOrADeviceIsRefusedAndAHugeFileIsStreamed)
{
    tqtest::Fixture fx;
    tqtest::expect_hostile_files(
        fx, "", "public key",
        [](const std::string &path) {
            RSA *rsa = load_public_key(path.c_str());
            RSA_free(rsa);
            return rsa ? "key" : "<null>";
        },
        "<null>", "<null>");
    const std::string huge_sha256 = tqtest::run("sha256sum < '" + fx.host("/huge") + "'").substr(0, 64);
    for (auto [check, hex] : {std::pair<Check, const char *>{file_check_sha256, huge_sha256.c_str()},
                              {file_check_md5, "d41d8cd98f00b204e9800998ecf8427e"}}) {
        tqtest::expect_hostile_files(
            fx, "", hex, [&](const std::string &path) { return std::to_string(check(path.c_str(), hex)); }, "0",
            check == file_check_sha256 ? "1" : nullptr);
    }
}

} // namespace
