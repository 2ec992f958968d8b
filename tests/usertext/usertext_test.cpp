// The table, expansion, retrieval, parsing and writing, in this process. What needs a process of
// its own (loading from the module, test mode, the "-:" commands) is in usertext_process_test.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/text.h"
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
USERTEXT_KEY(test_mutual_a, "%(test_mutual_b)");
USERTEXT_KEY(test_mutual_b, "%(test_mutual_a)");
USERTEXT_KEY(test_utf8, "caf\xC3\xA9 \xF0\x9F\x98\x80 and a default longer than fifty units");

namespace {

// Counts what is asked of it, and can refuse.
struct CountingArena final : TextAllocator {
    TextArena arena;
    unsigned calls = 0;
    bool refuse = false;
    void* allocate(size_t bytes) override {
        ++calls;
        return refuse ? nullptr : arena.allocate(bytes);
    }
};

struct RecordingSink final : OutputSink {
    std::vector<std::pair<std::wstring, bool>> lines;
    void write(const wchar_t* text, bool line_end) override { lines.emplace_back(text, line_end); }
};

std::wstring expand(const wchar_t* key, std::vector<const wchar_t*> args = {}) {
    wchar_t out[512];
    size_t count = usertext_expand(key, args.size(), args.data(), out, 512, nullptr);
    EXPECT_EQ(count, wcslen(out));
    return out;
}

} // namespace

TEST(UserText, TableKeysIgnoreCaseAndKeepOrder) {
    EXPECT_STREQ(usertext_lookup(L"TEST_PLAIN"), L"plain text");
    usertext_set(L"Test_Replaced", L"first");
    usertext_set(L"test_replaced", L"second");
    EXPECT_STREQ(usertext_lookup(L"test_REPLACED"), L"second");
    EXPECT_STREQ(usertext_lookup(L"test_utf8"),
                 L"caf\u00e9 \U0001F600 and a default longer than fifty units");
    EXPECT_EQ(usertext_lookup(L"nobody_registered_this"), nullptr);

    std::vector<std::wstring> keys;
    usertext_enumerate(
        [](void* context, const wchar_t* key, const wchar_t*) {
            static_cast<std::vector<std::wstring>*>(context)->push_back(key);
        },
        &keys);
    size_t replaced = 0;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (i) {
            EXPECT_LT(_wcsicmp(keys[i - 1].c_str(), keys[i].c_str()), 0) << keys[i];
        }
        replaced += _wcsicmp(keys[i].c_str(), L"test_replaced") == 0;
    }
    EXPECT_EQ(replaced, 1u);
    // The library's own keys are registered before any test runs.
    EXPECT_STREQ(usertext_lookup(L"error_parsing_file_strings"),
                 L"ERROR: Error(s) encountered parsing file strings.\n");
}

TEST(UserText, ExpansionPlaceholders) {
    EXPECT_EQ(expand(L"test_of", {L"one"}), L"one of missing_arg");
    EXPECT_EQ(expand(L"test_of", {L"one", nullptr}), L"one of missing_arg");
    // Arguments and nested texts are inserted as they stand, never scanned again.
    EXPECT_EQ(expand(L"test_of", {L"%2", L"%(test_plain)"}), L"%2 of %(test_plain)");
    EXPECT_EQ(expand(L"test_escapes"), L"100% 0 x end");
    EXPECT_EQ(expand(L"test_outer", {L"arg"}),
              L"[in arg|in arg"); // an unclosed name runs to the end
    EXPECT_EQ(expand(L"nobody_registered_this"), L"nobody_registered_this");

    usertext_set(L"missing_arg", L"<?>");
    EXPECT_EQ(expand(L"test_of", {}), L"<?> of <?>");
    usertext_set(L"missing_arg", L"missing_arg");
}

TEST(UserText, NestingStopsAtTheSixthLevel) {
    // Levels 1-6 expand ping, pong, ping, pong, ping, pong; the sixth inserts the stored text of
    // the key it names, placeholder and all.
    EXPECT_EQ(expand(L"test_ping"), L"ping pong ping pong ping pong ping %(test_pong)");
    EXPECT_EQ(expand(L"test_mutual_a"), L"%(test_mutual_b)");
}

