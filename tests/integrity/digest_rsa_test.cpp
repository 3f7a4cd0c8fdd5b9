// load_public_key hands out an RSA *, released with RSA_free: use the API
// level that declares it without deprecation.
#define OPENSSL_API_COMPAT 0x10100000L

#include <gtest/gtest.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "fixture.h"
#include "integrity/digest_rsa.h"
#include "leak_check.h"
#include "peer_tools.h"
#include "tavro-quenda.h"

namespace {

using tqtest::run;

std::string upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::toupper(c); });
    return s;
}

std::string tool_digest(const std::string &tool, const std::string &path)
{
    auto r = run(tool + " " + path);
    EXPECT_EQ(r.status, 0);
    return r.out.substr(0, r.out.find(' '));
}

TEST(FileDigest, AgreesWithPublishedVectors)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    auto rows = tqtest::read_tsv(tqtest::corpus("vectors/digests.tsv"));
    ASSERT_GE(rows.size(), 10u);
    for (const auto &row : rows) {
        std::string unit = tqtest::from_hex(row[1]), bytes;
        for (int i = std::stoi(row[2]); i > 0; --i)
            bytes += unit;
        std::string path = dir / row[0];
        tqtest::write_bytes(path, bytes);
        EXPECT_EQ(file_check_md5(path.c_str(), row[3].c_str()), 1) << row[0];
        EXPECT_EQ(file_check_sha1(path.c_str(), row[4].c_str()), 1) << row[0];
        EXPECT_EQ(file_check_sha256(path.c_str(), row[5].c_str()), 1) << row[0];
        // Each check compares its own digest, not a sibling's.
        EXPECT_EQ(file_check_sha256(path.c_str(), row[4].c_str()), 0) << row[0];
        EXPECT_EQ(file_check_md5(path.c_str(), row[5].c_str()), 0) << row[0];
    }
    EXPECT_TRUE(leaks.clean());
}

TEST(FileDigest, AgreesWithCoreutilsAcrossReadBoundaries)
{
    tqtest::TempDir dir;
    for (size_t size : {0u, 1u, 1023u, 1024u, 1025u, 65535u, 65536u, 65537u, 3u * 65536u + 17u}) {
        std::string path = dir / ("f" + std::to_string(size));
        tqtest::write_bytes(path, tqtest::random_bytes(size, static_cast<unsigned>(size)));
        EXPECT_EQ(file_check_md5(path.c_str(), tool_digest("md5sum", path).c_str()), 1) << size;
        EXPECT_EQ(file_check_sha1(path.c_str(), tool_digest("sha1sum", path).c_str()), 1) << size;
        EXPECT_EQ(file_check_sha256(path.c_str(), tool_digest("sha256sum", path).c_str()), 1) << size;
    }
}

TEST(FileDigest, ComparisonIsCaseSensitivePrefixOfDigestLength)
{
    tqtest::TempDir dir;
    std::string path = dir / "empty";
    tqtest::write_bytes(path, "");
    const std::string sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e";
    EXPECT_EQ(file_check_sha256(path.c_str(), sha256.c_str()), 1);
    EXPECT_EQ(file_check_sha256(path.c_str(), upper(sha256).c_str()), 0);
    EXPECT_EQ(file_check_md5(path.c_str(), md5.c_str()), 1);
    EXPECT_EQ(file_check_md5(path.c_str(), md5.substr(0, 31).c_str()), 0);
    EXPECT_EQ(file_check_md5(path.c_str(), (md5 + "anything at all").c_str()), 1);
    EXPECT_EQ(file_check_md5(path.c_str(), ""), 0);
}

TEST(FileDigest, UnreadablePathsAndBadArgumentsGiveNo)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    const char *md5_empty = "d41d8cd98f00b204e9800998ecf8427e";
    EXPECT_EQ(file_check_md5(dir.path().c_str(), md5_empty), 0); // a directory: the read fails
    EXPECT_EQ(file_check_md5((dir / "missing").c_str(), md5_empty), 0);
    EXPECT_EQ(file_check_md5(nullptr, md5_empty), 0);
    std::string path = dir / "empty";
    tqtest::write_bytes(path, "");
    EXPECT_EQ(file_check_md5(path.c_str(), nullptr), 0);
    EXPECT_EQ(tq::file_digest_matches(path.c_str(), md5_empty, nullptr, 16), 0);

    // The routines write exactly the hex characters, and refuse a short buffer.
    char hex[70];
    std::memset(hex, '#', sizeof hex);
    EXPECT_EQ(tq::file_sha256_hex(path.c_str(), hex, 63), -1);
    EXPECT_EQ(tq::file_sha256_hex(path.c_str(), nullptr, 64), -1);
    EXPECT_EQ(tq::file_sha256_hex(path.c_str(), hex, 64), 0);
    EXPECT_EQ(std::string(hex, 65), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855#");
    EXPECT_EQ(tq::file_sha1_hex(path.c_str(), hex, 39), -1);
    EXPECT_EQ(tq::file_md5_hex(path.c_str(), hex, 31), -1);
    EXPECT_EQ(tq::file_md5_hex(path.c_str(), hex, 32), 0);
    EXPECT_EQ(std::string(hex, 32), md5_empty);
    EXPECT_TRUE(leaks.clean());
}

