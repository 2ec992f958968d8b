#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/scf.h"

namespace {

// Collects the interpreter's messages, and the words of every `rec` command.
struct Host : ScfMessageSink, ScfCommand {
    std::vector<std::wstring> messages;
    std::vector<std::vector<std::wstring>> records;
    ScfInterpreter* scf;

    Host() : scf(scf_create(this, this)) { scf_register(scf, L"rec", this); }
    ~Host() { scf_destroy(scf); }

    void message(ScfInterpreter*, const wchar_t* text) override { messages.push_back(text); }

    void run(ScfInterpreter* s) override {
        EXPECT_EQ(scf_context(s), this);
        std::vector<std::wstring> words;
        for (size_t i = 1; i < scf_word_count(s); ++i) {
            size_t length;
            const wchar_t* word = scf_word(s, i, &length);
            words.emplace_back(word, length);
        }
        records.push_back(words);
    }

    int run_script(const std::wstring& script) {
        return scf_run(scf, script.data(), script.size());
    }

    // The result of `${script}` as a word, seen through `rec`.
    std::wstring eval(const std::wstring& script) {
        records.clear();
        run_script(L"rec ${" + script + L"}");
        return records.size() == 1 && records[0].size() == 1 ? records[0][0] : L"<none>";
    }
};

using Words = std::vector<std::wstring>;

} // namespace

TEST(Scf, WordsJoinPiecesAndKeepInnerBraces) {
    Host host;
    EXPECT_EQ(host.run_script(L"\xFEFF# a comment line\r\n"
                              L"rec {A {nested} text}\n"
                              L"rec \t one   two\tthree \r\n"
                              L"rec a{b c}d $(x$) {}; rec tail # not a comment here\n"
                              L"  # indented comment ; rec hidden\n"
                              L"rec $( {}$){} $)$( a$b $\n"),
              0);
    ASSERT_EQ(host.records.size(), 5u);
    EXPECT_EQ(host.records[0], (Words{L"A {nested} text"}));
    EXPECT_EQ(host.records[1], (Words{L"one", L"two", L"three"}));
    EXPECT_EQ(host.records[2], (Words{L"ab cd", L"{x}", L""}));
    EXPECT_EQ(host.records[3], (Words{L"tail", L"#", L"not", L"a", L"comment", L"here"}));
    // An escaped brace may stand alone, so a word can carry an unbalanced brace; an unknown
    // variable is empty and a "$" before nothing is itself.
    EXPECT_EQ(host.records[4], (Words{L"{", L"}", L"}{", L"a", L"$"}));
    EXPECT_TRUE(host.messages.empty());
}

TEST(Scf, SubstitutionRunsAScriptAndTakesItsResult) {
    Host host;
    EXPECT_EQ(host.eval(L"set x 5 ; if $x {out yes} else {out no}"), L"yes");
    EXPECT_EQ(host.eval(L"set x 0 ; if $x {out yes} else {out no}"), L"no");
    EXPECT_EQ(host.eval(L"out a ${out b} c"), L"a b c");
    // A substitution has a result of its own: the outer script's result survives it.
    EXPECT_EQ(host.eval(L"out outer; set y ${out inner}"), L"outer");
    host.records.clear();
    host.run_script(L"set v 7; rec pre${get v}post ${+ $v 1}");
    EXPECT_EQ(host.records[0], (Words{L"pre7post", L"8"}));
}

TEST(Scf, VariablesAreLocalToTheScriptThatSetThem) {
    Host host;
    host.run_script(L"set outer 1\n"
                    L"if 1 {set inner 2; set outer 3; rec $outer $inner}\n"
                    L"rec $outer $inner\n"
                    L"parse {set p 1}; rec [$p]\n"
                    L"set OUTER 4; rec $outer\n"); // names are case-insensitive; replaced
    ASSERT_EQ(host.records.size(), 4u);
    EXPECT_EQ(host.records[0], (Words{L"3", L"2"})); // outer visible, then shadowed in the body
    EXPECT_EQ(host.records[1], (Words{L"1", L""}));  // both body settings gone
    EXPECT_EQ(host.records[2], (Words{L"[]"}));
    EXPECT_EQ(host.records[3], (Words{L"4"}));

    // Top-level settings stay for the next run; host variables are seen everywhere.
    scf_set_var(host.scf, L"langid", L"DEU");
    host.records.clear();
    host.run_script(L"rec $outer ${out $langid}");
    EXPECT_EQ(host.records[0], (Words{L"4", L"DEU"}));
}

