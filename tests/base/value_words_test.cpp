#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "base/value_words.h"

namespace {

std::wstring format(int64_t value, uint32_t style, unsigned digits = 0) {
    wchar_t out[64];
    value_format(out, 64, value, style, digits);
    return out;
}

} // namespace

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
        {L"nope", 0, value_yes_no},     {L"o", 0, 0},                   {L"d", 0, value_e_d},
        {L"", 0, 0},                    {L"  \v ", 0, 0},               {L"+42", 42, 0},
        {L"\f1", 0, 0},                 // a form feed is not a blank
        {L"0x1f", 31, value_hex},       {L"-12", -12, value_signed},
        {L"-0X1F", -31, value_hex | value_signed},
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
    EXPECT_EQ(value_parse(nullptr, 10, nullptr), 0);
}

TEST(ValueWords, FormatsWordsAndNumbers) {
    EXPECT_EQ(format(0, value_enabled_disabled), L"disabled");
    EXPECT_EQ(format(5, value_enabled_disabled), L"5");
    // Value 0 takes the first of no, n, false, f, off, disable, disabled, d; value 1 the first
    // of y, true, t, on, enable, enabled, e, else yes.
    EXPECT_EQ(format(0, value_y_n | value_yes_no), L"no");
    EXPECT_EQ(format(1, value_y_n | value_yes_no), L"y");
    EXPECT_EQ(format(1, value_yes_no | value_e_d), L"e");
    EXPECT_EQ(format(-1, value_hex), L"0xffffffffffffffff");
    EXPECT_EQ(format(-1, 0), L"18446744073709551615");
    EXPECT_EQ(format(-42, value_signed, 5), L"-00042");
    EXPECT_EQ(format(0, value_hex, 4), L"0x0000");
    EXPECT_EQ(format(255, value_hex, 99), L"0x0000000000000000000000000ff"); // digits capped at 27
    wchar_t small[4];
    value_format(small, 4, 0, value_enabled_disabled, 0);
    EXPECT_STREQ(small, L"dis");
}

TEST(ValueWords, EveryStyleRoundTrips) {
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
