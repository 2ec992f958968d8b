// The case-insensitive comparison against the platform's own upper-casing over the whole BMP.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>

#include "base/upcase.h"

extern "C" WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR c);

TEST(Upcase, AgreesWithThePlatformOverTheWholeBmp) {
    int differences = 0;
    for (uint32_t c = 0; c < 0x10000; ++c) {
        if (c - 0xD800 < 0x800) continue;
        uint32_t platform = RtlUpcaseUnicodeChar(static_cast<WCHAR>(c));
        uint32_t ours = code_point_upcase(c);
        if (ours != platform && ++differences <= 40)
            ADD_FAILURE() << std::hex << "U+" << c << ": ours U+" << ours << ", platform U+"
                          << platform;
    }
    EXPECT_EQ(differences, 0);
}

TEST(Upcase, CaseInsensitiveCompareOrdersAsThePlatformDoes) {
    // Each BMP character against its neighbour and against its own upper case: the sign of the
    // result must be CompareStringOrdinal's with case ignored.
    int differences = 0;
    for (uint32_t c = 1; c < 0xFFFF; ++c) {
        if (c - 0xD800 < 0x800 || c + 1 - 0xD800 < 0x800) continue;
        wchar_t a[2] = {static_cast<wchar_t>(c), 0};
        wchar_t b[2] = {static_cast<wchar_t>(c + 1), 0};
        wchar_t u[2] = {RtlUpcaseUnicodeChar(a[0]), 0};
        int platform = CompareStringOrdinal(a, 1, b, 1, TRUE) - CSTR_EQUAL;
        if (text_compare_nocase(a, b) != platform && ++differences <= 20)
            ADD_FAILURE() << std::hex << "U+" << c << " against U+" << c + 1;
        if (text_compare_nocase(u, a) != 0 && ++differences <= 20)
            ADD_FAILURE() << std::hex << "U+" << c << " against its upper case";
    }
    EXPECT_EQ(differences, 0);
}

TEST(Upcase, CompareFoldsEveryCodePoint) {
    EXPECT_EQ(text_compare_nocase(L"Stra\u00DFe \u00C9T\u00C9 \u0434\u043E\u043C",
                                  L"STRA\u00DFE \u00E9t\u00E9 \u0414\u041E\u041C"),
              0);
    EXPECT_EQ(text_compare_nocase(L"\U00010428", L"\U00010400"), 0); // Deseret, beyond the BMP
    EXPECT_EQ(text_compare_nocase(L"abc", L"ABD"), -1);
    EXPECT_EQ(utf8_compare_nocase("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89"), 0);
    EXPECT_NE(utf8_compare_nocase("\xFE", "\xFF"), 0); // different malformed bytes stay different
}