TEST(Scf, CommandVariablesTakeTheirWordsAsArguments) {
    Host host;
    host.run_script(L"set greet {rec $0 $1 $2 [$3]; set local x}\n"
                    L"greet hello {big world}\n"
                    L"rec [$local] [$1]\n"
                    L"set twice {out $1$1}; rec ${twice ab}\n"
                    L"parse {rec $0 $1}\n");
    ASSERT_EQ(host.records.size(), 4u);
    EXPECT_EQ(host.records[0], (Words{L"greet", L"hello", L"big world", L"[]"}));
    EXPECT_EQ(host.records[1], (Words{L"[]", L"[]"}));
    EXPECT_EQ(host.records[2], (Words{L"abab"}));
    EXPECT_EQ(host.records[3], (Words{L"parse", L"rec $0 $1"}));
}

TEST(Scf, ConditionsReadValueWords) {
    Host host;
    host.run_script(L"if yes {rec yes-ran}\n"
                    L"if off {rec off-ran}\n"
                    L"if 0x10 {rec hex-ran}\n"
                    L"if {} {rec empty-ran} ELSE {rec empty-else}\n"
                    L"if 0 {rec a} else if no {rec b} else if on {rec c} else {rec d}\n"
                    L"if 0 {rec a} else rec direct command\n"
                    L"if 1 {rec taken} bogus\n"); // the else part is only read when needed
    ASSERT_EQ(host.records.size(), 6u);
    EXPECT_EQ(host.records[0], (Words{L"yes-ran"}));
    EXPECT_EQ(host.records[1], (Words{L"hex-ran"}));
    EXPECT_EQ(host.records[2], (Words{L"empty-else"}));
    EXPECT_EQ(host.records[3], (Words{L"c"}));
    EXPECT_EQ(host.records[4], (Words{L"direct", L"command"}));
    EXPECT_EQ(host.records[5], (Words{L"taken"}));
    EXPECT_TRUE(host.messages.empty());
}

TEST(Scf, WhileLoopsUntilItsConditionIsZero) {
    // Settings of a body are its own, so a loop runs on state outside the script: here a host
    // command whose result counts down.
    struct Countdown : ScfCommand {
        int left = 3;
        void run(ScfInterpreter* scf) override { scf_set_result(scf, left-- > 0 ? L"yes" : L"no"); }
    } countdown;
    Host host;
    scf_register(host.scf, L"countdown", &countdown);
    host.run_script(L"set i 0\n"
                    L"while {countdown} {set i ${+ $i 1}; rec $i}\n"
                    L"rec $i\n");
    EXPECT_EQ(host.records, (std::vector<Words>{{L"1"}, {L"1"}, {L"1"}, {L"0"}}));
    EXPECT_TRUE(host.messages.empty());
}

TEST(Scf, ValueCommands) {
    Host host;
    struct Case {
        const wchar_t* script;
        const wchar_t* result;
    } cases[] = {
        {L"+ 2 3", L"5"},
        {L"- 2 3", L"-1"},
        {L"* -4 0x10", L"-64"},
        {L"/ 7 2", L"3"},
        {L"/ -7 2", L"-3"},
        {L"% -7 2", L"-1"},
        {L"+ 9223372036854775807 1", L"-9223372036854775808"},
        {L"/ -9223372036854775808 -1", L"-9223372036854775808"},
        {L"= 10 0xA", L"1"},
        {L"!= 1 1", L"0"},
        {L"<> 1 2", L"1"},
        {L"> 2 1", L"1"},
        {L">= 1 1", L"1"},
        {L"< -1 0", L"1"},
        {L"<= 2 1", L"0"},
        {L"&& yes 2", L"1"},
        {L"&& 1 off", L"0"},
        {L"|| 0 no", L"0"},
        {L"|| 0 true", L"1"},
        {L"! 0", L"1"},
        {L"! enabled", L"0"},
        {L"len {a b}", L"3"},
        {L"len {}", L"0"},
        {L"cmp abc abd", L"-1"},
        {L"cmp ab a", L"1"},
        {L"cmp B a", L"-1"},
        {L"asciicmpi B a", L"1"},
        {L"asciicmpi ABC abc", L"0"},
        {L"glob a*c abbc", L"1"},
        {L"glob a?c ABC", L"0"},
        {L"asciiglobi a?c ABC", L"1"},
        {L"get nothing", L""},
        {L"out", L"<error>"},
    };
    for (const Case& c : cases) {
        host.messages.clear();
        std::wstring result = host.eval(c.script);
        if (!host.messages.empty()) result = L"<error>";
        EXPECT_EQ(result, c.result) << c.script;
    }
}

