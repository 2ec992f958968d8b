// The engines' own rules where they differ from the C runtime, the conversions it lacks, and
// proof that the engines never allocate.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

#include "base/base64.h"
#include "base/format.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "base/upcase.h"
#include "base/utf.h"
#include "base/value_words.h"
#include "base/wildcard.h"

namespace {

// Formats with the engine of the format's unit; the result's count must be its length.
template <class Unit, class... Args> std::basic_string<Unit> fmt(const Unit* format, Args... args) {
    Unit out[512];
    size_t n;
    if constexpr (sizeof(Unit) == 2)
        n = text_format(out, 512, format, args...);
    else
        n = utf8_format(out, 512, format, args...);
    EXPECT_EQ(n, std::char_traits<Unit>::length(out));
    return out;
}

const GUID sample_guid = {
    0x12345678, 0x9ABC, 0xDEF0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

long allocations = 0;
const char* const hooked_names[] = {"HeapAlloc", "malloc", "calloc", "realloc", "RtlAllocateHeap"};
void* originals[5];

// The stand-in for entry I: counts, then calls the original (x64 has one calling convention).
template <int I, class... Args> void* counting(Args... args) {
    ++allocations;
    return reinterpret_cast<void* (*)(Args...)>(originals[I])(args...);
}
void* const replacements[] = {reinterpret_cast<void*>(counting<0, HANDLE, DWORD, SIZE_T>),
                              reinterpret_cast<void*>(counting<1, size_t>),
                              reinterpret_cast<void*>(counting<2, size_t, size_t>),
                              reinterpret_cast<void*>(counting<3, void*, size_t>),
                              reinterpret_cast<void*>(counting<4, void*, ULONG, SIZE_T>)};

void write_slot(void** slot, void* value) {
    DWORD old;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
}

// Swaps the import slot of each hooked name, from any DLL, for the life of the object.
struct AllocationWatch {
    void** slots[5] = {};

    AllocationWatch() {
        auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(
            base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        DWORD imports =
            nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
        for (auto* imp = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); imp->Name;
             ++imp) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + imp->OriginalFirstThunk);
            auto* slot = reinterpret_cast<void**>(base + imp->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++slot) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
                auto* name = reinterpret_cast<const char*>(
                    reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name);
                for (int i = 0; i < 5; ++i)
                    if (!slots[i] && !strcmp(name, hooked_names[i])) {
                        slots[i] = slot;
                        originals[i] = *slot;
                        write_slot(slot, replacements[i]);
                    }
            }
        }
    }
    ~AllocationWatch() {
        for (int i = 0; i < 5; ++i)
            if (slots[i]) write_slot(slots[i], originals[i]);
    }
};

} // namespace

TEST(Format, CountedBufferTruncatesAndStillCountsEverything) {
    wchar_t out[8];
    wmemset(out, L'#', 8);
    EXPECT_EQ(text_format(out, 0, L"hello %d", 12345), 11u);
    EXPECT_EQ(out[0], L'#'); // capacity 0: not even the terminator
    EXPECT_EQ(text_format(out, 5, L"hello %d", 12345), 11u);
    EXPECT_STREQ(out, L"hell");
    EXPECT_EQ(text_format(out, 6, L"%s", L"abcde"), 5u); // exactly fits with its terminator
    EXPECT_STREQ(out, L"abcde");
    // Huge padding is counted, not written.
    EXPECT_EQ(text_format(out, 8, L"%2000000000d", 1), 2000000000u);
    char out8[4];
    EXPECT_EQ(utf8_format(out8, 4, "%s-%s", "ab", "cd"), 5u);
    EXPECT_STREQ(out8, "ab-");
    EXPECT_EQ(text_format(out, 8, nullptr), 0u);
}

