// SPDX-License-Identifier: LGPL-2.1-or-later
#include <gtest/gtest.h>

#include <string>

#include "tavro-quenda.h"

namespace {

TEST(Cleaners, RemoveExactlyTheirOwnBytes)
{
    const struct {
        void (*cleaner)(char *);
        const char *in, *out;
    } cases[] = {
        {removeSpaces, " a\tb\r\n", "a\tb\r"},
        {removeSpecialChar, "ST1000 (DM003)\t[b],\r\n", "ST1000DM003\t[b],\r"},
        {removeSpacesTabs, "Hardware\t: Kirin 990\n", "Hardware:Kirin990\n"},
        {toLowerCase, "@AZ[`az{-\xC3\x84\xC3\x96", "@az[`az{-\xC3\x84\xC3\x96"}, // UTF-8 bytes never change
    };
    for (const auto &c : cases) {
        std::string text = c.in;
        c.cleaner(text.data());
        EXPECT_STREQ(text.c_str(), c.out) << c.in;
    }
    for (auto cleaner : {removeSpaces, removeSpecialChar, toLowerCase})
        cleaner(nullptr); // ignored where allowed
}

// remove_null_chars() leaves copies of the last byte at the end, and never
// touches the byte beyond its range; find_string() points into the haystack.
TEST(BufferHelpers, CloseUpAndFind)
{
    char buf[] = {'a', 0, 'b', 0, 'c', 'X'}, run[] = {0, 0, 'z', 0, 0, 'T'};
    remove_null_chars(buf, 5);
    remove_null_chars(run, 5);
    EXPECT_EQ(std::string(buf, 6), std::string("abcccX"));
    EXPECT_EQ(std::string(run, 6), std::string("z\0\0\0\0T", 6));
    const char *haystack = "Model Family: Seagate";
    EXPECT_EQ(find_string(haystack, "Family"), haystack + 6);
    EXPECT_EQ(find_string(haystack, "family"), nullptr);
}

} // namespace
