// The built-in commands of the SCF interpreter. Each is a shared, stateless object: a word-count
// range (the command word included) and a function.
#include "base/format.h"
#include "base/scf_state.h"
#include "base/text.h"
#include "base/wildcard.h"

namespace {

using BuiltinFunction = void (*)(ScfInterpreter* scf);

struct Builtin final : ScfCommand {
    const wchar_t* name;
    size_t min;
    size_t max;
    BuiltinFunction function;

    constexpr Builtin(const wchar_t* n, size_t lo, size_t hi, BuiltinFunction f)
        : name(n), min(lo), max(hi), function(f) {}

    void run(ScfInterpreter* scf) override {
        if (scf_check_count(scf, min, max)) function(scf);
    }
};

void set_number(ScfInterpreter* scf, int64_t value) {
    wchar_t text[24];
    size_t length = text_format(text, 24, L"%lld", static_cast<long long>(value));
    scf_set_result(scf, text, length);
}

void set_truth(ScfInterpreter* scf, bool value) {
    scf_set_result(scf, value ? L"1" : L"0", 1);
}

// Words 1.. joined with single blanks, then `suffix`: a new heap string (text_free), or null
// when memory is short.
wchar_t* join_words(ScfInterpreter* scf, const wchar_t* suffix, size_t* joined_length) {
    size_t count = scf_word_count(scf);
    size_t total = text_length(suffix);
    for (size_t i = 1; i < count; ++i) total += scf_word_length(scf, i) + (i > 1);
    wchar_t* text = text_allocate(total + 1);
    if (!text) return nullptr;
    size_t at = 0;
    for (size_t i = 1; i < count; ++i) {
        if (i > 1) text[at++] = ' ';
        size_t length;
        const wchar_t* word = scf_word(scf, i, &length);
        memcpy(text + at, word, length * sizeof(wchar_t));
        at += length;
    }
    text_copy(text + at, total + 1 - at, suffix);
    *joined_length = total;
    return text;
}

void cmd_exit(ScfInterpreter* scf) {
    scf_stop(scf, scf_word_count(scf) > 1 ? static_cast<int>(scf_word_value(scf, 1)) : 0);
}

void cmd_out(ScfInterpreter* scf) {
    size_t length;
    if (wchar_t* text = join_words(scf, L"", &length)) {
        scf_set_result(scf, text, length);
        text_free(text);
    }
}

// Like every message, the text ends with a line end.
void cmd_err(ScfInterpreter* scf) {
    size_t length;
    wchar_t* text = join_words(scf, L"\n", &length);
    scf_error(scf, text ? text : L"\n");
    text_free(text);
}

void cmd_parse(ScfInterpreter* scf) {
    size_t length;
    const wchar_t* script = scf_word(scf, 1, &length);
    scf_run_script(scf, script, length);
}

void cmd_set(ScfInterpreter* scf) {
    size_t name_length, value_length;
    const wchar_t* name = scf_word(scf, 1, &name_length);
    const wchar_t* value = scf_word(scf, 2, &value_length);
    scf_set_var(scf, name, name_length, value, value_length);
}

void cmd_get(ScfInterpreter* scf) {
    size_t name_length, value_length = 0;
    const wchar_t* name = scf_word(scf, 1, &name_length);
    const wchar_t* value = scf_find_var(scf, name, name_length, &value_length);
    scf_set_result(scf, value ? value : L"", value_length);
}

void cmd_if(ScfInterpreter* scf) {
    size_t length;
    if (scf_word_value(scf, 1) != 0) {
        const wchar_t* body = scf_word(scf, 2, &length);
        scf_run_script(scf, body, length);
        return;
    }
    size_t count = scf_word_count(scf);
    if (count == 3) return;
    const wchar_t* word = scf_word(scf, 3, &length);
    if (text_compare_ascii_nocase(word, length, L"else", 4) != 0) {
        wchar_t* found = scf_word_duplicate(scf, 3);
        scf_errorf(scf, scf_msg_expecting_else, found ? found : L"");
        text_free(found);
        scf_stop(scf, -1);
        return;
    }
    if (count == 4) {
        scf_error(scf, scf_msg_missing_else_body);
        scf_stop(scf, -1);
    } else if (count == 5) {
        const wchar_t* body = scf_word(scf, 4, &length);
        scf_run_script(scf, body, length);
    } else {
        scf_redispatch(scf, 4); // "else if ...": the rest is a command of its own
    }
}

void cmd_while(ScfInterpreter* scf) {
    size_t condition_length, body_length;
    const wchar_t* condition = scf_word(scf, 1, &condition_length);
    const wchar_t* body = scf_word(scf, 2, &body_length);
    for (;;) {
        int64_t value = scf_run_for_value(scf, condition, condition_length);
        if (scf_stopped(scf) || value == 0) break;
        if (!scf_run_script(scf, body, body_length)) break;
    }
}

void cmd_not(ScfInterpreter* scf) {
    set_truth(scf, scf_word_value(scf, 1) == 0);
}

void cmd_len(ScfInterpreter* scf) {
    set_number(scf, static_cast<int64_t>(scf_word_length(scf, 1)));
}

template <bool Fold> void cmd_compare(ScfInterpreter* scf) {
    size_t a_length, b_length;
    const wchar_t* a = scf_word(scf, 1, &a_length);
    const wchar_t* b = scf_word(scf, 2, &b_length);
    set_number(scf, Fold ? text_compare_ascii_nocase(a, a_length, b, b_length)
                         : text_compare(a, a_length, b, b_length));
}

template <bool Fold> void cmd_glob(ScfInterpreter* scf) {
    wchar_t* pattern = scf_word_duplicate(scf, 1);
    wchar_t* text = scf_word_duplicate(scf, 2);
    bool match = pattern && text &&
                 (Fold ? text_wildcard_match_ascii_nocase(pattern, text)
                       : text_wildcard_match(pattern, text));
    text_free(pattern);
    text_free(text);
    set_truth(scf, match);
}

enum class Op { eq, ne, gt, ge, lt, le, both, either, add, sub, mul, div, rem };

template <Op op> void cmd_binary(ScfInterpreter* scf) {
    int64_t a = scf_word_value(scf, 1);
    int64_t b = scf_word_value(scf, 2);
    // Sums, differences and products wrap around in two's complement rather than overflow.
    auto ua = static_cast<uint64_t>(a), ub = static_cast<uint64_t>(b);
    switch (op) {
    case Op::eq:
        return set_truth(scf, a == b);
    case Op::ne:
        return set_truth(scf, a != b);
    case Op::gt:
        return set_truth(scf, a > b);
    case Op::ge:
        return set_truth(scf, a >= b);
    case Op::lt:
        return set_truth(scf, a < b);
    case Op::le:
        return set_truth(scf, a <= b);
    case Op::both:
        return set_truth(scf, a != 0 && b != 0);
    case Op::either:
        return set_truth(scf, a != 0 || b != 0);
    case Op::add:
        return set_number(scf, static_cast<int64_t>(ua + ub));
    case Op::sub:
        return set_number(scf, static_cast<int64_t>(ua - ub));
    case Op::mul:
        return set_number(scf, static_cast<int64_t>(ua * ub));
    case Op::div:
    case Op::rem:
        if (b == 0) {
            wchar_t* name = scf_word_duplicate(scf, 0);
            scf_errorf(scf, scf_msg_division_by_zero, name ? name : L"");
            text_free(name);
            return set_number(scf, 0);
        }
        if (b == -1) // INT64_MIN / -1 does not fit: it wraps like the product does
            return set_number(scf, op == Op::div ? static_cast<int64_t>(0 - ua) : 0);
        return set_number(scf, op == Op::div ? a / b : a % b);
    }
}

constexpr size_t any = SIZE_MAX;

Builtin g_builtins[] = {
    {L"exit", 1, 2, cmd_exit},
    {L"out", 2, any, cmd_out},
    {L"err", 2, any, cmd_err},
    {L"parse", 2, 2, cmd_parse},
    {L"set", 2, 3, cmd_set},
    {L"get", 2, 2, cmd_get},
    {L"if", 3, any, cmd_if},
    {L"while", 3, 3, cmd_while},
    {L"!", 2, 2, cmd_not},
    {L"len", 2, 2, cmd_len},
    {L"cmp", 3, 3, cmd_compare<false>},
    {L"asciicmpi", 3, 3, cmd_compare<true>},
    {L"glob", 3, 3, cmd_glob<false>},
    {L"asciiglobi", 3, 3, cmd_glob<true>},
    {L"=", 3, 3, cmd_binary<Op::eq>},
    {L"!=", 3, 3, cmd_binary<Op::ne>},
    {L"<>", 3, 3, cmd_binary<Op::ne>},
    {L">", 3, 3, cmd_binary<Op::gt>},
    {L">=", 3, 3, cmd_binary<Op::ge>},
    {L"<", 3, 3, cmd_binary<Op::lt>},
    {L"<=", 3, 3, cmd_binary<Op::le>},
    {L"&&", 3, 3, cmd_binary<Op::both>},
    {L"||", 3, 3, cmd_binary<Op::either>},
    {L"+", 3, 3, cmd_binary<Op::add>},
    {L"-", 3, 3, cmd_binary<Op::sub>},
    {L"*", 3, 3, cmd_binary<Op::mul>},
    {L"/", 3, 3, cmd_binary<Op::div>},
    {L"%", 3, 3, cmd_binary<Op::rem>},
};

} // namespace

void scf_register_builtins(ScfInterpreter* scf) {
    for (Builtin& builtin : g_builtins) scf->commands.push({builtin.name, nullptr, &builtin});
}
