#include <gtest/gtest.h>

#include <string>

#include "base/scf.h"

namespace {

// Runs scripts and writes down what they do: "[word|word]" for every `rec` command, and every
// message as it is.
struct Host : ScfMessageSink, ScfCommand {
    std::wstring trace;
    ScfInterpreter* scf = scf_create(this, this);

    Host() { scf_register(scf, L"rec", this); }
    ~Host() { scf_destroy(scf); }
    void message(ScfInterpreter*, const wchar_t* text) override { trace += text; }
    void run(ScfInterpreter* s) override {
        EXPECT_EQ(scf_context(s), this);
        trace += L"[";
        for (size_t i = 1; i < scf_word_count(s); ++i) {
            size_t length;
            const wchar_t* word = scf_word(s, i, &length);
            trace.append(i > 1 ? L"|" : L"").append(word, length);
        }
        trace += L"]";
    }
    int run_script(const std::wstring& script) {
        return scf_run(scf, script.data(), script.size());
    }
};

struct Case {
    const wchar_t* script;
    const wchar_t* trace;
    int result = 0;
};

} // namespace

TEST(Scf, Scripts) {
    const Case cases[] = {
        // Words join pieces and keep inner braces; an escaped brace may stand alone; an
        // unknown variable is empty and a "$" before nothing is itself.
        {L"\xFEFF# a comment line\r\n"
         L"rec {A {nested} text}\n"
         L"rec \t one   two\tthree \r\n"
         L"rec a{b c}d $(x$) {}; rec tail # not a comment here\n"
         L"  # indented comment ; rec hidden\n"
         L"rec $( {}$){} $)$( a$b $\n",
         L"[A {nested} text][one|two|three][ab cd|{x}|][tail|#|not|a|comment|here][{|}|}{|a|$]"},
        // A substitution runs a script and takes its result; it has a result of its own.
        {L"set v 7; rec ${set x 5 ; if $x {out yes} else {out no}} ${out a ${out b} c} "
         L"${out outer; set y ${out inner}} pre${get v}post ${+ $v 1}",
         L"[yes|a b c|outer|pre7post|8]"},
        // Variables are local to the script that set them; names ignore case.
        {L"set outer 1\n"
         L"if 1 {set inner 2; set outer 3; rec $outer $inner}\n"
         L"rec $outer $inner\n"
         L"parse {set p 1}; rec [$p]\n"
         L"set OUTER 4; rec $outer\n",
         L"[3|2][1|][[]][4]"},
        // Command variables take their words as arguments.
        {L"set greet {rec $0 $1 $2 [$3]; set local x}\n"
         L"greet hello {big world}\n"
         L"rec [$local] [$1]\n"
         L"set twice {out $1$1}; rec ${twice ab}\n"
         L"parse {rec $0 $1}\n",
         L"[greet|hello|big world|[]][[]|[]][abab][parse|rec $0 $1]"},
        // Conditions read value words; the else part is only read when needed.
        {L"if yes {rec yes-ran}\n"
         L"if off {rec off-ran}\n"
         L"if 0x10 {rec hex-ran}\n"
         L"if {} {rec empty-ran} ELSE {rec empty-else}\n"
         L"if 0 {rec a} else if no {rec b} else if on {rec c} else {rec d}\n"
         L"if 0 {rec a} else rec direct command\n"
         L"if 1 {rec taken} bogus\n",
         L"[yes-ran][hex-ran][empty-else][c][direct|command][taken]"},
        // Value commands.
        {L"rec ${+ 2 3} ${- 2 3} ${* -4 0x10} ${/ -7 2} ${% -7 2} ${+ 9223372036854775807 1} "
         L"${/ -9223372036854775808 -1}",
         L"[5|-1|-64|-3|-1|-9223372036854775808|-9223372036854775808]"},
        {L"rec ${= 10 0xA} ${!= 1 1} ${<> 1 2} ${>= 1 1} ${< -1 0} ${<= 2 1} ${&& yes 2} "
         L"${&& 1 off} ${|| 0 no} ${|| 0 true} ${! enabled}",
         L"[1|0|1|1|1|0|1|0|0|1|0]"},
        {L"rec ${len {a b}} ${cmp abc abd} ${cmp B a} ${asciicmpi B a} ${asciicmpi ABC abc} "
         L"${glob a*c abbc} ${glob a?c ABC} ${asciiglobi a?c ABC} [${get nothing}] ${Len abc}",
         L"[3|-1|-1|1|0|1|0|1|[]|3]"},
        {L"rec ${/ 5 0} ${% 5 0}; rec after",
         L"ERROR SCF: Division by zero in / command.\n"
         L"ERROR SCF: Division by zero in % command.\n[0|0][after]"},
        // exit and err.
        {L"err one   two\nrec on\nif 1 {exit 0x2A}\nrec never", L"one two\n[on]", 42},
        {L"exit; rec never", L""},
        {L"while {out 0} {rec never}; rec after", L"[after]"},
    };
    for (const Case& c : cases) {
        Host host;
        EXPECT_EQ(host.run_script(c.script), c.result) << testing::PrintToString(c.script);
        EXPECT_EQ(host.trace, c.trace) << testing::PrintToString(c.script);
    }
}

TEST(Scf, ErrorsStopEveryEnclosingScriptAndKeepWhatWasDone) {
    const std::pair<const wchar_t*, const wchar_t*> errors[] = {
        {L"rec {open", L"Unmatched open brace."},
        {L"rec close}", L"Unmatched close brace."},
        {L"frobnicate a b", L"Unknown command \"frobnicate\"."},
        {L"set", L"Too few arguments specified for set command."},
        {L"if 0 {} els {}", L"Expecting \"else\" but found \"els\"."},
        {L"if 1 {while {out 1} {parse {nope}}; rec inner}", L"Unknown command \"nope\"."},
        {L"set f {f}; f", L"Scripts nested too deeply."}};
    for (auto [line, message] : errors) {
        Host host;
        EXPECT_EQ(host.run_script(L"rec before\n" + std::wstring(line) + L"\nrec after"), -1);
        EXPECT_EQ(host.trace, L"[before]ERROR SCF: " + std::wstring(message) + L"\n");
        EXPECT_EQ(host.run_script(L"rec again"), 0); // the stop is cleared for the next run
    }
}