TEST(UserText, ExpansionCountsWhatDoesNotFit) {
    const wchar_t* args[] = {L"argument"};
    wchar_t out[8];
    for (size_t capacity : {0u, 1u, 5u, 8u}) {
        wmemset(out, L'#', 8);
        size_t count = usertext_expand(L"test_outer", 1, args, out, capacity, nullptr);
        EXPECT_EQ(count, wcslen(L"[in argument|in argument"));
        if (capacity) {
            EXPECT_EQ(std::wstring(out), std::wstring(L"[in argument").substr(0, capacity - 1));
        } else {
            EXPECT_EQ(out[0], L'#');
        }
    }
}

TEST(UserText, RetrievalUsesTheArenaOnlyWhenItMust) {
    CountingArena arena;
    const wchar_t* direct = usertext_get(arena, ut_test_plain);
    EXPECT_EQ(direct, usertext_lookup(L"test_plain")); // the stored string itself
    const wchar_t* unknown = L"nobody_registered_this";
    EXPECT_EQ(usertext_get(arena, unknown), unknown);
    EXPECT_EQ(arena.calls, 0u);

    EXPECT_STREQ(usertext_get(arena, ut_test_of, L"a", L"b"), L"a of b");
    EXPECT_STREQ(usertext_get(arena, ut_test_inner, L"x", L"y", L"z"), L"in x");
    std::wstring long_argument(300, L'w');
    EXPECT_EQ(usertext_get(arena, ut_test_inner, long_argument.c_str()), L"in " + long_argument);
    EXPECT_EQ(arena.calls, 3u);

    arena.refuse = true;
    EXPECT_STREQ(usertext_get(arena, ut_test_of, L"a"), L"usertext_error");
    EXPECT_STREQ(usertext_get(arena, ut_test_plain), L"plain text"); // needs no block
}

TEST(UserText, PrintfTextsTakeOnlyStringArguments) {
    TextArena arena;
    usertext_set(L"test_printf", L"%i: \"%s\" %5.2ls 100%% %s%n%");
    const wchar_t* args[] = {L"3", L"name", L"third"};
    EXPECT_STREQ(usertext_get_printf(arena, L"test_printf", 3, args), L"3: \"name\" third 100% ");
    EXPECT_STREQ(usertext_get_printf(arena, L"error_unable_to_create_file", 2, args),
                 L"ERROR: 3 Unable to create file \"name\".\n");
}

TEST(UserText, OutputSplitsLines) {
    RecordingSink sink;
    output_write_lines(&sink, L"one\r\ntwo\n\nthree\rx\nrest");
    using Line = std::pair<std::wstring, bool>;
    EXPECT_EQ(
        sink.lines,
        (std::vector<Line>{
            {L"one", true}, {L"two", true}, {L"", true}, {L"three\rx", true}, {L"rest", false}}));
    sink.lines.clear();
    output_write_lines(&sink, L"ends with a line end\n");
    output_write_lines(&sink, L"");
    EXPECT_EQ(sink.lines, (std::vector<Line>{{L"ends with a line end", true}}));
    usertext_print(&sink, ut_test_of, L"this");
    EXPECT_EQ(sink.lines.back(), (Line{L"this of missing_arg", false}));
}

