#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fixture.h"
#include "integrity/base64.h"
#include "leak_check.h"
#include "peer_tools.h"
#include "tavro-quenda.h"

namespace {

using tqtest::run;

struct Decoded {
    int rc;
    std::string bytes;
};

std::string encode(const std::string &bytes)
{
    std::string out(4 * ((bytes.size() + 2) / 3) + 8, '#');
    uint32_t len = 0;
    EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char *>(bytes.data()),
                            static_cast<uint32_t>(bytes.size()), out.data(), &len),
              0);
    EXPECT_EQ(out[len], '#') << "wrote past its length";
    return out.substr(0, len);
}

Decoded decode(const std::string &text)
{
    std::vector<unsigned char> out(text.size() + 1);
    uint32_t len = 12345;
    int rc = base64_decode(text.c_str(), static_cast<uint32_t>(text.size()), out.data(), &len);
    if (rc != 0)
        return {rc, ""};
    return {rc, std::string(reinterpret_cast<char *>(out.data()), len)};
}

Decoded decode_clean(const char *text)
{
    int32_t len = -7;
    std::unique_ptr<unsigned char, decltype(&std::free)> out(base64_decode_clean(text, &len), &std::free);
    if (!out)
        return {-1, ""};
    return {0, std::string(reinterpret_cast<char *>(out.get()), static_cast<size_t>(len))};
}

struct Url {
    int rc;
    std::string text;
    uint32_t len;
};

Url to_url(const std::string &in)
{
    std::string out(3 * in.size() + 1, '#');
    uint32_t len = 99;
    int rc = transform_to_url(in.c_str(), static_cast<int32_t>(in.size()), out.data(), &len);
    return {rc, rc == 0 ? std::string(out.c_str()) : "", len};
}

Url from_url(const std::string &in)
{
    std::string out(in.size() + 1, '#');
    uint32_t len = 99;
    int rc = transform_from_url(in.c_str(), static_cast<int32_t>(in.size()), out.data(), &len);
    return {rc, rc == 0 ? std::string(out.c_str()) : out, len};
}

TEST(Base64, AgreesWithRfc4648Vectors)
{
    auto rows = tqtest::read_tsv(tqtest::corpus("vectors/base64.tsv"));
    ASSERT_EQ(rows.size(), 10u);
    for (const auto &row : rows) {
        std::string bytes = tqtest::from_hex(row[0]);
        if (bytes.empty()) {
            uint32_t len = 0;
            char out[4];
            EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char *>(""), 0, out, &len), 62);
            continue;
        }
        EXPECT_EQ(encode(bytes), row[1]);
        Decoded d = decode(row[1]);
        EXPECT_EQ(d.rc, 0);
        EXPECT_EQ(d.bytes, bytes) << row[1];
    }
}

TEST(Base64, AgreesWithTheBase64Tool)
{
    tqtest::TempDir dir;
    for (size_t size : {1u, 2u, 3u, 4u, 57u, 58u, 100u, 255u, 4096u, 100001u}) {
        std::string bytes = tqtest::random_bytes(size, static_cast<unsigned>(size));
        tqtest::write_bytes(dir / "in", bytes);
        auto tool = run("base64 -w0 " + dir / "in");
        ASSERT_EQ(tool.status, 0);
        std::string ours = encode(bytes);
        EXPECT_EQ(ours, tool.out) << size;
        EXPECT_EQ(ours.find('\n'), std::string::npos);
        EXPECT_EQ(decode(tool.out).bytes, bytes) << size;

        // The tool's default output is wrapped at 76 columns: only the
        // lenient decoder takes it.
        auto wrapped = run("base64 " + dir / "in");
        Decoded lenient = decode_clean(wrapped.out.c_str());
        EXPECT_EQ(lenient.bytes, bytes) << size;
        tqtest::write_bytes(dir / "ours", ours);
        EXPECT_EQ(run("base64 -d " + dir / "ours").out, bytes) << size;
    }
    EXPECT_EQ(encode(std::string(100, 'x')).size(), 136u);
}

TEST(Base64, StrictDecoderRefusesMalformedText)
{
    EXPECT_EQ(decode("YWJj").bytes, "abc");
    EXPECT_EQ(decode("YQ==").bytes, "a");
    EXPECT_EQ(decode("YWE=").bytes, "aa");
    EXPECT_EQ(decode("YWJ").rc, 59);
    EXPECT_EQ(decode("YWJjY").rc, 59);
    EXPECT_EQ(decode("YW J").rc, 60);
    EXPECT_EQ(decode("YW_j").rc, 60);
    EXPECT_EQ(decode("YWJ\n").rc, 60);
    EXPECT_EQ(decode("Y=Jj").rc, 61);
    EXPECT_EQ(decode("YW=j").rc, 61);
    EXPECT_EQ(decode("Y===").rc, 61);
    EXPECT_EQ(decode("YQ==YWJj").rc, 61);
    // base64url's alphabet is not accepted.
    EXPECT_EQ(decode("-_-_").rc, 60);

    unsigned char out[8];
    uint32_t len = 0;
    EXPECT_EQ(base64_decode("YWJj", 0, out, &len), 63);
    EXPECT_EQ(base64_decode(nullptr, 4, out, &len), 63);
    EXPECT_EQ(base64_decode("YWJj", 4, nullptr, &len), 63);
    EXPECT_EQ(base64_decode("YWJj", 4, out, nullptr), 63);
    EXPECT_EQ(base64_encode(out, 3, nullptr, &len), 62);
    EXPECT_EQ(base64_encode(nullptr, 3, reinterpret_cast<char *>(out), &len), 62);

    EXPECT_EQ(tq::base64_text_check("YWJj"), 0);
    EXPECT_EQ(tq::base64_text_check(""), 0);
    EXPECT_TRUE(tq::url_char_ok('%'));
    EXPECT_FALSE(tq::base64_char_ok('%'));
}

