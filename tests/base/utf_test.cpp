#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "base/text.h"
#include "base/text_arena.h"
#include "base/utf.h"

TEST(Utf, RoundTripsEveryCodePointThroughBothEncodings) {
    // Against the platform's converter for every scalar value, in blocks of characters.
    std::wstring wide;
    for (uint32_t cp = 1; cp <= 0x10FFFF; ++cp) {
        if (cp - 0xD800 < 0x800) continue;
        wchar_t units[2];
        wide.append(units, utf16_encode(cp, units));
        if (wide.size() < 4000 && cp < 0x10FFFF) continue;
        static char ours[16000], platform[16000];
        static wchar_t back[4100];
        size_t n = text_to_utf8(ours, sizeof ours, wide.c_str(), wide.size());
        int m = WideCharToMultiByte(CP_UTF8, 0, wide.c_str(), int(wide.size()), platform,
                                    sizeof platform, nullptr, nullptr);
        ASSERT_EQ(n, size_t(m)) << "block ending at U+" << std::hex << cp;
        ASSERT_EQ(memcmp(ours, platform, n), 0) << "block ending at U+" << std::hex << cp;
        ASSERT_EQ(utf8_to_text(back, 4100, ours, n), wide.size());
        ASSERT_TRUE(wide == back) << "block ending at U+" << std::hex << cp;
        wide.clear();
    }
}

TEST(Utf, InvalidValuesLengthsAndCapacities) {
    // Stray continuation, lead without enough continuation bytes, 0xF8-0xFF leads: each is one
    // invalid byte, written in UTF-16 as U+FFFF.
    wchar_t wide[16];
    EXPECT_EQ(utf8_to_text(wide, 16,
                           "\x80"
                           "a\xE2\x82"
                           "b\xF8\xFF\xC3"),
              8u);
    EXPECT_STREQ(wide, L"\uFFFFa\uFFFF\uFFFFb\uFFFF\uFFFF\uFFFF");
    // Overlong forms and code points beyond U+10FFFF decode as they stand.
    EXPECT_EQ(utf8_to_text(wide, 16, "\xC1\x81\xF7\xBF\xBF\xBF"), 2u);
    EXPECT_STREQ(wide, L"A\uFFFF");
    // Lone or reversed surrogates are the invalid value, the byte 0xFF in UTF-8.
    char narrow[16];
    const wchar_t reversed[] = {0xDC00, 0xD800, L'x', 0xD800, 0};
    EXPECT_EQ(text_to_utf8(narrow, 16, reversed), 4u);
    EXPECT_STREQ(narrow, "\xFF\xFFx\xFF");
    EXPECT_EQ(utf8_encode(0x7FFFFFFE, narrow), 6u);
    EXPECT_EQ(memcmp(narrow, "\xFD\xBF\xBF\xBF\xBF\xBE", 6), 0);

    // Conversions stop at the length or the first zero and count what does not fit.
    EXPECT_EQ(utf8_to_text(wide, 4, "ab\0cd", 5), 2u);
    EXPECT_EQ(utf8_to_text(wide, 4, "\xE2\x82\xAC", 2), 2u); // a sequence cut by the length
    EXPECT_EQ(utf8_to_text(wide, 4, "abcdef"), 6u);
    EXPECT_STREQ(wide, L"abc");
    EXPECT_EQ(utf8_to_text(nullptr, 0, "\xF0\x9F\x98\x80"), 2u);
    EXPECT_EQ(text_to_utf8(nullptr, 0, L"\u20AC"), 3u);
    EXPECT_EQ(utf8_to_text(wide, 4, nullptr), 0u);
    EXPECT_STREQ(wide, L"");

    // The allocating forms, past their stack buffer too.
    std::string long_text = std::string(250, 'x') + "\xE2\x82\xAC";
    wchar_t* w = utf8_to_text_alloc(long_text.c_str());
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(std::wstring(250, L'x') + L"\u20AC", w);
    char* back = text_to_utf8_alloc(w);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(long_text, back);
    text_free(w);
    text_free(back);
    TextArena arena;
    EXPECT_STREQ(utf8_to_text_arena(arena, "gr\xC3\xBC\xC3\x9F"), L"gr\u00FC\u00DF");
    EXPECT_STREQ(text_to_utf8_arena(arena, L"\U0001F600", 2), "\xF0\x9F\x98\x80");
    EXPECT_STREQ(text_to_utf8_arena(arena, nullptr), "");
}