TEST(Format, IntegersPointersAndStars) {
    EXPECT_EQ(fmt(L"%#x %#X %#o %#o", 0, 0, 8, 0), L"0x0 0X0 010 00");
    EXPECT_EQ(fmt(L"%.0d|%.0x", 0, 0), L"0|0"); // at least one digit, whatever the precision
    EXPECT_EQ(fmt(L"%-05d|", 42), L"00042|");   // "0" wins over "-"
    // With "0", the padding becomes zeros after the precision has been taken into account.
    EXPECT_EQ(fmt(L"%08.3d|%#08.4x", 5, 0x1Fu), L"000005|0x001f");
    EXPECT_EQ(fmt(L"%I64X %I64d", 0x1Full, INT64_MIN), L"1F -9223372036854775808");
    EXPECT_EQ(fmt(L"%I8d %I8u %I8x %I16d %I16u", 0x1FF, 0x1FF, 0xABCD, 0x18000, 0x18000),
              L"-1 255 cd -32768 32768");
    // Pointer-sized hexadecimal: always 64 bits, no zero fill of its own.
    EXPECT_EQ(fmt(L"%P %p %#P %#p %hP", 0x1Full, 0xabcull, 0x1Full, 0x1Full, 0x123456789ull),
              L"1F abc 0X1F 0x1f 123456789");
    EXPECT_EQ(fmt(L"%016P|%-6p|", 0x1Full, 0x2ull), L"000000000000001F|2     |");
    EXPECT_EQ(fmt(L"%*d|%.*d|", -5, 42, -4, 42), L"42|42|");    // negative: none at all
    EXPECT_EQ(fmt(L"%*d|", 0xFFFFFFFF00000003ull, 1), L"  1|"); // a 32-bit number from its slot
}

TEST(Format, StringFieldsCountCharactersAndStopAtTheLargerOfWidthAndPrecision) {
    EXPECT_EQ(fmt(L"%5.2s|%2.4s|%.0s|%-6.3s|", L"abcdef", L"abcdef", L"abc", L"ab"),
              L"abcde|abcd||ab    |");
    EXPECT_EQ(fmt(L"%3s|%s|%-2hs|%ls|", nullptr, nullptr, nullptr, nullptr), L"   ||  ||");
    EXPECT_EQ(fmt(L"%05s|", L"ab"), L"   ab|"); // "0" does not apply to strings
    // Width and precision count characters: a surrogate pair or a UTF-8 sequence is one.
    EXPECT_EQ(fmt(L"%4s|%.1s|", L"\U0001D11E\U0001D11E", L"\U0001D11E\U0001D11E"),
              L"  \U0001D11E\U0001D11E|\U0001D11E|");
    EXPECT_EQ(fmt(L"%3hs|%.2hs|", "\xC3\xA9", "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC"),
              L"  \u00E9|\u20AC\u20AC|");
    EXPECT_EQ(fmt("%3s|%.1ls|", "\xC3\xA9", L"\U0001D11Ex"), "  \xC3\xA9|\xF0\x9D\x84\x9E|");
    // A string of a character width other than 8 or 16 writes nothing but takes its argument.
    EXPECT_EQ(fmt(L"[%I32s]%d", L"x", 7), L"[]7");

    // The other encoding is transcoded; invalid UTF-8 decodes byte by byte as the invalid
    // value (U+FFFF in UTF-16), a lone surrogate as the invalid value (the byte 0xFF in UTF-8).
    EXPECT_EQ(fmt(L"%hs|%S", "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80", "\xE2\x82\xAC"),
              L"gr\u00FC\u00DF \U0001F600|\u20AC");
    EXPECT_EQ(fmt("%ls|%S|%hs", L"gr\u00FC \U0001F600", L"\u20AC", "raw"),
              "gr\xC3\xBC \xF0\x9F\x98\x80|\xE2\x82\xAC|raw");
    EXPECT_EQ(fmt(L"%hs", "a\377b\303(\342\202"), L"a\uFFFFb\uFFFF(\uFFFF\uFFFF");
    const wchar_t lone[] = {L'x', 0xD800, L'y', 0xDC00, 0};
    EXPECT_EQ(fmt("%ls", lone), "x\xFFy\xFF");
    // In its own encoding a string is copied as it is, malformed units included.
    EXPECT_EQ(fmt(L"%s", lone), lone);
    EXPECT_EQ(fmt("%s", "a\xFF"), "a\xFF");
}