TEST(Base64, DecoderStaysInsideAnOverstatedInput)
{
    // in_len larger than the text: nothing past the terminator is read (ASan
    // watches the exact-size heap copy).
    const char *text = "YWJj";
    std::unique_ptr<char[]> exact(new char[5]);
    std::memcpy(exact.get(), text, 5);
    std::vector<unsigned char> out(64);
    uint32_t len = 0;
    EXPECT_EQ(base64_decode(exact.get(), 64, out.data(), &len), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out.data()), len), "abc");

    std::vector<char> url(3 * 64 + 1);
    std::unique_ptr<char[]> plus(new char[3]);
    std::memcpy(plus.get(), "a+", 3);
    EXPECT_EQ(transform_to_url(plus.get(), 64, url.data(), &len), 0);
    EXPECT_STREQ(url.data(), "a%2B");
    EXPECT_EQ(len, 4u);
    // A '%' at the very end cannot borrow bytes beyond the stated length.
    EXPECT_EQ(transform_from_url("a%2B", 3, url.data(), &len), 66);
}

TEST(Base64, LenientDecoderSkipsLineEndsAndSpacesAndSaysWhatItDecodes)
{
    testing::internal::CaptureStdout();
    Decoded d = decode_clean("YW\r\nJj");
    Decoded spaced = decode_clean(" YWJj YQ== ");
    Decoded empty = decode_clean("");
    Decoded blank = decode_clean(" \r\n ");
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(d.bytes, "abc");
    EXPECT_EQ(spaced.bytes, "abca");
    EXPECT_EQ(empty.rc, -1);
    EXPECT_EQ(blank.rc, -1);
    EXPECT_EQ(printed, "Cleaned Base64 (4 chars): YWJj\n"
                       "Cleaned Base64 (8 chars): YWJjYQ==\n"
                       "Cleaned Base64 (0 chars): \n"
                       "Cleaned Base64 (0 chars): \n");

    int32_t len = 0;
    EXPECT_EQ(base64_decode_clean(nullptr, &len), nullptr);
    EXPECT_EQ(base64_decode_clean("YWJj", nullptr), nullptr);
}

TEST(Base64, UrlFormRoundTripsAndRefusesBadText)
{
    Url u = to_url("a+b/c=");
    EXPECT_EQ(u.rc, 0);
    EXPECT_EQ(u.text, "a%2Bb%2Fc%3D");
    EXPECT_EQ(u.len, 12u);
    // A '%' already present passes unchanged.
    EXPECT_EQ(to_url("a%2B+").text, "a%2B%2B");
    EXPECT_EQ(to_url("a b").rc, 64);
    EXPECT_EQ(to_url("a b").len, 0u);
    EXPECT_EQ(to_url("a-b").rc, 64);

    Url f = from_url("a%2Bb%3D");
    EXPECT_EQ(f.rc, 0);
    EXPECT_EQ(f.text, "a+b=");
    EXPECT_EQ(f.len, 4u);
    EXPECT_EQ(from_url("%2F%2F%3D%3D").text, "//==");
    EXPECT_EQ(from_url("a%2bb").rc, 66);
    EXPECT_EQ(from_url("a%2bb").len, 0u);
    EXPECT_EQ(from_url("abc%2").rc, 66);
    EXPECT_EQ(from_url("abc%").rc, 66);
    EXPECT_EQ(from_url("%41").rc, 66);
    EXPECT_EQ(from_url("a~").rc, 64);
    // What was written before the bad escape stays, unterminated.
    EXPECT_EQ(from_url("ab%2Fc%20").text.substr(0, 4), "ab/c");

    char out[16];
    uint32_t len = 0;
    EXPECT_EQ(transform_to_url("a", 0, out, &len), 67);
    EXPECT_EQ(transform_to_url(nullptr, 1, out, &len), 67);
    EXPECT_EQ(transform_to_url("a", 1, nullptr, &len), 67);
    EXPECT_EQ(transform_to_url("a", -1, out, &len), 67);
    EXPECT_EQ(transform_from_url("a", 0, out, &len), 65);
    EXPECT_EQ(transform_from_url("a", 1, out, nullptr), 65);

    // Every Base64 text survives the round trip through the URL form.
    tqtest::LeakCheck leaks;
    for (unsigned seed = 0; seed < 50; ++seed) {
        std::string b64 = encode(tqtest::random_bytes(seed + 1, seed));
        Url there = to_url(b64);
        ASSERT_EQ(there.rc, 0);
        EXPECT_EQ(there.text.find_first_of("+/="), std::string::npos);
        EXPECT_EQ(from_url(there.text).text, b64);
    }
    EXPECT_TRUE(leaks.clean());
}

} // namespace