TEST(Scf, DivisionByZeroGivesZeroAndGoesOn) {
    Host host;
    EXPECT_EQ(host.run_script(L"rec ${/ 5 0} ${% 5 0}; rec after"), 0);
    ASSERT_EQ(host.records.size(), 2u);
    EXPECT_EQ(host.records[0], (Words{L"0", L"0"}));
    EXPECT_EQ(host.messages, (Words{L"ERROR SCF: Division by zero in / command.\n",
                                    L"ERROR SCF: Division by zero in % command.\n"}));
}

TEST(Scf, ErrorsStopTheScriptAndKeepWhatWasDone) {
    struct Case {
        const wchar_t* script;
        const wchar_t* message;
    } cases[] = {
        {L"rec before\nrec {open\nrec after", L"ERROR SCF: Unmatched open brace.\n"},
        {L"rec before\nrec x ${out y\nrec after", L"ERROR SCF: Unmatched open brace.\n"},
        {L"rec before\nrec close}\nrec after", L"ERROR SCF: Unmatched close brace.\n"},
        {L"rec before\nfrobnicate a b\nrec after", L"ERROR SCF: Unknown command \"frobnicate\".\n"},
        {L"rec before\nset\nrec after",
         L"ERROR SCF: Too few arguments specified for set command.\n"},
        {L"rec before\nget a b\nrec after",
         L"ERROR SCF: Too many arguments specified for get command.\n"},
        {L"rec before\nif 0 {} els {}\nrec after",
         L"ERROR SCF: Expecting \"else\" but found \"els\".\n"},
        {L"rec before\nif 0 {} else\nrec after", L"ERROR SCF: Missing else body.\n"},
        // An error deep inside stops every enclosing script.
        {L"rec before\nif 1 {while {out 1} {parse {nope}}; rec inner}\nrec after",
         L"ERROR SCF: Unknown command \"nope\".\n"},
    };
    for (const Case& c : cases) {
        Host host;
        EXPECT_EQ(host.run_script(c.script), -1) << c.script;
        ASSERT_EQ(host.records.size(), 1u) << c.script;
        EXPECT_EQ(host.records[0], (Words{L"before"}));
        EXPECT_EQ(host.messages, (Words{c.message})) << c.script;
        // The stop is cleared for the next run.
        host.records.clear();
        EXPECT_EQ(host.run_script(L"rec again"), 0);
        EXPECT_EQ(host.records.size(), 1u);
    }
}

TEST(Scf, ExitAndErr) {
    Host host;
    EXPECT_EQ(host.run_script(L"err one   two\nrec on\nif 1 {exit 0x2A}\nrec never"), 42);
    EXPECT_EQ(host.messages, (Words{L"one two\n"}));
    EXPECT_EQ(host.records, (std::vector<Words>{{L"on"}}));
    EXPECT_EQ(host.run_script(L"exit; rec never"), 0);
    EXPECT_EQ(host.records.size(), 1u);
}

TEST(Scf, RunawayRecursionIsAnErrorNotACrash) {
    Host host;
    EXPECT_EQ(host.run_script(L"set f {f}; f"), -1);
    EXPECT_EQ(host.messages, (Words{L"ERROR SCF: Scripts nested too deeply.\n"}));
}

TEST(Scf, NewerRegistrationsWinAndNamesIgnoreCase) {
    struct Fixed : ScfCommand {
        void run(ScfInterpreter* scf) override { scf_set_result(scf, L"mine"); }
    } fixed;
    Host host;
    scf_register(host.scf, L"OUT", &fixed);
    EXPECT_EQ(host.eval(L"out theirs"), L"mine");
    EXPECT_EQ(host.eval(L"Len abc"), L"3");
}
