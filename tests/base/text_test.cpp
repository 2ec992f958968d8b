// The text companions: bounded copies, duplicates, compares (the case-insensitive one against
// the platform over the whole BMP), searches, wildcards, base64, the arena, the UTF-8/UTF-16
// transcoders and value words.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <windows.h>

#include "base/base64.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "base/upcase.h"
#include "base/utf.h"
#include "base/value_words.h"
#include "base/wildcard.h"

extern "C" WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR c);

namespace {

std::wstring format(int64_t value, uint32_t style, unsigned digits = 0) {
    wchar_t out[64];
    value_format(out, 64, value, style, digits);
    return out;
}

} // namespace

TEST(Text, BoundedCopyAppendAndPrependAlwaysTerminate) {
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
    char narrow[4] = "ab";
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
    const char* aab = "aab";
    EXPECT_EQ(utf8_find_ascii_nocase(aab, "AB"), aab + 1);
    EXPECT_EQ(text_find_last(text, L'\\'), text + 20);
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
    EXPECT_FALSE(text_wildcard_match(L"*a*b*c", L"xxaxxbxxcxx"));
    EXPECT_TRUE(text_wildcard_match(L"*ab", L"aaab")); // the star must give back what it took
    // "?" is one character: a whole surrogate pair or UTF-8 sequence.
    EXPECT_TRUE(text_wildcard_match(L"a?.txt", L"a\U0001F600.txt"));
    EXPECT_TRUE(text_wildcard_match(nullptr, nullptr));
    EXPECT_TRUE(utf8_wildcard_match("?.txt", "\xC3\xA9.txt"));
    EXPECT_TRUE(text_wildcard_match_ascii_nocase(L"ZUN*FS.dll", L"zunIsoFs.DLL"));
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
        ASSERT_EQ(text_base64_encode(text, 420, data, n), (n + 2) / 3 * 4);
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
    EXPECT_EQ(utf8_base64_decode(back, sizeof back, "Zm9vYmFy", 4), 3u);
}

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
    EXPECT_EQ(utf8_to_text(wide, 16, "\200a\342\202b\370\377\303"), 8u);
    EXPECT_STREQ(wide, L"\uFFFFa\uFFFF\uFFFFb\uFFFF\uFFFF\uFFFF");
    // Overlong forms and code points beyond U+10FFFF decode as they stand.
    EXPECT_EQ(utf8_to_text(wide, 16, "\xC1\x81\xF7\xBF\xBF\xBF"), 2u);
    EXPECT_STREQ(wide, L"A\uFFFF");
    // Lone or reversed surrogates are the invalid value, the byte 0xFF in UTF-8.
    char narrow[16];
    const wchar_t reversed[] = {0xDC00, 0xD800, L'x', 0xD800, 0};
    EXPECT_EQ(text_to_utf8(narrow, 16, reversed), 4u);
    EXPECT_STREQ(narrow, "\xFF\xFFx\xFF");

    // Conversions stop at the length or the first zero and count what does not fit.
    EXPECT_EQ(utf8_to_text(wide, 4, "\xE2\x82\xAC", 2), 2u); // a sequence cut by the length
    EXPECT_EQ(utf8_to_text(wide, 4, "abcdef"), 6u);
    EXPECT_STREQ(wide, L"abc");
    EXPECT_EQ(text_to_utf8(nullptr, 0, L"\U0001F600"), 4u);

    // The allocating forms, past their stack buffer too.
    std::string long_text = std::string(250, 'x') + "\xE2\x82\xAC";
    wchar_t* w = utf8_to_text_alloc(long_text.c_str());
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(std::wstring(250, L'x') + L"\u20AC", w);
    TextArena arena;
    EXPECT_EQ(long_text, text_to_utf8_arena(arena, w));
    text_free(w);
}

TEST(ValueWords, ParsesWordsAndNumbers) {
    // Words match by their first letters; the round trip below covers each style.
    // clang-format off
    const struct {
        const wchar_t* text;
        int64_t value;
        uint32_t style;
    } cases[] = {
        {L" \tEnabled \r\n", 1, value_enabled_disabled}, {L"onward", 1, value_on_off},
        {L"enable it", 1, value_enable_disable}, {L"trueness", 1, value_true_false},
        {L"nope", 0, value_yes_no},     {L"o", 0, 0},                   {L"+42", 42, 0},
        {L"  \v ", 0, 0},
        {L"\f1", 0, 0},                 // a form feed is not a blank
        {L"-12", -12, value_signed},    {L"-0X1F", -31, value_hex | value_signed},
        {L"0x", 0, 0},                  // too short for hexadecimal: the decimal 0
        {L"0xg1", 0, 0},                // no hexadecimal digit after the prefix
        {L"12ab", 12, 0},               // digits stop at the first other character
        {L"18446744073709551615", -1, 0}, {L"x1", 0, 0}};
    // clang-format on
    for (const auto& c : cases) {
        uint32_t style = 0xDEAD;
        EXPECT_EQ(value_parse(c.text, SIZE_MAX, &style), c.value)
            << testing::PrintToString(std::wstring(c.text));
        EXPECT_EQ(style, c.style) << testing::PrintToString(std::wstring(c.text));
    }
    EXPECT_EQ(value_parse(L"12345", 3, nullptr), 123);
    EXPECT_EQ(value_parse(L"yesterday", 1, nullptr), 1); // "y" alone within the length
}

TEST(ValueWords, FormatsAndEveryStyleRoundTrips) {
    // Value 0 takes the first of no, n, false, f, off, disable, disabled, d; value 1 the first
    // of y, true, t, on, enable, enabled, e, else yes.
    EXPECT_EQ(format(0, value_y_n | value_yes_no), L"no");
    EXPECT_EQ(format(1, value_y_n | value_yes_no), L"y");
    EXPECT_EQ(format(1, value_yes_no | value_e_d), L"e");
    EXPECT_EQ(format(-1, value_hex), L"0xffffffffffffffff");
    EXPECT_EQ(format(-42, value_signed, 5), L"-00042");
    EXPECT_EQ(format(255, value_hex, 99), L"0x0000000000000000000000000ff"); // digits capped at 27
    for (uint32_t style : {value_yes_no, value_true_false, value_on_off, value_y_n, value_t_f,
                           value_enable_disable, value_enabled_disabled, value_e_d})
        for (int64_t value : {0, 1}) {
            uint32_t read = 0;
            EXPECT_EQ(value_parse(format(value, style).c_str(), SIZE_MAX, &read), value) << style;
            EXPECT_EQ(read, style) << style;
        }
    for (int64_t value : {int64_t(2), int64_t(12345), INT64_MAX, INT64_MIN, int64_t(-99999)})
        for (uint32_t style : {0u, uint32_t(value_hex), uint32_t(value_signed)})
            for (unsigned digits : {0u, 12u, 27u}) {
                uint32_t read = 0;
                std::wstring text = format(value, style, digits);
                EXPECT_EQ(value_parse(text.c_str(), SIZE_MAX, &read), value)
                    << testing::PrintToString(text);
                EXPECT_EQ(read, style == value_signed && value >= 0 ? 0 : style)
                    << testing::PrintToString(text);
            }
}