TEST(Format, CharacterConversions) {
    EXPECT_EQ(fmt(L"%c%w%C%hc%lc", L'A', L'B', 'C', 0xE9, 0x20AC), L"ABC\u00E9\u20AC");
    EXPECT_EQ(fmt(L"%I32c|%I8c", 0x1D11E, 0x141), L"\U0001D11E|A");
    // Width, precision and flags are ignored; a 64-bit character is taken but writes nothing.
    EXPECT_EQ(fmt(L"[%5c][%-3c][%.0c][%llc%I64c]%d", L'x', L'y', L'z', L'x', L'y', 3),
              L"[x][y][z][]3");
    EXPECT_EQ(fmt("%c%C%w%lc", 'a', 0x20AC, 0xE9, 0x21), "a\xE2\x82\xAC\xC3\xA9!");
    EXPECT_EQ(fmt("%I32c", 0x3FFFFFF), "\xFB\xBF\xBF\xBF\xBF"); // five-byte form
}

TEST(Format, TimeStamps) {
    EXPECT_EQ(fmt(L"%t|%t", 0ll, 4102444800ll), L"1970-01-01 00:00:00|2100-01-01 00:00:00");
    EXPECT_EQ(fmt(L"%lt|%I32t|%I64t", -1, 0x100000000ll, 0x100000000ll),
              L"1969-12-31 23:59:59|1970-01-01 00:00:00|2106-02-07 06:28:16");
    EXPECT_EQ(fmt(L"[%25T][%-25T][%.10T]", 0ull, 0ull, 0ull),
              L"[  1601-01-01 00:00:00.000][1601-01-01 00:00:00.000  ][1601-01-01]");
    EXPECT_EQ(fmt("%T", UINT64_MAX), "60056-05-28 05:36:10.955");

    // %T against the system's own split: the day boundaries around the century leap rules.
    // Each first of February and March, and the last millisecond of the day before.
    for (WORD year : {1700, 1800, 1900, 2000, 2024, 2100, 2400, 9999})
        for (int i = 0; i < 4; ++i) {
            SYSTEMTIME st = {year, WORD(2 + i / 2), 0, 1};
            FILETIME ft;
            ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
            uint64_t stamp = (uint64_t(ft.dwHighDateTime) << 32 | ft.dwLowDateTime) - i % 2 * 10000;
            ft = {static_cast<DWORD>(stamp), static_cast<DWORD>(stamp >> 32)};
            ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
            wchar_t expected[40];
            swprintf(expected, 40, L"%04u-%02u-%02u %02u:%02u:%02u.%03u", st.wYear, st.wMonth,
                     st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
            EXPECT_EQ(fmt(L"%T", stamp), expected) << "stamp " << stamp;
        }
}

TEST(Format, UuidsAndCounts) {
    EXPECT_EQ(fmt(L"%R", &sample_guid), L"12345678-9ABC-DEF0-0123-456789ABCDEF");
    EXPECT_EQ(fmt("{%r}", &sample_guid), "{12345678-9abc-def0-0123-456789abcdef}");
    EXPECT_EQ(fmt(L"[%38r][%-37R]", &sample_guid, &sample_guid),
              L"[  12345678-9abc-def0-0123-456789abcdef][12345678-9ABC-DEF0-0123-456789ABCDEF ]");
    EXPECT_EQ(fmt(L"[%R][%3r]", nullptr, nullptr), L"[][   ]");

    unsigned char bytes[8];
    memset(bytes, 0xAA, sizeof bytes);
    uint64_t wide_count = 0;
    EXPECT_EQ(fmt(L"abc%nde%I8nf%hn%d", &wide_count, bytes, bytes + 2, 9), L"abcdef9");
    EXPECT_EQ(wide_count, 3u);
    // Each count as wide as its size prefix asks: a byte, then 16 bits.
    EXPECT_EQ(std::vector<int>(bytes, bytes + 5), (std::vector<int>{5, 0xAA, 6, 0, 0xAA}));
    // The count is the complete result's, even past the end of the buffer.
    wchar_t small[2];
    uint32_t count32 = 0;
    text_format(small, 2, L"abcdef%ln", &count32);
    EXPECT_EQ(count32, 6u);
    EXPECT_EQ(fmt(L"x%ny", nullptr), L"xy");
}

TEST(Format, UnknownConversionsAndCutShortDirectives) {
    EXPECT_EQ(fmt(L"[%q]%d", 5), L"[]5");                 // nothing written, no argument taken
    EXPECT_EQ(fmt(L"[%f][%5.2e]%d", 6), L"[][]6");        // no floating point
    EXPECT_EQ(fmt(L"%I%d|%Ix|%I6d|%I1", 1), L"1|x|6d|1"); // an "I" that is no prefix
    EXPECT_EQ(fmt(L"[%5%][%%]"), L"[][%]");
    for (const wchar_t* format : {L"abc%", L"abc%-08", L"abc%.*", L"abc%ll"})
        EXPECT_EQ(fmt(format, 3), L"abc");
    EXPECT_EQ(fmt("abc%I64"), "abc");
}

TEST(Format, AllocatingForms) {
    // Below 100 units from the stack; longer texts are formatted a second time into the block.
    for (int width : {9, 99, 100, 101, 5000}) {
        wchar_t* text = text_format_alloc(L"%*d", width, 7);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(wcslen(text), size_t(width));
        EXPECT_EQ(text[width - 1], L'7');
        EXPECT_EQ(HeapSize(GetProcessHeap(), 0, text), (width + 1) * sizeof(wchar_t));
        text_free(text);
    }
    TextArena arena;
    EXPECT_STREQ(text_format_arena(arena, L"%s %T", L"at", 0ull), L"at 1601-01-01 00:00:00.000");
    struct Refusing : TextAllocator {
        void* allocate(size_t) override { return nullptr; }
    } refusing;
    EXPECT_EQ(text_format_arena(refusing, L"%d", 1), nullptr);
}

TEST(NoAllocation, EnginesAndCompanionsNeverTouchTheHeap) {
    static wchar_t wide[600];
    static char narrow[600];
    const GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    long during;
    {
        AllocationWatch watch;
        ASSERT_TRUE(watch.slots[0] && watch.slots[1]); // HeapAlloc and malloc are imported
        allocations = 0;
        // The watch sees an allocation where there is one...
        text_free(text_format_alloc(L"%d", 1));
        EXPECT_EQ(allocations, 1);
        allocations = 0;
        // ...and none in any of these, long outputs, truncation and transcoding included.
        text_format(wide, 600, L"%05X %T open %ls 0x%I64X %d %hs %R %t %-30.20s %p %c%C", 0x1Au,
                    0ull, L"file", ~0ull, -5, "gr\xC3\xBC\xC3\x9F", &guid, 1ll << 31, L"padded",
                    &guid, L'x', 'y');
        text_format(wide, 8, L"%500d", 1);
        utf8_format(narrow, 600, "%ls %S %I32c %lc %*.*s", L"\U0001F600", L"\u20AC", 0x10FFFF, 0xE9,
                    40, 30, "abc");
        utf8_to_text(wide, 600, "\xF0\x9F\x98\x80 \xFF");
        text_to_utf8(narrow, 600, L"\U0001F600 \xD800");
        text_compare_nocase(L"Stra\u00DFe \U00010428", L"STRASSE \U00010400");
        text_wildcard_match_ascii_nocase(L"*zun*fs?.dll", L"C:\\x\\zunisofs7.DLL");
        text_base64_encode(wide, 600, "foobar", 6);
        value_format(wide, 600, -42, value_signed, 9);
        during = allocations;
    }
    EXPECT_EQ(during, 0);
}
