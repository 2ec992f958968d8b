// Name components: where a name ends, what counts as a component, and the UTF-16 conversion.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/request_name.h"
#include "protocol/utf8.h"

using namespace zun;

namespace {

// A message whose name region (from offset 8) holds exactly these bytes.
struct NameMessage {
    std::vector<uint8_t> bytes;
    explicit NameMessage(const std::string& region) : bytes(8 + region.size()) {
        std::copy(region.begin(), region.end(), bytes.begin() + 8);
    }
    ProtocolError parse(RequestName& name, uint32_t min, uint32_t max, uint32_t id = 1) {
        return name.parse(bytes.data(), static_cast<uint32_t>(bytes.size()), id, 8, min, max);
    }
};

using W = std::vector<std::wstring>;

W texts(const RequestName& name) {
    W out;
    for (size_t i = 0; i < name.count(); ++i) {
        EXPECT_EQ(name[i].utf16[name[i].utf16_length], L'\0');
        out.emplace_back(name[i].utf16, name[i].utf16_length);
    }
    return out;
}

} // namespace

TEST(RequestName, WhereTheNameEnds) {
    // Ten components of 29 letters: their records alone fill the inline area.
    std::string ten;
    W ten_texts;
    for (char c = 'a'; c < 'a' + 10; ++c) {
        ten += std::string(29, c) + '\0';
        ten_texts.push_back(std::wstring(29, wchar_t(c)));
    }
    RequestName name;
    const struct {
        std::string region;
        uint32_t min, max;
        W expected;
    } cases[] = {
        {"", 0, kNameUnlimited, W{}},                         // open of the root
        {std::string("\0\0\0\0", 4), 0, kNameUnlimited, W{}}, // zero padding only
        {"", 1, 1, W{L""}},                                   // replace with no name bytes
        {"", 2, 2, W{L"", L""}},                              // region used up before the minimum
        {std::string("a\0b\0c\0", 6), 0, kNameUnlimited, W{L"a", L"b", L"c"}},
        {std::string("a\0\0b\0", 5), 0, kNameUnlimited, W{L"a"}},   // first empty ends it
        {std::string("\0b\0", 3), 1, kNameUnlimited, W{L"", L"b"}}, // empty within the minimum
        {std::string("a\0b\0", 4), 1, 1, W{L"a"}},                  // the maximum ends it
        {std::string("a\0bc", 4), 0, kNameUnlimited, W{L"a"}},      // unterminated tail is empty
        {"abc", 1, 1, W{L""}}, // ... even as the only component
        {std::string("x\0", 2), 2, 2, W{L"x", L""}},
        {ten, 0, kNameUnlimited, ten_texts},
    };
    for (const auto& c : cases) {
        NameMessage msg(c.region);
        ASSERT_EQ(msg.parse(name, c.min, c.max), ProtocolError::Success);
        EXPECT_EQ(texts(name), c.expected) << c.region.size() << " bytes, min " << c.min;
    }
    // A name is refused for request id 0, or when it would start beyond the message.
    NameMessage msg(std::string("a\0", 2));
    EXPECT_EQ(msg.parse(name, 0, kNameUnlimited, 0), ProtocolError::Invalid);
    EXPECT_EQ(name.parse(msg.bytes.data(), 8, 1, 9, 0, 1), ProtocolError::Invalid);
    EXPECT_EQ(name.parse(msg.bytes.data(), 8, 1, 8, 0, 1), ProtocolError::Success);
}

TEST(Utf8, ConversionsReplaceWhatIsMalformed) {
    auto to16 = [](const std::string& s) {
        std::wstring out(utf8_to_utf16_length(s.data(), s.size()), L'?');
        EXPECT_EQ(utf8_to_utf16(s.data(), s.size(), out.data()), out.size());
        return out;
    };
    EXPECT_EQ(to16("A\xC3\xA9\xE2\x82\xAC"), L"A\u00E9\u20AC");
    EXPECT_EQ(to16("\xF0\x9F\x98\x80"), std::wstring(L"\xD83D\xDE00"));
    EXPECT_EQ(to16("\xFF\x61"), L"\uFFFDa");                // never a lead byte
    EXPECT_EQ(to16("\x80"), L"\uFFFD");                     // stray continuation
    EXPECT_EQ(to16("\xE2\x82"), L"\uFFFD\uFFFD");           // truncated: one per byte
    EXPECT_EQ(to16("\xC0\xAF"), L"\uFFFD\uFFFD");           // overlong
    EXPECT_EQ(to16("\xED\xA0\x80"), L"\uFFFD\uFFFD\uFFFD"); // encoded surrogate
    EXPECT_EQ(to16("\xF4\x90\x80\x80").size(), 4u);         // above U+10FFFF

    auto to8 = [](const std::wstring& s) {
        std::string out(utf16_to_utf8_length(s.data(), s.size()), '?');
        EXPECT_EQ(utf16_to_utf8(s.data(), s.size(), out.data()), out.size());
        return out;
    };
    EXPECT_EQ(to8(L"A\u00E9\u20AC"), "A\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(to8(std::wstring(L"\xD83D\xDE00")), "\xF0\x9F\x98\x80");
    EXPECT_EQ(to8(std::wstring(L"\xD83Dx")), "\xEF\xBF\xBDx"); // unpaired surrogates
    EXPECT_EQ(to8(std::wstring(L"\xDE00")), "\xEF\xBF\xBD");
}