TEST(MessageDigest, HashesTheTextWithoutItsTerminator)
{
    unsigned char digest[32];
    ASSERT_TRUE(compute_sha256("abc", digest));
    EXPECT_EQ(tqtest::to_hex(std::string(reinterpret_cast<char *>(digest), 32)),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_FALSE(compute_sha256(nullptr, digest));
    EXPECT_FALSE(compute_sha256("abc", nullptr));
}

// A fresh RSA key made by the openssl tool, its public half in both PEM forms,
// and a fixture root for the library's key path.
class RsaCheck : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(run("openssl genrsa -out " + dir_ / "key.pem" + " 2048 2>/dev/null").status, 0);
        ASSERT_EQ(run("openssl rsa -in " + dir_ / "key.pem" + " -RSAPublicKey_out -out " + dir_ / "pkcs1.pem" +
                      " 2>/dev/null")
                      .status,
                  0);
        ASSERT_EQ(run("openssl rsa -in " + dir_ / "key.pem" + " -pubout -out " + dir_ / "spki.pem" + " 2>/dev/null")
                      .status,
                  0);
    }

    void provision(const std::string &name) { fixture_.copy(tq::kPublicKeyPath, dir_ / name); }

    // The signature made by `openssl dgst -sha256 -sign` over the exact bytes,
    // as the `base64` tool prints it (wrapped at 76 columns).
    std::string sign(const std::string &bytes)
    {
        tqtest::write_bytes(dir_ / "msg", bytes);
        auto r = run("openssl dgst -sha256 -sign " + dir_ / "key.pem" + " " + dir_ / "msg" + " | base64");
        EXPECT_EQ(r.status, 0);
        return r.out;
    }

    // verify_signature with stdout and stderr captured.
    int verify(const char *message, const char *signature, std::string *err = nullptr, std::string *out = nullptr)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int ok = verify_signature(message, signature);
        std::string o = testing::internal::GetCapturedStdout();
        std::string e = testing::internal::GetCapturedStderr();
        if (err)
            *err = e;
        if (out)
            *out = o;
        return ok;
    }

    tqtest::TempDir dir_;
    tqtest::Fixture fixture_;
};

TEST_F(RsaCheck, AcceptsWhatOpensslSignedAndNothingElse)
{
    provision("pkcs1.pem");
    const char *message = "serial=ABC123;expires=2031-01-01";
    std::string sig = sign(message);
    ASSERT_GT(std::count(sig.begin(), sig.end(), '\n'), 1) << "expected a wrapped signature";

    tqtest::LeakCheck leaks;
    std::string err, out;
    EXPECT_EQ(verify(message, sig.c_str(), &err, &out), 1);
    EXPECT_EQ(err, "");
    std::string one_line = sig;
    one_line.erase(std::remove(one_line.begin(), one_line.end(), '\n'), one_line.end());
    EXPECT_EQ(out, "Cleaned Base64 (" + std::to_string(one_line.size()) + " chars): " + one_line + "\n");

    // The same signature wrapped with CR LF, or with blanks, still verifies.
    std::string crlf;
    for (char c : sig)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    EXPECT_EQ(verify(message, crlf.c_str()), 1);
    EXPECT_EQ(verify(message, (" " + one_line + " ").c_str()), 1);
    testing::internal::CaptureStdout();
    int exported = tavro_quenda_rsa_check(message, sig.c_str());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(exported, 1);

    // Other text, or the text with its line feed, is not what was signed.
    EXPECT_EQ(verify("serial=ABC124;expires=2031-01-01", sig.c_str()), 0);
    std::string with_lf = sign(std::string(message) + "\n");
    EXPECT_EQ(verify(message, with_lf.c_str()), 0);
    EXPECT_EQ(verify((std::string(message) + "\n").c_str(), with_lf.c_str()), 1);
    // One flipped signature bit.
    std::string bad = one_line;
    bad[10] = bad[10] == 'A' ? 'B' : 'A';
    EXPECT_EQ(verify(message, bad.c_str(), &err), 0);
    EXPECT_EQ(err, "");
    testing::internal::CaptureStdout();
    exported = tavro_quenda_rsa_check(message, bad.c_str());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(exported, 0);
    EXPECT_TRUE(leaks.clean());
}

