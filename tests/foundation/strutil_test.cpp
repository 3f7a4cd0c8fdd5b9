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
        {removeSpaces, " a b\n", "ab"},
        {removeSpaces, "a\tb\r", "a\tb\r"},
        {removeSpecialChar, "ST1000 (DM003)\n", "ST1000DM003"},
        {removeSpecialChar, "a\t[b],c\r", "a\t[b],c\r"},
        {removeSpacesTabs, "Hardware\t: Kirin 990", "Hardware:Kirin990"},
        {removeSpacesTabs, "a\nb", "a\nb"},
        {toLowerCase, "ABC-\xC3\x84\xC3\x96", "abc-\xC3\x84\xC3\x96"}, // UTF-8 bytes never change
        {toLowerCase, "@[`{Zz", "@[`{zz"},
    };
    for (const auto &c : cases) {
        std::string text = c.in;
        c.cleaner(text.data());
        EXPECT_STREQ(text.c_str(), c.out) << c.in;
    }
    // Null arguments are ignored where allowed.
    removeSpaces(nullptr);
    removeSpecialChar(nullptr);
    toLowerCase(nullptr);
}

TEST(RemoveNullChars, LeavesCopiesOfTheLastByteAtTheEnd)
{
    char buf[] = {'a', 0, 'b', 0, 'c', 'X'};
    remove_null_chars(buf, 5);
    EXPECT_EQ(std::string(buf, 6), std::string("abcccX"));
    char run[] = {0, 0, 'z', 0, 0, 'T'};
    remove_null_chars(run, 5);
    EXPECT_EQ(std::string(run, 6), std::string("z\0\0\0\0T", 6)); // the byte beyond the range is never touched
}

TEST(FindString, PointsIntoTheHaystack)
{
    const char *haystack = "Model Family: Seagate";
    EXPECT_EQ(find_string(haystack, "Family"), haystack + 6);
    EXPECT_EQ(find_string(haystack, "family"), nullptr);
}

} // namespace
