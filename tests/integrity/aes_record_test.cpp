// SPDX-License-Identifier: LGPL-2.1-or-later
#include "integrity/aes_record.h"
#include "peer_tools.h"

namespace {

// The ciphertext, or "<refused>" (with nothing written), from an out buffer of out_size bytes.
std::string encrypt(const char *text, uint32_t out_size)
{
    std::vector<unsigned char> out(out_size + 1, 0xee);
    const int32_t n = tavro_aes_encrypt(text, out.data(), out_size);
    EXPECT_EQ(out[n < 0 ? 0 : static_cast<size_t>(n)], 0xee) << "wrote past the ciphertext";
    return n < 0 ? "<refused>" : std::string(out.begin(), out.begin() + n);
}

// `openssl enc -aes-128-cbc -nopad` with the library's key ("quillon_pavement") and IV.
std::string openssl_enc(tqtest::Fixture &fx, const std::string &in)
{
    fx.write("/enc-in", in);
    return tqtest::run("openssl enc -aes-128-cbc -nopad -K 7175696c6c6f6e5f706176656d656e74"
                       " -iv 5a1c0e77d29b4f3806e1a9c47b2d8f13 -in " + fx.host("/enc-in"));
}

TEST(AesRecord, AgreesWithOpensslEncBothWays)
{
    tqtest::Fixture fx;
    // Text length -> record length: the text, its NUL, zeros up to a whole block.
    for (auto [n, size] : {std::pair{0u, 16u}, {1u, 16u}, {15u, 16u}, {16u, 32u}, {17u, 32u}, {1023u, 1024u}}) {
        const std::string text = tqtest::random_bytes(n, n, true), padded = text + std::string(size - n, '\0');
        SCOPED_TRACE(n);
        // CBC with a fixed IV is deterministic: the same ciphertext means the same padded text.
        const std::string theirs = openssl_enc(fx, padded);
        ASSERT_EQ(tq::write_encrypt_str_to_file("/ours", text.c_str()), 0);
        EXPECT_EQ(fx.read("/ours"), theirs);
        // Only the text is read, and an out buffer of exactly the record's size is enough.
        EXPECT_EQ(encrypt(tqtest::exact_copy(text).get(), size), theirs);
        EXPECT_EQ(encrypt(text.c_str(), size - 1), "<refused>");
        fx.write("/theirs", theirs);
        EXPECT_EQ(tqtest::take(read_decrypt_file_to_str("/theirs")), text);
    }
}

TEST(AesRecord, RefusesWhatIsNoRecordAndStaysInsideTornOnes)
{
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
    const std::string overlong(1024, 'x');
    EXPECT_EQ(encrypt(overlong.c_str(), 2048), "<refused>");
    EXPECT_EQ(encrypt(nullptr, 16), "<refused>");
    // The working block beyond the text is zeros whatever follows its NUL.
    EXPECT_EQ(encrypt(std::string("abc\0garbage-after-it", 20).c_str(), 16), encrypt("abc", 16));

    // A refused text leaves the record truncated and empty.
    ASSERT_EQ(tq::write_encrypt_str_to_file("/record", "an earlier text"), 0);
    EXPECT_EQ(tq::write_encrypt_str_to_file("/record", overlong.c_str()), -1);
    EXPECT_EQ(fx.read("/record"), "");
    EXPECT_EQ(tq::write_encrypt_str_to_file("/no/dir/record", "x"), -1);
    // An empty file is no record; 1,024 bytes that decrypt to no zero byte still give a C string.
    fx.write("/nonzero", openssl_enc(fx, std::string(1024, 'A')));
    EXPECT_EQ(tqtest::take(read_decrypt_file_to_str("/record")), "<null>");
    EXPECT_EQ(tqtest::take(read_decrypt_file_to_str("/nonzero")), std::string(1023, 'A'));

    // A torn record decrypts as if zero-filled to whole blocks, within the exact-size input and output.
    const std::string record = encrypt("hello, record of two blocks", 32);
    for (uint32_t n : {1u, 20u}) {
        const std::string filled = record.substr(0, n) + std::string(32 - n, '\0');
        std::vector<unsigned char> out(n + 1, 0xee), want(32);
        ASSERT_EQ(tavro_aes_decrypt(tqtest::exact_copy<unsigned char>(record, n).get(), out.data(), n), 0);
        ASSERT_EQ(tavro_aes_decrypt(reinterpret_cast<const unsigned char *>(filled.data()), want.data(), 32), 0);
        EXPECT_EQ(std::string(out.begin(), out.end() - 1), std::string(want.begin(), want.begin() + n)) << n;
        EXPECT_EQ(out[n], 0xee) << n;
    }
    EXPECT_TRUE(leaks.clean());
}

} // namespace
