#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/base64.h"

TEST(Base64, EncodesTheStandardVectors) {
    const char* const expected[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t n = 0; n <= 6; ++n) {
        char out[16];
        EXPECT_EQ(utf8_base64_encode(out, sizeof out, "foobar", n), strlen(expected[n]));
        EXPECT_STREQ(out, expected[n]);
        wchar_t wide[16];
        EXPECT_EQ(text_base64_encode(wide, 16, "foobar", n), strlen(expected[n]));
        EXPECT_EQ(std::string(expected[n]), std::string(wide, wide + wcslen(wide)));
    }
    EXPECT_EQ(text_base64_encode(nullptr, 0, "foobar", 6), 8u); // sizing call
}

TEST(Base64, RoundTripsEveryByteValueAndLength) {
    uint8_t data[300];
    for (int i = 0; i < 300; ++i) data[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t n : {0u, 1u, 2u, 3u, 4u, 255u, 256u, 257u, 300u}) {
        wchar_t text[420];
        size_t length = text_base64_encode(text, 420, data, n);
        ASSERT_EQ(length, (n + 2) / 3 * 4);
        for (size_t i = 0; i < length; ++i)
            ASSERT_TRUE(text[i] < 128 && (isalnum(text[i]) || strchr("+/=", text[i])));
        uint8_t back[300];
        ASSERT_EQ(text_base64_decode(back, sizeof back, text), n);
        EXPECT_EQ(memcmp(back, data, n), 0);
    }
}

TEST(Base64, DecodingSkipsForeignCharactersAndRestartsAtPadding) {
    uint8_t out[16];
    // Line breaks and blanks are skipped.
    EXPECT_EQ(utf8_base64_decode(out, sizeof out, "Zm9v\r\nYm Fy"), 6u);
    EXPECT_EQ(memcmp(out, "foobar", 6), 0);
    // "=" ends a group early and the next character starts a new one.
    EXPECT_EQ(utf8_base64_decode(out, sizeof out, "Zg==Zm8="), 3u);
    EXPECT_EQ(memcmp(out, "ffo", 3), 0);
    EXPECT_EQ(utf8_base64_decode(out, sizeof out, "Zg=Zg"), 2u);
    // Counted past the capacity, stopped by the length.
    EXPECT_EQ(utf8_base64_decode(out, 2, "Zm9vYmFy"), 6u);
    EXPECT_EQ(memcmp(out, "fo", 2), 0);
    EXPECT_EQ(utf8_base64_decode(out, sizeof out, "Zm9vYmFy", 4), 3u);
    EXPECT_EQ(text_base64_decode(nullptr, 0, L"Zm9vYmFy"), 6u);
}
