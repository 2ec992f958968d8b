// The table, expansion, retrieval and parsing, in this process. What needs a process of its own
// (loading from the module, test mode, the "-:" commands) is in usertext_process_test.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/text_arena.h"
#include "usertext/locale_texts.h"
#include "usertext/usertext_internal.h"

USERTEXT_KEY(test_plain, "plain text");
USERTEXT_KEY(test_of, "%1 of %2");
USERTEXT_KEY(test_escapes, "100%% %0 %x end%");
USERTEXT_KEY(test_outer, "[%(test_inner)|%(test_inner");
USERTEXT_KEY(test_inner, "in %1");
USERTEXT_KEY(test_ping, "ping %(test_pong)");
USERTEXT_KEY(test_pong, "pong %(test_ping)");
USERTEXT_KEY(test_utf8, "caf\xC3\xA9 \xF0\x9F\x98\x80 and a default longer than fifty units");

namespace {

struct RefusingArena final : TextAllocator {
    void* allocate(size_t) override { return nullptr; }
};

// Keeps what it is given, each line followed by "$" when it is ended and by "|" when not.
struct RecordingSink final : OutputSink {
    std::wstring lines;
    void write(const wchar_t* text, bool line_end) override {
        lines += text + std::wstring(line_end ? L"$" : L"|");
    }
};

} // namespace

TEST(UserText, TableKeysIgnoreCaseAndKeepOrder) {
    EXPECT_STREQ(usertext_lookup(L"TEST_PLAIN"), L"plain text");
    usertext_set(L"Test_Replaced", L"first");
    usertext_set(L"test_replaced", L"second");
    EXPECT_STREQ(usertext_lookup(L"test_REPLACED"), L"second");
    EXPECT_STREQ(usertext_lookup(L"test_utf8"),
                 L"caf\u00e9 \U0001F600 and a default longer than fifty units");
    EXPECT_EQ(usertext_lookup(L"nobody_registered_this"), nullptr);

    std::vector<std::wstring> keys; // in key order, each key once
    usertext_enumerate(
        [](void* keys, const wchar_t* key, const wchar_t*) {
            static_cast<std::vector<std::wstring>*>(keys)->push_back(key);
        },
        &keys);
    for (size_t i = 1; i < keys.size(); ++i)
        EXPECT_LT(_wcsicmp(keys[i - 1].c_str(), keys[i].c_str()), 0) << keys[i];
}

TEST(UserText, Expansion) {
    struct Case {
        const wchar_t* key;
        std::vector<const wchar_t*> args;
        const wchar_t* text;
    } cases[] = {
        {L"test_of", {L"one"}, L"one of missing_arg"},
        {L"test_of", {L"one", nullptr}, L"one of missing_arg"},
        // Arguments and nested texts are inserted as they stand, never scanned again.
        {L"test_of", {L"%2", L"%(test_plain)"}, L"%2 of %(test_plain)"},
        {L"test_escapes", {}, L"100% 0 x end"},
        {L"test_outer", {L"arg"}, L"[in arg|in arg"}, // an unclosed name runs to the end
        {L"nobody_registered_this", {}, L"nobody_registered_this"},
        // Levels 1-6 expand; the sixth inserts the stored text of the key it names.
        {L"test_ping", {}, L"ping pong ping pong ping pong ping %(test_pong)"},
    };
    wchar_t out[512];
    for (const Case& c : cases) {
        EXPECT_EQ(usertext_expand(c.key, c.args.size(), c.args.data(), out, 512, nullptr),
                  wcslen(c.text));
        EXPECT_STREQ(out, c.text);
    }
    usertext_set(L"missing_arg", L"<?>");
    usertext_expand(L"test_of", 0, nullptr, out, 512, nullptr);
    EXPECT_STREQ(out, L"<?> of <?>");
    usertext_set(L"missing_arg", L"missing_arg");

    // What does not fit is counted; the buffer holds what did.
    const wchar_t* args[] = {L"argument"};
    const size_t whole = wcslen(L"[in argument|in argument");
    for (size_t capacity : {1u, 5u, 8u}) {
        EXPECT_EQ(usertext_expand(L"test_outer", 1, args, out, capacity, nullptr), whole);
        EXPECT_EQ(std::wstring(out), std::wstring(L"[in argument", capacity - 1));
    }
    out[0] = L'#';
    EXPECT_EQ(usertext_expand(L"test_outer", 1, args, out, 0, nullptr), whole);
    EXPECT_EQ(out[0], L'#');
}

