#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "base/text.h"
#include "base/text_arena.h"

TEST(Text, LengthsTreatNullAsEmptyAndStopAtTheBound) {
    EXPECT_EQ(text_length(nullptr), 0u);
    EXPECT_EQ(text_length(L"abc"), 3u);
    const wchar_t unterminated[3] = {L'a', L'b', L'c'};
    EXPECT_EQ(text_length_bounded(unterminated, 3), 3u);
    EXPECT_EQ(utf8_length_bounded("abcdef", 4), 4u);
    EXPECT_EQ(utf8_length_bounded("ab", 4), 2u);
}

TEST(Text, BoundedCopyAppendAndPrependAlwaysTerminate) {
    wchar_t buffer[6];
    wmemset(buffer, L'#', 6);
    EXPECT_EQ(text_copy(buffer, 0, L"abc"), 0u);
    EXPECT_EQ(buffer[0], L'#');
    EXPECT_EQ(text_copy(buffer, 6, L"abcdefgh"), 5u);
    EXPECT_STREQ(buffer, L"abcde");
    EXPECT_EQ(text_copy(buffer, 6, nullptr), 0u);
    EXPECT_STREQ(buffer, L"");

    text_copy(buffer, 6, L"ab");
    EXPECT_EQ(text_append(buffer, 6, L"cd"), 4u);
    EXPECT_STREQ(buffer, L"abcd");
    EXPECT_EQ(text_append(buffer, 6, L"efg"), 5u);
    EXPECT_STREQ(buffer, L"abcde");
    EXPECT_EQ(text_append(buffer, 6, L"x"), 5u);

    text_copy(buffer, 6, L"cd");
    EXPECT_EQ(text_prepend(buffer, 6, L"ab"), 4u);
    EXPECT_STREQ(buffer, L"abcd");
    EXPECT_EQ(text_prepend(buffer, 6, L"xy"), 5u); // what was held loses its end
    EXPECT_STREQ(buffer, L"xyabc");
    EXPECT_EQ(text_prepend(buffer, 6, L"1234567"), 5u);
    EXPECT_STREQ(buffer, L"12345");
    EXPECT_EQ(text_prepend(buffer, 6, nullptr), 5u);

    char narrow[4] = "";
    EXPECT_EQ(utf8_append(narrow, 4, "ab"), 2u);
    EXPECT_EQ(utf8_prepend(narrow, 4, "z"), 3u);
    EXPECT_STREQ(narrow, "zab");
}

TEST(Text, DuplicateAllocateAndWipe) {
    wchar_t* copy = text_duplicate(L"copy me");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, L"copy me");
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, copy), sizeof(L"copy me"));
    text_wipe(copy);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(copy[i], 0);
    text_free(copy);
    EXPECT_EQ(text_duplicate(nullptr), nullptr);

    wchar_t* block = text_allocate(10);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block[0], 0);
    EXPECT_EQ(block[9], 0);
    text_free(block);

    TextArena arena;
    EXPECT_STREQ(utf8_duplicate_arena(arena, "narrow"), "narrow");
    char* one = utf8_allocate_arena(arena, 1);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one[0], 0);
}

TEST(Text, ComparisonsByCodePoint) {
    EXPECT_EQ(text_compare(L"abc", L"abc"), 0);
    EXPECT_EQ(text_compare(L"abc", L"abd"), -1);
    EXPECT_EQ(text_compare(L"abcd", L"abc"), 1);
    EXPECT_EQ(text_compare(nullptr, L""), 0);
    // A supplementary character sorts above every BMP character, though its lead unit is lower.
    EXPECT_EQ(text_compare(L"\U00010000", L"\uFFFD"), 1);
    // The end of a buffer counts as a zero character.
    EXPECT_EQ(text_compare(L"abcdef", 3, L"abc", 10), 0);
    EXPECT_EQ(text_compare(L"abcdef", 4, L"abc", 3), 1);
    const wchar_t lone1[] = {0xD800, 0}, lone2[] = {0xD801, 0};
    EXPECT_EQ(text_compare(lone1, lone2), -1);
    EXPECT_EQ(utf8_compare("\xC3\xA9", "z"), 1);

    EXPECT_EQ(text_compare_ascii_nocase(L"Hello", L"hELLO"), 0);
    EXPECT_EQ(text_compare_ascii_nocase(L"\u00E9", L"\u00C9"), 1); // only ASCII folds
    EXPECT_EQ(text_compare_ascii_nocase(L"a", L"_"), -1);          // compared as "A" against "_"
    EXPECT_EQ(utf8_compare_ascii_nocase("ZUNFS", 3, "zun", 3), 0);
}

TEST(Text, FindSubstringAndLastCharacter) {
    const wchar_t* text = L"C:\\Program Files\\Zun\\zunapi.DLL";
    EXPECT_EQ(text_find_ascii_nocase(text, L"ZUNAPI.dll"), text + 21);
    EXPECT_EQ(text_find_ascii_nocase(text, L"zun"), text + 17);
    EXPECT_EQ(text_find_ascii_nocase(text, L""), text);
    EXPECT_EQ(text_find_ascii_nocase(text, L"zunapi.dllx"), nullptr);
    const char* aab = "aab";
    EXPECT_EQ(utf8_find_ascii_nocase(aab, "AB"), aab + 1);
    EXPECT_EQ(text_find_last(text, L'\\'), text + 20);
    EXPECT_EQ(text_find_last(text, L'/'), nullptr);
    EXPECT_EQ(text_find_last(static_cast<const wchar_t*>(nullptr), L'a'), nullptr);
}
