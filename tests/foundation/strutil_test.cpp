// SPDX-License-Identifier: LGPL-2.1-or-later
#include <gtest/gtest.h>

#include <string>

#include "tavro-quenda.h"

namespace {

std::string cleaned(void (*cleaner)(char *), std::string text)
{
    cleaner(text.data());
    return text.c_str();
}

TEST(Cleaners, RemoveExactlyTheirOwnBytes)
{
    EXPECT_EQ(cleaned(removeSpaces, " a b\n"), "ab");
    EXPECT_EQ(cleaned(removeSpaces, "a\tb\r"), "a\tb\r");
    EXPECT_EQ(cleaned(removeSpecialChar, "ST1000 (DM003)\n"), "ST1000DM003");
    EXPECT_EQ(cleaned(removeSpecialChar, "a\t[b],c\r"), "a\t[b],c\r");
    EXPECT_EQ(cleaned(removeSpacesTabs, "Hardware\t: Kirin 990"), "Hardware:Kirin990");
    EXPECT_EQ(cleaned(removeSpacesTabs, "a\nb"), "a\nb");
    for (auto cleaner : {removeSpaces, removeSpecialChar, removeSpacesTabs, toLowerCase})
        EXPECT_EQ(cleaned(cleaner, ""), "");
}

TEST(Cleaners, LowerCaseTouchesAsciiCapitalsOnly)
{
    // "ABC-" then "ÄÖ" in UTF-8: only the three ASCII capitals change.
    EXPECT_EQ(cleaned(toLowerCase, "ABC-\xC3\x84\xC3\x96"), "abc-\xC3\x84\xC3\x96");
    EXPECT_EQ(cleaned(toLowerCase, "@[`{Zz"), "@[`{zz");
}

TEST(Cleaners, NullArgumentsAreIgnoredWhereAllowed)
{
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
    EXPECT_EQ(run[0], 'z');
    EXPECT_EQ(run[5], 'T'); // the byte beyond the range is never touched

    char none[] = {0};
    remove_null_chars(none, 0);
    EXPECT_EQ(none[0], 0);
}

TEST(FindString, PointsIntoTheHaystack)
{
    const char *haystack = "Model Family: Seagate";
    EXPECT_EQ(find_string(haystack, "Family"), haystack + 6);
    EXPECT_EQ(find_string(haystack, "family"), nullptr); // case-sensitive
    EXPECT_EQ(find_string(haystack, ""), haystack);
}

} // namespace