TEST_F(RsaCheck, ExplainsEachRefusalOnStandardError)
{
    std::string sig = sign("m");
    std::string err;

    // No key provisioned.
    EXPECT_EQ(verify("m", sig.c_str(), &err), 0);
    EXPECT_EQ(err, "Error opening public key file: /etc/tavro-quenda/public.pem\nFailed to load public key\n");

    // The same key as SubjectPublicKeyInfo is not the accepted form.
    provision("spki.pem");
    EXPECT_EQ(verify("m", sig.c_str(), &err), 0);
    EXPECT_EQ(err, "Error reading public key from file: /etc/tavro-quenda/public.pem\nFailed to load public key\n");

    provision("pkcs1.pem");
    EXPECT_EQ(verify("m", " \r\n", &err), 0);
    EXPECT_EQ(err, "Failed to decode base64 si11gnature\n");
    EXPECT_EQ(verify("m", "", &err), 0);
    EXPECT_EQ(err, "Failed to decode base64 si11gnature\n");
    EXPECT_EQ(verify(nullptr, sig.c_str(), &err), 0);
    EXPECT_EQ(err, "Invalid parameters: message or signature is NULL\n");
    EXPECT_EQ(verify("m", nullptr, &err), 0);
    EXPECT_EQ(err, "Invalid parameters: message or signature is NULL\n");
    EXPECT_EQ(verify("m", sig.c_str(), &err), 1);
}

TEST_F(RsaCheck, LoadsOnlyPkcs1PublicKeys)
{
    for (const char *name : {"pkcs1.pem", "spki.pem", "key.pem"})
        fixture_.copy(std::string("/keys/") + name, dir_ / name);
    tqtest::LeakCheck leaks;
    RSA *key = load_public_key("/keys/pkcs1.pem");
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(RSA_size(key), 256);
    RSA_free(key);

    testing::internal::CaptureStderr();
    RSA *spki = load_public_key("/keys/spki.pem");
    RSA *priv = load_public_key("/keys/key.pem");
    RSA *none = load_public_key(nullptr);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(spki, nullptr);
    EXPECT_EQ(priv, nullptr);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(err, "Error reading public key from file: /keys/spki.pem\n"
                   "Error reading public key from file: /keys/key.pem\n"
                   "Error opening public key file: (null)\n");
    EXPECT_TRUE(leaks.clean());
}

TEST(Wycheproof, AgreesWithEveryValidAndInvalidCase)
{
    tqtest::Fixture fixture;
    auto rows = tqtest::read_tsv(tqtest::corpus("vectors/rsa-pkcs1-sha256/cases.tsv"));
    ASSERT_EQ(rows.size(), 773u);
    int valid = 0, valid_agreed = 0, invalid = 0, invalid_agreed = 0, acceptable = 0, acceptable_accepted = 0;
    std::string current_key;
    std::vector<std::string> disagreed;
    // The decoder's line on stdout and gtest's own reports share the streams:
    // collect the disagreements and report them after the capture.
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (const auto &row : rows) {
        const std::string &id = row[0], &key = row[1], &expected = row[4];
        if (key != current_key) {
            fixture.copy(tq::kPublicKeyPath, tqtest::corpus("vectors/rsa-pkcs1-sha256/" + key));
            current_key = key;
        }
        std::string message = tqtest::from_hex(row[2]);
        int got = verify_signature(message.c_str(), row[3].c_str());
        if (expected == "valid") {
            ++valid;
            valid_agreed += got == 1;
            if (got != 1)
                disagreed.push_back(id);
        } else if (expected == "invalid") {
            ++invalid;
            invalid_agreed += got == 0;
            if (got != 0)
                disagreed.push_back(id + " " + row[5]);
        } else {
            ++acceptable;
            acceptable_accepted += got;
        }
    }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    std::cerr << "Wycheproof: valid " << valid_agreed << "/" << valid << " agreed, invalid " << invalid_agreed << "/"
              << invalid << " agreed, acceptable accepted " << acceptable_accepted << "/" << acceptable << "\n";
    EXPECT_EQ(disagreed, std::vector<std::string>{});
    EXPECT_EQ(valid, 21);
    EXPECT_EQ(invalid, 749);
}

} // namespace
