#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fixture.h"
#include "integrity/aes_record.h"
#include "leak_check.h"
#include "peer_tools.h"
#include "tavro-quenda.h"

namespace {

using tqtest::run;

const std::string kKeyHex = "7175696c6c6f6e5f706176656d656e74"; // "quillon_pavement"
const std::string kIvHex = "5a1c0e77d29b4f3806e1a9c47b2d8f13";

std::string encrypt(const std::string &text)
{
    std::vector<unsigned char> out(1024 + 16, 0xee);
    int32_t n = tavro_aes_encrypt(text.c_str(), out.data(), 1024);
    if (n < 0)
        return "<refused>";
    EXPECT_EQ(out[static_cast<size_t>(n)], 0xee) << "wrote past the ciphertext";
    return std::string(reinterpret_cast<char *>(out.data()), static_cast<size_t>(n));
}

std::string openssl_enc(const std::string &dir, const std::string &plain, bool decrypt)
{
    tqtest::write_bytes(dir + "/enc-in", plain);
    auto r = run("openssl enc " + std::string(decrypt ? "-d " : "") + "-aes-128-cbc -nopad -K " + kKeyHex +
                 " -iv " + kIvHex + " -in " + dir + "/enc-in");
    EXPECT_EQ(r.status, 0);
    return r.out;
}

std::string read_record(const std::string &path)
{
    std::unique_ptr<char, decltype(&std::free)> text(read_decrypt_file_to_str(path.c_str()), &std::free);
    return text ? std::string(text.get()) : "<null>";
}

TEST(AesRecord, KeyIsTheLibrarysOwn)
{
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(g_vex_key), 16), "quillon_pavement");
}

TEST(AesRecord, CiphertextLengthsFollowTheTextAndItsTerminator)
{
    EXPECT_EQ(encrypt("").size(), 16u);
    EXPECT_EQ(encrypt(std::string(15, 'a')).size(), 16u);
    EXPECT_EQ(encrypt(std::string(16, 'a')).size(), 32u);
    EXPECT_EQ(encrypt(std::string(31, 'a')).size(), 32u);
    EXPECT_EQ(encrypt(std::string(1023, 'a')).size(), 1024u);
    EXPECT_EQ(encrypt(std::string(1024, 'a')), "<refused>");
    EXPECT_EQ(encrypt(std::string(5000, 'a')), "<refused>");
    EXPECT_EQ(encrypt("same text"), encrypt("same text"));
    EXPECT_NE(encrypt("same text"), encrypt("same texT"));

    unsigned char out[16];
    EXPECT_EQ(tavro_aes_encrypt(nullptr, out, 16), -1);
    EXPECT_EQ(tavro_aes_encrypt("x", nullptr, 16), -1);
}

TEST(AesRecord, ReadsOnlyTheTextItIsGiven)
{
    // A short text in an exact-size heap buffer: nothing beyond its NUL is read.
    std::unique_ptr<char[]> text(new char[4]);
    std::memcpy(text.get(), "abc", 4);
    unsigned char out[16];
    ASSERT_EQ(tavro_aes_encrypt(text.get(), out, 16), 16);
    // The working block beyond the text is zeros, whatever followed the NUL.
    std::string dirty("abc\0garbage-after-the-terminator", 32);
    unsigned char out2[16];
    ASSERT_EQ(tavro_aes_encrypt(dirty.c_str(), out2, 16), 16);
    EXPECT_EQ(std::memcmp(out, out2, 16), 0);
}

TEST(AesRecord, AgreesWithOpensslEncBothWays)
{
    tqtest::TempDir dir;
    for (size_t n : {0u, 1u, 15u, 16u, 17u, 100u, 1023u}) {
        std::string text = tqtest::random_bytes(n, static_cast<unsigned>(n));
        for (char &c : text)
            c = static_cast<char>('!' + static_cast<unsigned char>(c) % 90);
        std::string padded = text + std::string(16 - text.size() % 16, '\0');

        // The library's record file, decrypted by the tool.
        std::string record = dir / "record";
        ASSERT_EQ(tq::write_encrypt_str_to_file(record.c_str(), text.c_str()), 0);
        std::string bytes = tqtest::read_file(record);
        EXPECT_EQ(bytes.size(), padded.size()) << n;
        EXPECT_EQ(bytes, encrypt(text)) << n;
        EXPECT_EQ(openssl_enc(dir.path(), bytes, true), padded) << n;
        EXPECT_EQ(read_record(record), text) << n;

        // The tool's ciphertext, read back by the library.
        std::string theirs = openssl_enc(dir.path(), padded, false);
        EXPECT_EQ(theirs, bytes) << n;
        tqtest::write_bytes(dir / "theirs", theirs);
        EXPECT_EQ(read_record(dir / "theirs"), text) << n;

        std::vector<unsigned char> plain(theirs.size());
        ASSERT_EQ(tavro_aes_decrypt(reinterpret_cast<const unsigned char *>(theirs.data()), plain.data(),
                                    static_cast<uint32_t>(theirs.size())),
                  0);
        EXPECT_EQ(std::string(plain.begin(), plain.end()), padded) << n;
    }
}

