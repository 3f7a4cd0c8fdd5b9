// SPDX-License-Identifier: LGPL-2.1-or-later
#include "peer_tools.h"

namespace {

std::string encode(const std::string &bytes)
{
    std::string out(4 * ((bytes.size() + 2) / 3) + 8, '#');
    uint32_t len = 0;
    const auto *in = reinterpret_cast<const unsigned char *>(bytes.data());
    EXPECT_EQ(base64_encode(in, static_cast<uint32_t>(bytes.size()), out.data(), &len), 0);
    EXPECT_EQ(out[len], '#') << "wrote past its length";
    return out.substr(0, len);
}

// The decoded bytes, or the result code as "<N>". The stated length may exceed the text.
std::string decode(const std::string &text, uint32_t in_len)
{
    std::vector<unsigned char> out(in_len + 1);
    uint32_t len = 12345;
    int rc = base64_decode(tqtest::exact_copy(text).get(), in_len, out.data(), &len);
    return rc == 0 ? std::string(out.begin(), out.begin() + len) : "<" + std::to_string(rc) + ">";
}

// The lenient decoder's bytes, or "<null>".
std::string decode_clean(const char *text)
{
    int32_t len = -7;
    std::unique_ptr<unsigned char, decltype(&std::free)> out(base64_decode_clean(text, &len), &std::free);
    return out ? std::string(reinterpret_cast<char *>(out.get()), static_cast<size_t>(len)) : "<null>";
}

using UrlTransform = int (*)(const char *, int32_t, char *, uint32_t *);

TEST(Base64, AgreesWithTheBase64ToolAndTheLenientDecoderTakesBlanksAndLineEnds)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(decode_clean(" YW\r\nJj YQ== "), "abca");
    EXPECT_EQ(decode_clean(" \r\n "), "<null>");
    EXPECT_EQ(decode_clean(nullptr), "<null>");
    EXPECT_EQ(base64_decode_clean("YWJj", nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cleaned Base64 (8 chars): YWJjYQ==\n"
                                                      "Cleaned Base64 (0 chars): \n");
    tqtest::Fixture fx;
    for (size_t size : {1u, 2u, 3u, 57u, 100001u}) {
        const std::string bytes = tqtest::random_bytes(size, static_cast<unsigned>(size)), ours = encode(bytes);
        fx.write("/in", bytes);
        EXPECT_EQ(ours, tqtest::run("base64 -w0 " + fx.host("/in"))) << size;
        EXPECT_EQ(decode(ours, static_cast<uint32_t>(ours.size())), bytes) << size;
        // The tool's default output is wrapped at 76 columns: the lenient decoder takes it.
        EXPECT_EQ(decode_clean(tqtest::run("base64 " + fx.host("/in")).c_str()), bytes) << size;
    }
}

TEST(Base64, EveryResultCodeMeansWhatItSaysAndUrlFormEscapesExactlyThreeCharacters)
{
    unsigned char out[16] = {};
    char *text = reinterpret_cast<char *>(out);
    uint32_t len = 0;
    // Bad arguments: 62 to encode, 63 to decode, 65 from URL form, 67 to URL form.
    const std::pair<int, int> results[] = {
        {base64_encode(out, 0, text, &len), 62},      {base64_encode(nullptr, 3, text, &len), 62},
        {base64_decode("YWJj", 0, out, &len), 63},    {base64_decode("YWJj", 4, out, nullptr), 63},
        {transform_from_url("a", 0, text, &len), 65}, {transform_to_url("a", -1, text, &len), 67},
        {transform_to_url(nullptr, 1, text, &len), 67},
    };
    for (size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i].first, results[i].second) << "case " << i;
    // 59 length not a multiple of 4, 60 a byte outside the alphabet (base64url's too), 61 a misplaced '='.
    // A stated length beyond the text reads nothing past its terminator (ASan watches).
    for (auto [in, want] : {std::pair{"YWJ", "<59>"}, {"YW J", "<60>"}, {"-_-_", "<60>"}, {"Y===", "<61>"},
                            {"YW=j", "<61>"}, {"YWJj", "abc"}})
        EXPECT_EQ(decode(in, 64), want) << in;

    // The URL form escapes exactly three characters.
    const std::tuple<UrlTransform, const char *, int32_t, const char *> cases[] = {
        {transform_to_url, "a+b/c=", 64, "0|a%2Bb%2Fc%3D|12"}, // a stated length beyond the text
        {transform_to_url, "a%2B+", 5, "0|a%2B%2B|7"},           // a '%' already present passes
        {transform_to_url, "a b", 3, "64|#####|0"},              // 64: a byte neither Base64 nor '%'
        {transform_from_url, "a~", 2, "64|#####|0"},
        {transform_from_url, "a%2Bb%3D", 8, "0|a+b=|4"},
        {transform_from_url, "%41", 3, "66|#####|0"}, // 66: an unknown escape
        {transform_from_url, "a%2bb", 5, "66|a####|0"},
        {transform_from_url, "a%2B", 3, "66|a####|0"}, // an escape cut short by the stated length
        {transform_from_url, "ab%2Fc%20", 9, "66|ab/c#|0"}, // what came before a bad escape stays, unterminated
    };
    for (const auto &[transform, in, in_len, want] : cases) {
        std::string buf(3 * 64 + 1, '#');
        len = 99;
        int rc = transform(tqtest::exact_copy(in).get(), in_len, buf.data(), &len);
        EXPECT_EQ(std::to_string(rc) + "|" + (rc == 0 ? buf.c_str() : buf.substr(0, 5)) + "|" + std::to_string(len),
                  want) << in;
    }
}

} // namespace
