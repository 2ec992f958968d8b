// The engines' own rules: where they differ from the C runtime, and the conversions it lacks.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/format.h"
#include "base/text.h"
#include "base/text_arena.h"

namespace {

std::wstring fmt(const wchar_t* format, ...) {
    wchar_t out[512];
    va_list args;
    va_start(args, format);
    size_t n = text_vformat(out, 512, format, args);
    va_end(args);
    EXPECT_EQ(n, wcslen(out));
    return out;
}

std::string fmt8(const char* format, ...) {
    char out[512];
    va_list args;
    va_start(args, format);
    size_t n = utf8_vformat(out, 512, format, args);
    va_end(args);
    EXPECT_EQ(n, strlen(out));
    return out;
}

const GUID sample_guid = {
    0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

} // namespace

TEST(Format, CountedBufferTruncatesAndStillCountsEverything) {
    wchar_t out[8];
    wmemset(out, L'#', 8);
    EXPECT_EQ(text_format(out, 0, L"hello %d", 12345), 11u);
    EXPECT_EQ(out[0], L'#'); // capacity 0: not even the terminator

    EXPECT_EQ(text_format(out, 5, L"hello %d", 12345), 11u);
    EXPECT_STREQ(out, L"hell");
    EXPECT_EQ(out[5], L'#');

    EXPECT_EQ(text_format(out, 6, L"%s", L"abcde"), 5u); // exactly fits with its terminator
    EXPECT_STREQ(out, L"abcde");
    EXPECT_EQ(text_format(out, 5, L"%s", L"abcde"), 5u); // one short: the last unit gives way
    EXPECT_STREQ(out, L"abcd");

    EXPECT_EQ(text_format(out, 1, L"%08x", 1u), 8u);
    EXPECT_STREQ(out, L"");

    // Huge padding is counted, not written.
    EXPECT_EQ(text_format(out, 8, L"%2000000000d", 1), 2000000000u);
    EXPECT_EQ(text_format(out, 8, L"%.2000000000d", 1), 2000000000u);

    char out8[4];
    EXPECT_EQ(utf8_format(out8, 4, "%s-%s", "ab", "cd"), 5u);
    EXPECT_STREQ(out8, "ab-");
    EXPECT_EQ(utf8_format(nullptr, 0, "%d", 100), 3u);
    EXPECT_EQ(text_format(out, 8, nullptr), 0u);
    EXPECT_STREQ(out, L"");
}

TEST(Format, IntegerRulesOfTheEngine) {
    EXPECT_EQ(fmt(L"%05i", -42), L"-0042");
    EXPECT_EQ(fmt(L"%-5i|", 42), L"42   |");
    EXPECT_EQ(fmt(L"%#x %#X %#o %#o", 0, 0, 8, 0), L"0x0 0X0 010 00");
    EXPECT_EQ(fmt(L"%.0d|%.0x", 0, 0), L"0|0"); // at least one digit, whatever the precision
    EXPECT_EQ(fmt(L"%-05d|", 42), L"00042|");   // "0" wins over "-"
    // With "0", the padding becomes zeros after the precision has been taken into account.
    EXPECT_EQ(fmt(L"%08.3d|%#08.4x", 5, 0x1Fu), L"000005|0x001f");
    EXPECT_EQ(fmt(L"%I64X %I64d %I64u", 0x1Full, INT64_MIN, UINT64_MAX),
              L"1F -9223372036854775808 18446744073709551615");
    EXPECT_EQ(fmt(L"%I8d %I8u %I8x %I16d %I16u %hd %hu", 0x1FF, 0x1FF, 0xABCD, 0x18000, 0x18000,
                  0xFFFF, 0xFFFF),
              L"-1 255 cd -32768 32768 -1 65535");
    EXPECT_EQ(fmt(L"%d %u %x", 0x123456789ull, 0x123456789ull, 0x123456789ull),
              L"591751049 591751049 23456789");
}

TEST(Format, PointerSizedHexadecimalHasNoZeroFill) {
    EXPECT_EQ(fmt(L"%P %p", 0x1Full, 0xabcull), L"1F abc");
    EXPECT_EQ(fmt(L"%#P %#p %hP", 0x1Full, 0x1Full, 0x123456789ull),
              L"0X1F 0x1f 123456789"); // always 64 bits
    EXPECT_EQ(fmt(L"%P", UINT64_MAX), L"FFFFFFFFFFFFFFFF");
    EXPECT_EQ(fmt(L"%016P|%-6p|", 0x1Full, 0x2ull), L"000000000000001F|2     |");
}

TEST(Format, StarWidthAndPrecision) {
    EXPECT_EQ(fmt(L"%*d|", 5, 42), L"   42|");
    EXPECT_EQ(fmt(L"%*d|", -5, 42), L"42|"); // a negative width is no width
    EXPECT_EQ(fmt(L"%.*d|", 4, 42), L"0042|");
    EXPECT_EQ(fmt(L"%.*d|", -4, 42), L"42|");
    EXPECT_EQ(fmt(L"%*.*s|", 6, 2, L"ab"), L"    ab|");
    // A star takes a 32-bit number from its slot.
    EXPECT_EQ(fmt(L"%*d|", 0xFFFFFFFF00000003ull, 1), L"  1|");
}

TEST(Format, StringFieldsCountCharactersAndStopAtTheLargerOfWidthAndPrecision) {
    EXPECT_EQ(fmt(L"%5.2s|", L"abcdef"), L"abcde|");
    EXPECT_EQ(fmt(L"%-5.2s|", L"abcdef"), L"abcde|");
    EXPECT_EQ(fmt(L"%2.4s|%.0s|%8.3s|", L"abcdef", L"abc", L"abc"), L"abcd||     abc|");
    EXPECT_EQ(fmt(L"%-6.3s|", L"ab"), L"ab    |");
    EXPECT_EQ(fmt(L"%3s|%s|%-2hs|%ls|", nullptr, nullptr, nullptr, nullptr), L"   ||  ||");
    EXPECT_EQ(fmt(L"%05s|", L"ab"), L"   ab|"); // "0" does not apply to strings
    // Width and precision count characters: a surrogate pair or a UTF-8 sequence is one.
    EXPECT_EQ(fmt(L"%4s|", L"\U0001D11E\U0001D11E"), L"  \U0001D11E\U0001D11E|");
    EXPECT_EQ(fmt(L"%.1s|", L"\U0001D11E\U0001D11E"), L"\U0001D11E|");
    EXPECT_EQ(fmt(L"%3hs|%.2hs|", "\xC3\xA9", "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC"),
              L"  \u00E9|\u20AC\u20AC|");
    EXPECT_EQ(fmt8("%3s|%.1ls|", "\xC3\xA9", L"\U0001D11Ex"), "  \xC3\xA9|\xF0\x9D\x84\x9E|");
    // A string of a character width other than 8 or 16 writes nothing but takes its argument.
    EXPECT_EQ(fmt(L"[%I32s]%d", L"x", 7), L"[]7");
}

TEST(Format, StringsOfTheOtherEncodingAreTranscoded) {
    EXPECT_EQ(fmt(L"%hs|%S", "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80", "\xE2\x82\xAC"),
              L"gr\u00FC\u00DF \U0001F600|\u20AC");
    EXPECT_EQ(fmt8("%ls|%S|%hs", L"gr\u00FC\u00DF \U0001F600", L"\u20AC", "raw"),
              "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80|\xE2\x82\xAC|raw");
    // Invalid UTF-8 decodes byte by byte as the invalid value, written as U+FFFF.
    EXPECT_EQ(fmt(L"%hs", "a\xFF"
                          "b\xC3(\xE2\x82"),
              L"a\uFFFFb\uFFFF(\uFFFF\uFFFF");
    // A lone surrogate decodes as the invalid value, written in UTF-8 as the byte 0xFF.
    const wchar_t lone[] = {L'x', 0xD800, L'y', 0xDC00, 0};
    EXPECT_EQ(fmt8("%ls", lone), "x\xFFy\xFF");
    // In its own encoding a string is copied as it is, malformed units included.
    EXPECT_EQ(fmt(L"%s", lone), lone);
    EXPECT_EQ(fmt8("%s", "a\xFF"), "a\xFF");
}

TEST(Format, CharacterConversions) {
    EXPECT_EQ(fmt(L"%c%w%C%hc%lc", L'A', L'B', 'C', 0xE9, 0x20AC), L"ABC\u00E9\u20AC");
    EXPECT_EQ(fmt(L"%I32c|%I8c", 0x1D11E, 0x141), L"\U0001D11E|A");
    EXPECT_EQ(fmt(L"[%5c][%-3c][%.0c]", L'x', L'y', L'z'),
              L"[x][y][z]"); // width, precision, flags ignored
    EXPECT_EQ(fmt(L"[%llc%I64c]%d", L'x', L'y', 3),
              L"[]3"); // written as nothing, taken all the same
    EXPECT_EQ(fmt8("%c%C%w%lc", 'a', 0x20AC, 0xE9, 0x41), "a\xE2\x82\xAC\xC3\xA9"
                                                          "A");
    EXPECT_EQ(fmt8("%I32c", 0x3FFFFFF), "\xFB\xBF\xBF\xBF\xBF"); // five-byte form
}

TEST(Format, TimeStamps) {
    EXPECT_EQ(fmt(L"%T", 0ull), L"1601-01-01 00:00:00.000");
    EXPECT_EQ(fmt(L"%t", 0ll), L"1970-01-01 00:00:00");
    EXPECT_EQ(fmt(L"%t", 4102444800ll), L"2100-01-01 00:00:00");
    EXPECT_EQ(fmt(L"%lt|%I32t|%I64t", -1, 0x100000000ll, 0x100000000ll),
              L"1969-12-31 23:59:59|1970-01-01 00:00:00|2106-02-07 06:28:16");
    EXPECT_EQ(fmt(L"[%25T][%-25T][%.10T]", 0ull, 0ull, 0ull),
              L"[  1601-01-01 00:00:00.000][1601-01-01 00:00:00.000  ][1601-01-01]");
    EXPECT_EQ(fmt8("%T", UINT64_MAX), "60056-05-28 05:36:10.955");

    // The split against the system's own: every day boundary around the century leap rules,
    // plus a spread of stamps up to the year 30827 that SYSTEMTIME can hold.
    uint64_t stamps[400];
    int n = 0;
    for (int year : {1601, 1700, 1800, 1900, 2000, 2024, 2100, 2400, 9999}) {
        for (int month : {2, 3}) {
            SYSTEMTIME st = {};
            st.wYear = static_cast<WORD>(year);
            st.wMonth = static_cast<WORD>(month);
            st.wDay = 1;
            FILETIME ft;
            ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
            uint64_t stamp = uint64_t(ft.dwHighDateTime) << 32 | ft.dwLowDateTime;
            stamps[n++] = stamp;
            if (stamp >= 10000)
                stamps[n++] = stamp - 10000; // the last millisecond of the day before
        }
    }
    for (uint64_t s = 12345678; n < 400; s = s * 6364136223846793005ull + 1442695040888963407ull)
        stamps[n++] = s % 0x7FFF35F4F06C7FFFull;
    for (uint64_t stamp : stamps) {
        FILETIME ft = {static_cast<DWORD>(stamp), static_cast<DWORD>(stamp >> 32)};
        SYSTEMTIME st;
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        wchar_t expected[40];
        swprintf(expected, 40, L"%04u-%02u-%02u %02u:%02u:%02u.%03u", st.wYear, st.wMonth, st.wDay,
                 st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
        EXPECT_EQ(fmt(L"%T", stamp), expected) << "stamp " << stamp;
    }
}

TEST(Format, Uuids) {
    EXPECT_EQ(fmt(L"%R", &sample_guid), L"12345678-9ABC-DEF0-0123-456789ABCDEF");
    EXPECT_EQ(fmt8("{%r}", &sample_guid), "{12345678-9abc-def0-0123-456789abcdef}");
    EXPECT_EQ(fmt(L"[%38r][%-37R]", &sample_guid, &sample_guid),
              L"[  12345678-9abc-def0-0123-456789abcdef][12345678-9ABC-DEF0-0123-456789ABCDEF ]");
    EXPECT_EQ(fmt(L"[%R][%3r]", nullptr, nullptr), L"[][   ]");
}

TEST(Format, StoresTheCountThroughN) {
    unsigned char bytes[8];
    memset(bytes, 0xAA, sizeof bytes);
    uint64_t wide_count = 0;
    EXPECT_EQ(fmt(L"abc%nde%I8nf%hn%d", &wide_count, bytes, bytes + 2, 9), L"abcdef9");
    EXPECT_EQ(wide_count, 3u);
    EXPECT_EQ(bytes[0], 5);
    EXPECT_EQ(bytes[1], 0xAA); // only the low byte written
    EXPECT_EQ(bytes[2] | bytes[3] << 8, 6);
    EXPECT_EQ(bytes[4], 0xAA);
    // The count is the complete result's, even past the end of the buffer.
    wchar_t small[2];
    uint32_t count32 = 0;
    text_format(small, 2, L"abcdef%ln", &count32);
    EXPECT_EQ(count32, 6u);
    EXPECT_EQ(fmt(L"x%ny", nullptr), L"xy");
}

TEST(Format, UnknownConversionsAndCutShortDirectives) {
    EXPECT_EQ(fmt(L"[%q]%d", 5), L"[]5");          // nothing written, no argument taken
    EXPECT_EQ(fmt(L"[%f][%5.2e]%d", 6), L"[][]6"); // no floating point
    EXPECT_EQ(fmt(L"%I%d|%Ix|%I6d|%I1", 1),
              L"1|x|6d|1"); // an "I" that is no prefix is the conversion
    EXPECT_EQ(fmt(L"[%5%][%%]"), L"[][%]");
    EXPECT_EQ(fmt(L"abc%"), L"abc");
    EXPECT_EQ(fmt(L"abc%-08"), L"abc");
    EXPECT_EQ(fmt(L"abc%.*", 3), L"abc");
    EXPECT_EQ(fmt(L"abc%ll"), L"abc");
    EXPECT_EQ(fmt8("abc%I64"), "abc");
}

TEST(Format, AllocatingForms) {
    wchar_t* short_text = text_format_alloc(L"%s=%d", L"answer", 42);
    ASSERT_NE(short_text, nullptr);
    EXPECT_STREQ(short_text, L"answer=42");
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, short_text), sizeof(L"answer=42"));
    text_free(short_text);

