// SPDX-License-Identifier: LGPL-2.1-or-later
#include "integrity/aes_record.h"
#include "peer_tools.h"

namespace {

const std::string kKeyHex = "7175696c6c6f6e5f706176656d656e74"; // "quillon_pavement"
const std::string kIvHex = "5a1c0e77d29b4f3806e1a9c47b2d8f13";

std::string encrypt(const std::string &text)
{
    std::vector<unsigned char> out(1024 + 16, 0xee);
    int32_t n = tavro_aes_encrypt(text.c_str(), out.data(), 1024);
    if (n < 0)
        return "<refused>";
    EXPECT_EQ(out[static_cast<size_t>(n)], 0xee) << "wrote past the ciphertext";
    return std::string(out.begin(), out.begin() + n);
}

// `openssl enc -aes-128-cbc -nopad` with the library's key and IV.
std::string openssl_enc(tqtest::Fixture &fx, const std::string &in)
{
    fx.write("/enc-in", in);
    return tqtest::run("openssl enc -aes-128-cbc -nopad -K " + kKeyHex + " -iv " + kIvHex + " -in " + fx.host("/enc-in"));
}

std::string read_record(const std::string &path) { return tqtest::take(read_decrypt_file_to_str(path.c_str())); }

TEST(AesRecord, AgreesWithOpensslEncBothWays)
{
    tqtest::Fixture fx;
    // Text length -> record length: the text, its NUL, zeros up to a whole block.
    for (auto [n, size] : {std::pair{0, 16}, {1, 16}, {15, 16}, {16, 32}, {17, 32}, {100, 112}, {1023, 1024}}) {
        const std::string text = tqtest::random_bytes(n, n, true), padded = text + std::string(size - n, '\0');
        SCOPED_TRACE(n);
        // CBC with a fixed IV is deterministic: the same ciphertext means the same padded text.
        const std::string theirs = openssl_enc(fx, padded);
        ASSERT_EQ(tq::write_encrypt_str_to_file("/ours", text.c_str()), 0);
        EXPECT_EQ(fx.read("/ours"), theirs);
        EXPECT_EQ(encrypt(text), theirs);
        // The library reads the tool's ciphertext back.
        fx.write("/theirs", theirs);
        EXPECT_EQ(read_record("/theirs"), text);
    }
}

TEST(AesRecord, RefusesOverlongTextReadsOnlyTheTextItIsGivenAndTruncatesTheRecord)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    EXPECT_EQ(encrypt(std::string(1024, 'a')), "<refused>");
    unsigned char out[16], out2[16];
    EXPECT_EQ(tavro_aes_encrypt(nullptr, out, 16), -1);
    // A short text in an exact-size buffer: nothing beyond its NUL is read, and
    // the working block beyond the text is zeros whatever follows.
    ASSERT_EQ(tavro_aes_encrypt(tqtest::exact_copy("abc").get(), out, 16), 16);
    ASSERT_EQ(tavro_aes_encrypt(std::string("abc\0garbage-after-the-terminator", 32).c_str(), out2, 16), 16);
    EXPECT_EQ(std::memcmp(out, out2, 16), 0);
    // An out buffer smaller than the ciphertext is refused and left untouched.
    for (auto [text, size] : {std::pair{"abc", 15u}, {"sixteen chars...", 16u}}) {
        auto small = tqtest::exact_copy<unsigned char>(std::string(size, '\xee'), size);
        EXPECT_EQ(tavro_aes_encrypt(tqtest::exact_copy(text).get(), small.get(), size), -1) << text;
        EXPECT_EQ(std::string(reinterpret_cast<char *>(small.get()), size), std::string(size, '\xee')) << text;
    }

    ASSERT_EQ(tq::write_encrypt_str_to_file("/record", "first, a longer text than the second"), 0);
    ASSERT_EQ(tq::write_encrypt_str_to_file("/record", "second"), 0);
    EXPECT_EQ(fx.read("/record"), encrypt("second"));
    // Refused, and the file is left truncated and empty.
    EXPECT_EQ(tq::write_encrypt_str_to_file("/record", std::string(1024, 'x').c_str()), -1);
    EXPECT_TRUE(std::filesystem::exists(fx.host("/record")));
    EXPECT_EQ(fx.read("/record"), "");
    EXPECT_EQ(tq::write_encrypt_str_to_file("/no/dir/record", "x"), -1);
    EXPECT_EQ(tq::write_encrypt_str_to_file(nullptr, "x"), -1);
    EXPECT_TRUE(leaks.clean());
}

TEST(AesRecord, ReaderRefusesWhatIsNoRecordOrNoFileAndStaysInsideDamagedOnes)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    const std::string full = encrypt(std::string(1023, 'z')), record = encrypt("hello, record of two blocks");
    fx.write("/empty", "");
    fx.write("/full", full);
    fx.write("/over", full + "x");
    // 1,024 bytes that decrypt to no zero byte at all: still a C string.
    fx.write("/nonzero", openssl_enc(fx, std::string(1024, 'A')));
    const std::pair<const char *, std::string> cases[] = {
        {"/empty", "<null>"}, {"/missing", "<null>"}, {"/var/log", "<null>"}, // a directory
        {"/over", "<null>"},  {"/full", std::string(1023, 'z')}, {"/nonzero", std::string(1023, 'A')}};
    for (const auto &[path, want] : cases)
        EXPECT_EQ(read_record(path), want) << path;
    EXPECT_EQ(read_decrypt_file_to_str(nullptr), nullptr);
    EXPECT_TRUE(leaks.clean());

    // A torn record: whole blocks decrypt as usual; the tail stays inside the exact-size input.
    auto torn = tqtest::exact_copy<unsigned char>(record, 20);
    std::vector<unsigned char> out(21, 0xee);
    ASSERT_EQ(tavro_aes_decrypt(torn.get(), out.data(), 20), 0);
    EXPECT_EQ(std::string(out.begin(), out.begin() + 16), "hello, record of");
    EXPECT_EQ(tavro_aes_decrypt(torn.get(), out.data(), 7), 0); // shorter than one block
    EXPECT_EQ(out[20], 0xee);
    tqtest::expect_hostile_files(fx, "", "record", read_record, "<null>", "<null>");
}

} // namespace
