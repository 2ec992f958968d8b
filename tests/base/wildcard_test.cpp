#include <gtest/gtest.h>

#include <string>

#include "base/wildcard.h"

TEST(Wildcard, StarsAndQuestionMarks) {
    EXPECT_TRUE(text_wildcard_match(L"zun*fs.dll", L"zunisofs.dll"));
    EXPECT_TRUE(text_wildcard_match(L"zun*fs.dll", L"zunfs.dll"));
    EXPECT_FALSE(text_wildcard_match(L"zun*fs.dll", L"zunisofs.dll.bak"));
    EXPECT_TRUE(text_wildcard_match(L"*", L""));
    EXPECT_TRUE(text_wildcard_match(L"", L""));
    EXPECT_FALSE(text_wildcard_match(L"?", L"")); // "?" never matches the end
    EXPECT_TRUE(text_wildcard_match(L"a?c", L"abc"));
    EXPECT_FALSE(text_wildcard_match(L"a?c", L"ac"));
    EXPECT_TRUE(text_wildcard_match(L"*a*b*c*", L"xxaxxbxxcxx"));
    EXPECT_FALSE(text_wildcard_match(L"*a*b*c", L"xxaxxbxxcxx"));
    EXPECT_TRUE(text_wildcard_match(L"*ab", L"aaab")); // the star must give back what it took
    EXPECT_TRUE(text_wildcard_match(L"**?", L"x"));
    EXPECT_FALSE(text_wildcard_match(L"ABC", L"abc"));
    EXPECT_TRUE(text_wildcard_match(nullptr, nullptr));
    // "?" is one character: a whole surrogate pair or UTF-8 sequence.
    EXPECT_TRUE(text_wildcard_match(L"?.txt", L"\U0001F600.txt"));
    EXPECT_TRUE(utf8_wildcard_match("?.txt", "\xC3\xA9.txt"));
    EXPECT_FALSE(utf8_wildcard_match("??.txt", "\xC3\xA9.txt"));
}

TEST(Wildcard, AsciiCaseInsensitiveForm) {
    EXPECT_TRUE(text_wildcard_match_ascii_nocase(L"ZUN*FS.dll", L"zunIsoFs.DLL"));
    EXPECT_FALSE(text_wildcard_match_ascii_nocase(L"\u00C9*", L"\u00E9t\u00E9"));
    EXPECT_TRUE(utf8_wildcard_match_ascii_nocase("*_v?.DLL", "zunfs_v7.dll"));
}

TEST(Wildcard, AtMostFiftyStarsArePending) {
    auto stars = [](int n) { return std::wstring(n, L'*'); };
    auto star_x = [](int n) {
        std::wstring s;
        for (int i = 0; i < n; ++i) s += L"*x";
        return s;
    };
    std::wstring xs(50, L'x');
    // The fiftieth star still takes any run; the fifty-first only the empty one.
    EXPECT_TRUE(text_wildcard_match((stars(49) + L"a*b").c_str(), L"axxb"));
    EXPECT_FALSE(text_wildcard_match((stars(50) + L"a*b").c_str(), L"axxb"));
    EXPECT_TRUE(text_wildcard_match((stars(50) + L"a*b").c_str(), L"ab"));
    EXPECT_TRUE(text_wildcard_match((star_x(49) + L"*z").c_str(), (xs + L"yyz").c_str()));
    EXPECT_FALSE(text_wildcard_match((star_x(50) + L"*z").c_str(), (xs + L"yyz").c_str()));
    EXPECT_TRUE(text_wildcard_match((star_x(50) + L"*z").c_str(), (xs + L"z").c_str()));
    EXPECT_TRUE(text_wildcard_match((stars(80) + L"b").c_str(), L"ab"));

    // A pattern that takes exponential time with unbounded backtracking finishes at once.
    std::wstring hostile;
    for (int i = 0; i < 40; ++i) hostile += L"*a";
    EXPECT_FALSE(text_wildcard_match((hostile + L"b").c_str(), std::wstring(4000, L'a').c_str()));
}
