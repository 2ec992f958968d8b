// The text companions: bounded copies, duplicates, compares (the case-insensitive one against
// the platform over the whole BMP), searches, wildcards, base64 and the arena.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "base/base64.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "base/upcase.h"
#include "base/wildcard.h"

extern "C" WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR c);

TEST(Text, BoundedCopyAppendAndPrependAlwaysTerminate) {
    EXPECT_EQ(text_length(nullptr), 0u);
    EXPECT_EQ(utf8_length_bounded("abcdef", 4), 4u);
    wchar_t buffer[6];
    wmemset(buffer, L'#', 6);
    EXPECT_EQ(text_copy(buffer, 0, L"abc"), 0u);
    EXPECT_EQ(buffer[0], L'#');
    EXPECT_EQ(text_copy(buffer, 6, L"abcdefgh"), 5u);
    EXPECT_STREQ(buffer, L"abcde");
    text_copy(buffer, 6, L"ab");
    EXPECT_EQ(text_append(buffer, 6, L"cdefg"), 5u);
    EXPECT_STREQ(buffer, L"abcde");
    text_copy(buffer, 6, L"cd");
    EXPECT_EQ(text_prepend(buffer, 6, L"ab"), 4u);
    EXPECT_EQ(text_prepend(buffer, 6, L"xy"), 5u); // what was held loses its end
    EXPECT_STREQ(buffer, L"xyabc");
    char narrow[4] = "";
    EXPECT_EQ(utf8_append(narrow, 4, "ab"), 2u);
    EXPECT_EQ(utf8_prepend(narrow, 4, "z"), 3u);
    EXPECT_STREQ(narrow, "zab");
}

TEST(Text, DuplicateAllocateWipeAndTheArena) {
    wchar_t* copy = text_duplicate(L"copy me");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, L"copy me");
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, copy), sizeof(L"copy me"));
    text_wipe(copy);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(copy[i], 0);
    text_free(copy);
    EXPECT_EQ(text_duplicate(nullptr), nullptr);

    // Arena blocks are zero-filled and aligned; a refusal is null and counted.
    TextArena arena;
    EXPECT_STREQ(utf8_duplicate_arena(arena, "narrow"), "narrow");
    for (size_t bytes : {0u, 7u, 9u, 1000u}) {
        auto* p = static_cast<uint8_t*>(arena.allocate(bytes));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
        for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(p[i], 0);
        memset(p, 0xFF, bytes); // the trailer behind the rounded block must survive
    }
    arena.release();
    EXPECT_NE(arena.allocate(16), nullptr); // usable again after a release
    EXPECT_EQ(arena.allocate(SIZE_MAX - 3), nullptr);
    EXPECT_EQ(arena.failures(), 1u);
}

TEST(Text, ComparesAndSearches) {
    EXPECT_EQ(text_compare(L"abcd", L"abc"), 1);
    // A supplementary character sorts above every BMP character, though its lead unit is lower.
    EXPECT_EQ(text_compare(L"\U00010000", L"\uFFFD"), 1);
    // The end of a buffer counts as a zero character.
    EXPECT_EQ(text_compare(L"abcdef", 3, L"abc", 10), 0);
    EXPECT_EQ(utf8_compare("\xC3\xA9", "z"), 1);
    EXPECT_EQ(text_compare_ascii_nocase(L"Hello", L"hELLO"), 0);
    EXPECT_EQ(text_compare_ascii_nocase(L"\u00E9", L"\u00C9"), 1); // only ASCII folds
    EXPECT_EQ(text_compare_ascii_nocase(L"a", L"_"), -1);          // compared as "A" against "_"
    // The case-insensitive compare folds every code point, beyond the BMP too.
    EXPECT_EQ(text_compare_nocase(L"\U00010428", L"\U00010400"), 0);
    EXPECT_EQ(utf8_compare_nocase("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89"), 0);
    EXPECT_NE(utf8_compare_nocase("\xFE", "\xFF"), 0); // different malformed bytes stay different

    const wchar_t* text = L"C:\\Program Files\\Zun\\zunapi.DLL";
    EXPECT_EQ(text_find_ascii_nocase(text, L"zun"), text + 17);
    EXPECT_EQ(text_find_ascii_nocase(text, L""), text);
    EXPECT_EQ(text_find_ascii_nocase(text, L"zunapi.dllx"), nullptr);
    const char* aab = "aab";
    EXPECT_EQ(utf8_find_ascii_nocase(aab, "AB"), aab + 1);
    EXPECT_EQ(text_find_last(text, L'\\'), text + 20);
    EXPECT_EQ(text_find_last(text, L'/'), nullptr);
}

TEST(Text, CaseFoldingAgreesWithThePlatformOverTheWholeBmp) {
    // Each BMP character's upper case is the platform's, and the case-insensitive compare
    // orders each character against its neighbour as CompareStringOrdinal does.
    int differences = 0;
    for (uint32_t c = 0; c < 0x10000; ++c) {
        if (c - 0xD800 < 0x800) continue;
        wchar_t a[2] = {static_cast<wchar_t>(c), 0}, b[2] = {static_cast<wchar_t>(c + 1), 0};
        wchar_t upper[2] = {RtlUpcaseUnicodeChar(a[0]), 0};
        bool neighbour = c && c < 0xFFFF && c != 0xD7FF; // the next one is a character too
        int platform = CompareStringOrdinal(a, 1, b, 1, TRUE) - CSTR_EQUAL;
        if ((code_point_upcase(c) != upper[0] || text_compare_nocase(upper, a) != 0 ||
             (neighbour && text_compare_nocase(a, b) != platform)) &&
            ++differences <= 20)
            ADD_FAILURE() << std::hex << "U+" << c;
    }
    EXPECT_EQ(differences, 0);
}