TEST(UserText, ParsingSetsTextsAndCountsErrors) {
    const char script[] = "\xEF\xBB\xBF# utf8\r\n"
                          "text error_x {A {nested} text}\r\n"
                          "text test_words   one  \t two   three\r\n"
                          "text test_empty\n"
                          "if ${asciiglobi D* $langid} {text test_lang deutsch} "
                          "else {text test_lang english}\n"
                          "text test_utf8_file {gr\xC3\xBC\xC3\x9F}\n"
                          "err counted but not stopping\n"
                          "text\n"
                          "text test_never_reached {x}\n";
    RecordingSink errors;
    EXPECT_EQ(usertext_parse(script, sizeof script - 1, L"DEU", &errors), 2u);
    EXPECT_STREQ(usertext_lookup(L"error_x"), L"A {nested} text");
    EXPECT_STREQ(usertext_lookup(L"test_words"), L"one two three");
    EXPECT_STREQ(usertext_lookup(L"test_empty"), L"");
    EXPECT_STREQ(usertext_lookup(L"test_lang"), L"deutsch");
    EXPECT_STREQ(usertext_lookup(L"test_utf8_file"), L"gr\u00fc\u00df");
    EXPECT_EQ(usertext_lookup(L"test_never_reached"), nullptr);
    ASSERT_EQ(errors.lines.size(), 2u);
    EXPECT_EQ(errors.lines[0].first, L"counted but not stopping");
    EXPECT_EQ(errors.lines[1].first, L"ERROR SCF: Too few arguments specified for text command.");

    const char english[] = "if ${asciiglobi D* $langid} {text test_lang deutsch} "
                           "else {text test_lang english}";
    EXPECT_EQ(usertext_parse(english, sizeof english - 1, L"ENU", nullptr), 0u);
    EXPECT_STREQ(usertext_lookup(L"test_lang"), L"english");

    // Bytes that are not UTF-8 or not a script at all end in errors, never worse.
    const char garbage[] = "\xFF\xFE{\x80\x81 }}} $( ${ \xC3";
    EXPECT_GT(usertext_parse(garbage, sizeof garbage - 1, L"ENU", nullptr), 0u);
}

TEST(UserText, WrittenTableLoadsBackUnchanged) {
    const wchar_t* texts[] = {
        L"a } b { c {d} }{",         // braces that pair with nothing, both ways
        L"{{ nested } open",         // an open brace left over at the start
        L"line\none\r\ntwo\n",       // line ends
        L"$( $) ${not run} $x # ; ", // what would be syntax outside braces
        L"",
    };
    std::vector<std::wstring> keys;
    for (size_t i = 0; i < std::size(texts); ++i) {
        keys.push_back(L"test_round_" + std::to_wstring(i));
        usertext_set(keys.back().c_str(), texts[i]);
    }
    usertext_set(L"locale_test_skipped", L"x");
    usertext_set(L"DNT_test_skipped", L"x");

    size_t size = 0;
    char* file = usertext_table_file(&size);
    ASSERT_NE(file, nullptr);
    std::string bytes(file, size);
    text_free(file);
    EXPECT_EQ(bytes.substr(0, 15), "\xEF\xBB\xBF\r\n# utf8\r\n\r\n");
    EXPECT_NE(bytes.find("\r\ntext test_round_0 {a }$){ b { c {d} }}$({}\r\n\r\n"),
              std::string::npos);
    EXPECT_NE(bytes.find("text test_round_2 {line\r\none\r\ntwo\r\n}\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("text test_round_4 {}\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("text test_plain {plain text}\r\n"), std::string::npos);
    EXPECT_EQ(bytes.find("skipped"), std::string::npos);
    EXPECT_EQ(bytes.find("text locale_"), std::string::npos);

    for (const std::wstring& key : keys) usertext_set(key.c_str(), L"overwritten");
    EXPECT_EQ(usertext_parse(bytes.data(), bytes.size(), L"ENU", nullptr), 0u);
    for (size_t i = 0; i < keys.size(); ++i) {
        // Line ends are line feeds, in the file as CR LF.
        std::wstring expected = texts[i];
        std::erase(expected, L'\r');
        EXPECT_EQ(usertext_lookup(keys[i].c_str()), expected) << i;
    }
}

TEST(UserText, NegativeNumberPatterns) {
    struct Case {
        uint32_t mode;
        wchar_t sign;
        const wchar_t* text; // null: the default stays
    } cases[] = {{0, '-', L"(%1)"}, {1, '-', nullptr}, {2, '-', L"- %1"},       {3, '-', L"%1-"},
                 {4, '-', L"%1 -"}, {5, '-', nullptr}, {3, 0x2212, L"%1\u2212"}};
    for (const Case& c : cases) {
        wchar_t out[16] = L"untouched";
        bool set = locale_neg_format_for(c.mode, c.sign, out, 16);
        EXPECT_EQ(set, c.text != nullptr) << c.mode;
        if (c.text) {
            EXPECT_STREQ(out, c.text) << c.mode;
        }
    }
    // The texts themselves come from this process's settings and are never written out.
    EXPECT_NE(usertext_lookup(L"locale_neg_format"), nullptr);
    EXPECT_NE(usertext_lookup(L"locale_thous_grouping"), nullptr);
}