TEST(AesRecord, RefusesEmptyOversizedAndMissingRecords)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    tqtest::write_bytes(dir / "empty", "");
    EXPECT_EQ(read_record(dir / "empty"), "<null>");
    EXPECT_EQ(read_record(dir / "missing"), "<null>");
    EXPECT_EQ(read_record(dir.path()), "<null>");
    EXPECT_EQ(read_decrypt_file_to_str(nullptr), nullptr);

    std::string big = encrypt(std::string(1023, 'z'));
    tqtest::write_bytes(dir / "full", big);
    EXPECT_EQ(read_record(dir / "full"), std::string(1023, 'z'));
    tqtest::write_bytes(dir / "over", big + "x");
    EXPECT_EQ(read_record(dir / "over"), "<null>");
    EXPECT_TRUE(leaks.clean());
}

TEST(AesRecord, DamagedRecordsStayInsideTheirBuffers)
{
    tqtest::TempDir dir;
    // 1,024 bytes that decrypt to no zero byte at all: still a C string.
    std::string nonzero = openssl_enc(dir.path(), std::string(1024, 'A'), false);
    ASSERT_EQ(nonzero.size(), 1024u);
    tqtest::write_bytes(dir / "full", nonzero);
    std::unique_ptr<char, decltype(&std::free)> text(read_decrypt_file_to_str((dir / "full").c_str()), &std::free);
    ASSERT_TRUE(text);
    EXPECT_EQ(std::string(text.get()), std::string(1023, 'A'));

    // A torn record: whole blocks decrypt as usual; the tail is bounded.
    std::string record = encrypt("hello, record of two blocks");
    ASSERT_EQ(record.size(), 32u);
    std::string torn = record.substr(0, 20);
    std::unique_ptr<unsigned char[]> exact(new unsigned char[20]);
    std::memcpy(exact.get(), torn.data(), 20);
    std::vector<unsigned char> out(21, 0xee);
    ASSERT_EQ(tavro_aes_decrypt(exact.get(), out.data(), 20), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out.data()), 16), "hello, record of");
    EXPECT_EQ(out[20], 0xee);
    tqtest::write_bytes(dir / "torn", torn);
    EXPECT_EQ(read_record(dir / "torn").substr(0, 16), "hello, record of");

    std::vector<unsigned char> short_out(8, 0xee);
    ASSERT_EQ(tavro_aes_decrypt(reinterpret_cast<const unsigned char *>(record.data()), short_out.data(), 7), 0);
    EXPECT_EQ(tavro_aes_decrypt(reinterpret_cast<const unsigned char *>(record.data()), short_out.data(), 0), 0);
    EXPECT_EQ(short_out[7], 0xee);
}

TEST(AesRecord, WriterTruncatesAndRefusesOverlongText)
{
    tqtest::TempDir dir;
    tqtest::LeakCheck leaks;
    std::string path = dir / "record";
    ASSERT_EQ(tq::write_encrypt_str_to_file(path.c_str(), "first, a longer text than the second"), 0);
    ASSERT_EQ(tq::write_encrypt_str_to_file(path.c_str(), "second"), 0);
    EXPECT_EQ(std::filesystem::file_size(path), 16u);
    EXPECT_EQ(read_record(path), "second");

    // Refused, and the file is left truncated and empty.
    EXPECT_EQ(tq::write_encrypt_str_to_file(path.c_str(), std::string(1024, 'x').c_str()), -1);
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(std::filesystem::file_size(path), 0u);
    EXPECT_EQ(tq::write_encrypt_str_to_file((dir / "no/dir/record").c_str(), "x"), -1);
    EXPECT_EQ(tq::write_encrypt_str_to_file(nullptr, "x"), -1);
    EXPECT_TRUE(leaks.clean());
}

TEST(AesRecord, PathsFollowTheLibraryRoot)
{
    tqtest::Fixture fixture;
    ASSERT_EQ(tq::write_encrypt_str_to_file("/record", "rooted"), 0);
    EXPECT_EQ(fixture.read("/record"), encrypt("rooted"));
    EXPECT_EQ(read_record("/record"), "rooted");
}

} // namespace