    // 100 units and more are formatted a second time, straight into the block.
    for (int width : {99, 100, 101, 5000}) {
        wchar_t* text = text_format_alloc(L"%*d", width, 7);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(wcslen(text), size_t(width));
        EXPECT_EQ(text[width - 1], L'7');
        EXPECT_EQ(HeapSize(GetProcessHeap(), 0, text), (width + 1) * sizeof(wchar_t));
        text_free(text);
    }

    struct CountingAllocator : TextAllocator {
        TextArena arena;
        int calls = 0;
        size_t last_bytes = 0;
        bool refuse = false;
        void* allocate(size_t bytes) override {
            ++calls;
            last_bytes = bytes;
            return refuse ? nullptr : arena.allocate(bytes);
        }
    } allocator;
    wchar_t* text = text_format_arena(allocator, L"%s %T", L"at", 0ull);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, L"at 1601-01-01 00:00:00.000");
    EXPECT_EQ(allocator.calls, 1);
    EXPECT_EQ(allocator.last_bytes, (wcslen(text) + 1) * sizeof(wchar_t));
    text = text_format_arena(allocator, L"%300s", L"long");
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(wcslen(text), 300u);
    EXPECT_STREQ(text + 296, L"long");
    allocator.refuse = true;
    EXPECT_EQ(text_format_arena(allocator, L"%d", 1), nullptr);
}