TEST(UserText, RetrievalUsesTheArenaOnlyWhenItMust) {
    // Texts without placeholders and unknown keys come back as they stand, needing no block.
    RefusingArena refusing;
    EXPECT_EQ(usertext_get(refusing, ut_test_plain), usertext_lookup(L"test_plain"));
    const wchar_t* unknown = L"nobody_registered_this";
    EXPECT_EQ(usertext_get(refusing, unknown), unknown);
    EXPECT_STREQ(usertext_get(refusing, ut_test_of, L"a"), L"usertext_error");

    TextArena arena;
    EXPECT_STREQ(usertext_get(arena, ut_test_of, L"a", L"b"), L"a of b");
    EXPECT_STREQ(usertext_get(arena, ut_test_inner, L"x", L"y", L"z"), L"in x");
    std::wstring long_argument(300, L'w');
    EXPECT_EQ(usertext_get(arena, ut_test_inner, long_argument.c_str()), L"in " + long_argument);
    // printf texts take string arguments only.
    usertext_set(L"test_printf", L"%i: \"%s\" %5.2ls 100%% %s%n%");
    const wchar_t* args[] = {L"3", L"name", L"third"};
    EXPECT_STREQ(usertext_get_printf(arena, L"test_printf", 3, args), L"3: \"name\" third 100% ");
}

TEST(UserText, OutputSplitsLines) {
    RecordingSink sink;
    output_write_lines(&sink, L"one\r\ntwo\n\nthree\rx\nrest");
    output_write_lines(&sink, L"ends with a line end\n");
    output_write_lines(&sink, L"");
    usertext_print(&sink, ut_test_of, L"this");
    EXPECT_EQ(sink.lines, L"one$two$$three\rx$rest|ends with a line end$this of missing_arg|");
}

TEST(UserText, ParsingSetsTextsAndCountsErrors) {
    const char script[] = "\xEF\xBB\xBF# utf8\r\n"
                          "text error_x {A {nested} text}\r\n"
                          "text test_words   one  \t two   three\r\n"
                          "text test_empty\n"
                          "text test_utf8_file {gr\xC3\xBC\xC3\x9F}\n"
                          "err counted but not stopping\n"
                          "text\n"
                          "text test_never_reached {x}\n";
    RecordingSink errors;
    EXPECT_EQ(usertext_parse(script, sizeof script - 1, L"ENU", &errors), 2u);
    EXPECT_EQ(errors.lines, L"counted but not stopping$"
                            L"ERROR SCF: Too few arguments specified for text command.$");
    EXPECT_STREQ(usertext_lookup(L"error_x"), L"A {nested} text");
    EXPECT_STREQ(usertext_lookup(L"test_words"), L"one two three");
    EXPECT_STREQ(usertext_lookup(L"test_empty"), L"");
    EXPECT_STREQ(usertext_lookup(L"test_utf8_file"), L"gr\u00fc\u00df");
    EXPECT_EQ(usertext_lookup(L"test_never_reached"), nullptr);
    // Bytes that are not UTF-8 or not a script at all end in errors, never worse.
    const char garbage[] = "\xFF\xFE{\x80\x81 }}} $( ${ \xC3";
    EXPECT_GT(usertext_parse(garbage, sizeof garbage - 1, L"ENU", nullptr), 0u);
}

TEST(UserText, NegativeNumberPatterns) {
    std::wstring patterns; // modes 0 to 6 with "-", then mode 3 with a minus sign
    wchar_t out[16];
    for (uint32_t mode = 0; mode < 8; ++mode) {
        bool set = locale_neg_format_for(mode == 7 ? 3 : mode, mode == 7 ? 0x2212 : '-', out, 16);
        patterns += (set ? out : L"kept") + std::wstring(L" ");
    }
    EXPECT_EQ(patterns, L"(%1) kept - %1 %1- %1 - kept kept %1\u2212 ");
}