TEST(Text, Wildcards) {
    EXPECT_TRUE(text_wildcard_match(L"zun*fs.dll", L"zunisofs.dll"));
    EXPECT_FALSE(text_wildcard_match(L"zun*fs.dll", L"zunisofs.dll.bak"));
    EXPECT_TRUE(text_wildcard_match(L"*", L""));
    EXPECT_FALSE(text_wildcard_match(L"?", L"")); // "?" never matches the end
    EXPECT_TRUE(text_wildcard_match(L"*a*b*c*", L"xxaxxbxxcxx"));
    EXPECT_FALSE(text_wildcard_match(L"*a*b*c", L"xxaxxbxxcxx"));
    EXPECT_TRUE(text_wildcard_match(L"*ab", L"aaab")); // the star must give back what it took
    EXPECT_TRUE(text_wildcard_match(L"**?", L"x"));
    // "?" is one character: a whole surrogate pair or UTF-8 sequence.
    EXPECT_TRUE(text_wildcard_match(L"a?.txt", L"a\U0001F600.txt"));
    EXPECT_TRUE(text_wildcard_match(nullptr, nullptr));
    EXPECT_TRUE(utf8_wildcard_match("?.txt", "\xC3\xA9.txt"));
    EXPECT_FALSE(utf8_wildcard_match("??.txt", "\xC3\xA9.txt"));
    EXPECT_TRUE(text_wildcard_match_ascii_nocase(L"ZUN*FS.dll", L"zunIsoFs.DLL"));
    EXPECT_FALSE(text_wildcard_match_ascii_nocase(L"\u00C9*", L"\u00E9t\u00E9"));
    EXPECT_TRUE(utf8_wildcard_match_ascii_nocase("*_v?.DLL", "zunfs_v7.dll"));

    // At most fifty stars are pending: the fiftieth still takes any run, the fifty-first only
    // the empty one.
    auto match = [](const std::wstring& pattern, const std::wstring& text) {
        return text_wildcard_match(pattern.c_str(), text.c_str());
    };
    std::wstring star_x49;
    for (int i = 0; i < 49; ++i) star_x49 += L"*x";
    EXPECT_TRUE(match(std::wstring(49, L'*') + L"a*b", L"axxb"));
    EXPECT_FALSE(match(star_x49 + L"*x*z", std::wstring(50, L'x') + L"yyz"));
    EXPECT_TRUE(match(star_x49 + L"*x*z", std::wstring(50, L'x') + L"z"));
    EXPECT_TRUE(match(std::wstring(80, L'*') + L"b", L"ab"));
    // A pattern that takes exponential time with unbounded backtracking finishes at once.
    std::wstring hostile;
    for (int i = 0; i < 40; ++i) hostile += L"*a";
    EXPECT_FALSE(match(hostile + L"b", std::wstring(4000, L'a')));
}

TEST(Text, Base64) {
    const char* const expected[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t n = 0; n <= 6; ++n) {
        char out[16];
        EXPECT_EQ(utf8_base64_encode(out, sizeof out, "foobar", n), strlen(expected[n]));
        EXPECT_STREQ(out, expected[n]);
    }
    EXPECT_EQ(text_base64_encode(nullptr, 0, "foobar", 6), 8u); // sizing call
    // Every byte value and length round-trips through the wide form.
    uint8_t data[300], back[300];
    for (int i = 0; i < 300; ++i) data[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t n : {1u, 2u, 3u, 4u, 256u, 300u}) {
        wchar_t text[420];
        char narrow[420];
        ASSERT_EQ(text_base64_encode(text, 420, data, n), (n + 2) / 3 * 4);
        utf8_base64_encode(narrow, 420, data, n);
        EXPECT_EQ(std::string(narrow), std::string(text, text + wcslen(text)));
        ASSERT_EQ(text_base64_decode(back, sizeof back, text), n);
        EXPECT_EQ(memcmp(back, data, n), 0);
    }
    // Decoding skips foreign characters; "=" ends a group early and the next character starts
    // a new one; it counts past the capacity and stops at the length.
    EXPECT_EQ(utf8_base64_decode(back, sizeof back, "Zm9v\r\nYm Fy"), 6u);
    EXPECT_EQ(memcmp(back, "foobar", 6), 0);
    EXPECT_EQ(utf8_base64_decode(back, sizeof back, "Zg==Zm8="), 3u);
    EXPECT_EQ(memcmp(back, "ffo", 3), 0);
    EXPECT_EQ(utf8_base64_decode(back, 2, "Zm9vYmFy"), 6u);
    EXPECT_EQ(memcmp(back, "fo", 2), 0);
    EXPECT_EQ(utf8_base64_decode(back, sizeof back, "Zm9vYmFy", 4), 3u);
}
