// The SCF interpreter's core: commands, variables, words, results, messages and the running of
// commands and scripts. The lexer (scf_lexer.cpp) turns script text into commands; the built-in
// commands live in scf_builtins.cpp.
#include <cstdarg>
#include <new>

#include "base/format.h"
#include "base/scf_state.h"
#include "base/text.h"
#include "base/value_words.h"

const wchar_t scf_msg_unmatched_open[] = L"ERROR SCF: Unmatched open brace.\n";
const wchar_t scf_msg_unmatched_close[] = L"ERROR SCF: Unmatched close brace.\n";
const wchar_t scf_msg_unknown_command[] = L"ERROR SCF: Unknown command \"%s\".\n";
const wchar_t scf_msg_too_few[] = L"ERROR SCF: Too few arguments specified for %s command.\n";
const wchar_t scf_msg_too_many[] = L"ERROR SCF: Too many arguments specified for %s command.\n";
const wchar_t scf_msg_expecting_else[] = L"ERROR SCF: Expecting \"else\" but found \"%s\".\n";
const wchar_t scf_msg_missing_else_body[] = L"ERROR SCF: Missing else body.\n";
const wchar_t scf_msg_division_by_zero[] = L"ERROR SCF: Division by zero in %s command.\n";
const wchar_t scf_msg_nested_too_deeply[] = L"ERROR SCF: Scripts nested too deeply.\n";

namespace {

HANDLE heap() {
    return GetProcessHeap();
}

void free_word(ScfWord& word) {
    if (word.owned) HeapFree(heap(), 0, word.owned);
}

void free_var(ScfVar& var) {
    HeapFree(heap(), 0, var.block);
}

// Drops the variables from index `depth` on.
void pop_vars(ScfInterpreter* scf, size_t depth) {
    while (scf->vars.count > depth) free_var(scf->vars.items[--scf->vars.count]);
}

ScfVar* find_var(ScfInterpreter* scf, const wchar_t* name, size_t name_length, size_t from) {
    for (size_t i = scf->vars.count; i > from; --i) {
        ScfVar& var = scf->vars.items[i - 1];
        if (text_compare_ascii_nocase(var.block, var.name_length, name, name_length) == 0 &&
            var.name_length == name_length)
            return &var;
    }
    return nullptr;
}

ScfCommand* find_command(ScfInterpreter* scf, const wchar_t* name, size_t length) {
    for (size_t i = scf->commands.count; i > 0; --i) {
        const ScfCommandEntry& entry = scf->commands.items[i - 1];
        if (text_compare_ascii_nocase(entry.name, SIZE_MAX, name, length) == 0 &&
            text_length_bounded(entry.name, length + 1) == length)
            return entry.command;
    }
    return nullptr;
}

// Formats a message with the name of a word (words are not terminated) and reports it.
void report_with_word(ScfInterpreter* scf, const wchar_t* format, const wchar_t* word,
                      size_t length) {
    wchar_t small[64];
    wchar_t* name = length < 64 ? small : text_allocate(length + 1);
    if (name) {
        memcpy(name, word, length * sizeof(wchar_t));
        name[length] = 0;
    }
    scf_errorf(scf, format, name ? name : L"");
    if (name != small) text_free(name);
}

} // namespace

bool ScfText::assign(const wchar_t* s, size_t n) {
    if (n + 1 > capacity) {
        size_t grown = n + 1 + n / 4 + 4;
        void* block = HeapAlloc(heap(), 0, grown * sizeof(wchar_t));
        if (!block) return false;
        if (text) HeapFree(heap(), 0, text);
        text = static_cast<wchar_t*>(block);
        capacity = grown;
    }
    memmove(text, s, n * sizeof(wchar_t));
    text[n] = 0;
    length = n;
    return true;
}

void ScfText::release() {
    if (text) HeapFree(heap(), 0, text);
    text = nullptr;
    length = capacity = 0;
}

ScfInterpreter* scf_create(ScfMessageSink* sink, void* context) {
    void* block = HeapAlloc(heap(), 0, sizeof(ScfInterpreter));
    if (!block) return nullptr;
    auto* scf = new (block) ScfInterpreter;
    scf->sink = sink;
    scf->context = context;
    scf_register_builtins(scf);
    return scf;
}

void scf_destroy(ScfInterpreter* scf) {
    if (!scf) return;
    for (size_t i = 0; i < scf->commands.count; ++i)
        if (scf->commands.items[i].owned_name)
            HeapFree(heap(), 0, scf->commands.items[i].owned_name);
    scf->commands.release();
    pop_vars(scf, 0);
    scf->vars.release();
    for (size_t i = 0; i < scf->words.count; ++i) free_word(scf->words.items[i]);
    scf->words.release();
    scf->result.release();
    scf->~ScfInterpreter();
    HeapFree(heap(), 0, scf);
}

void scf_register(ScfInterpreter* scf, const wchar_t* name, ScfCommand* command) {
    wchar_t* copy = text_duplicate(name);
    if (!copy) return;
    if (!scf->commands.push({copy, copy, command})) text_free(copy);
}

void scf_set_var(ScfInterpreter* scf, const wchar_t* name, const wchar_t* value) {
    scf_set_var(scf, name, text_length(name), value, text_length(value));
}

void scf_set_var(ScfInterpreter* scf, const wchar_t* name, size_t name_length, const wchar_t* value,
                 size_t value_length) {
    auto* block = static_cast<wchar_t*>(
        HeapAlloc(heap(), 0, (name_length + value_length + 2) * sizeof(wchar_t)));
    if (!block) return;
    memcpy(block, name, name_length * sizeof(wchar_t));
    block[name_length] = 0;
    if (value_length) memcpy(block + name_length + 1, value, value_length * sizeof(wchar_t));
    block[name_length + 1 + value_length] = 0;

    // Replace within the running script's own scope only: a script never changes the variables
    // of the scripts that ran it.
    if (ScfVar* var = find_var(scf, name, name_length, scf->scope)) {
        free_var(*var);
        *var = {block, name_length, value_length};
        return;
    }
    if (!scf->vars.push({block, name_length, value_length})) HeapFree(heap(), 0, block);
}

const wchar_t* scf_find_var(ScfInterpreter* scf, const wchar_t* name, size_t name_length,
                            size_t* value_length) {
    ScfVar* var = find_var(scf, name, name_length, 0);
    if (!var) return nullptr;
    if (value_length) *value_length = var->value_length;
    return var->value();
}

int scf_run(ScfInterpreter* scf, const wchar_t* script, size_t length) {
    ScfSpan saved_command = scf->command, saved_arguments = scf->arguments;
    size_t saved_scope = scf->scope;
    scf->command = scf->arguments = {scf->words.count, 0};
    scf->scope = 0;
    scf->result.assign(L"", 0);
    scf_execute(scf, script, length);
    scf->command = saved_command;
    scf->arguments = saved_arguments;
    scf->scope = saved_scope;
    int status = scf->status;
    scf->stop = false;
    scf->status = 0;
    return status;
}

const wchar_t* scf_result(ScfInterpreter* scf, size_t* length) {
    if (length) *length = scf->result.length;
    return scf->result.text ? scf->result.text : L"";
}

void* scf_context(ScfInterpreter* scf) {
    return scf->context;
}

size_t scf_word_count(ScfInterpreter* scf) {
    return scf->command.count;
}

const wchar_t* scf_word(ScfInterpreter* scf, size_t index, size_t* length) {
    if (index >= scf->command.count) {
        if (length) *length = 0;
        return L"";
    }
    const ScfWord& word = scf->words.items[scf->command.first + index];
    if (length) *length = word.length;
    return word.text;
}

size_t scf_word_length(ScfInterpreter* scf, size_t index) {
    size_t length;
    scf_word(scf, index, &length);
    return length;
}

wchar_t* scf_word_duplicate(ScfInterpreter* scf, size_t index) {
    size_t length;
    const wchar_t* text = scf_word(scf, index, &length);
    wchar_t* copy = text_allocate(length + 1);
    if (copy) memcpy(copy, text, length * sizeof(wchar_t));
    return copy;
}

int64_t scf_word_value(ScfInterpreter* scf, size_t index) {
    size_t length;
    const wchar_t* text = scf_word(scf, index, &length);
    return value_parse(text, length);
}

bool scf_check_count(ScfInterpreter* scf, size_t min, size_t max) {
    size_t count = scf->command.count;
    if (count >= min && count <= max) return true;
    size_t length;
    const wchar_t* name = scf_word(scf, 0, &length);
    report_with_word(scf, count < min ? scf_msg_too_few : scf_msg_too_many, name, length);
    scf_stop(scf, -1);
    return false;
}

void scf_set_result(ScfInterpreter* scf, const wchar_t* text) {
    scf->result.assign(text, text_length(text));
}

void scf_set_result(ScfInterpreter* scf, const wchar_t* text, size_t length) {
    scf->result.assign(text, length);
}

void scf_error(ScfInterpreter* scf, const wchar_t* message) {
    if (scf->sink) scf->sink->message(scf, message);
}

void scf_errorf(ScfInterpreter* scf, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    wchar_t small[256];
    va_list copy;
    va_copy(copy, args);
    size_t count = text_vformat(small, 256, format, copy);
    va_end(copy);
    wchar_t* text = small;
    if (count >= 256) {
        // A long word in the message: format it whole if memory allows, else show it cut.
        wchar_t* large = text_vformat_alloc(format, args);
        if (large) text = large;
    }
    va_end(args);
    scf_error(scf, text);
    if (text != small) text_free(text);
}

void scf_stop(ScfInterpreter* scf, int status) {
    scf->stop = true;
    scf->status = status;
}

bool scf_stopped(ScfInterpreter* scf) {
    return scf->stop;
}

void scf_redispatch(ScfInterpreter* scf, size_t index) {
    scf->redispatch = index;
}

void scf_run_scoped(ScfInterpreter* scf, const wchar_t* text, size_t length, ScfSpan arguments) {
    if (scf->depth >= scf_max_depth) {
        scf_error(scf, scf_msg_nested_too_deeply);
        scf_stop(scf, -1);
        return;
    }
    ScfSpan saved_arguments = scf->arguments, saved_command = scf->command;
    size_t saved_scope = scf->scope;
    ++scf->depth;
    scf->arguments = arguments;
    scf->scope = scf->vars.count;
    scf_execute(scf, text, length);
    pop_vars(scf, scf->scope);
    scf->scope = saved_scope;
    scf->arguments = saved_arguments;
    scf->command = saved_command;
    --scf->depth;
}

bool scf_run_script(ScfInterpreter* scf, const wchar_t* text, size_t length) {
    scf_run_scoped(scf, text, length, scf->command);
    return !scf->stop;
}

int64_t scf_run_for_value(ScfInterpreter* scf, const wchar_t* text, size_t length) {
    ScfText outer = scf->result;
    scf->result = ScfText{};
    scf_run_scoped(scf, text, length, scf->command);
    int64_t value = value_parse(scf->result.text ? scf->result.text : L"", scf->result.length);
    scf->result.release();
    scf->result = outer;
    return value;
}

void scf_dispatch(ScfInterpreter* scf, ScfSpan span) {
    ScfSpan saved = scf->command;
    while (span.count && !scf->stop) {
        const ScfWord& name = scf->words.items[span.first];
        if (name.length == 0) break; // an empty first word makes no command
        scf->command = span;
        scf->redispatch = 0;
        if (ScfCommand* command = find_command(scf, name.text, name.length)) {
            command->run(scf);
        } else if (const wchar_t* script = scf_find_var(scf, name.text, name.length, nullptr)) {
            // The value is copied: the script may replace the variable while it runs.
            wchar_t* copy = text_duplicate(script);
            if (copy) {
                scf_run_scoped(scf, copy, text_length(copy), span);
                text_free(copy);
            }
        } else {
            report_with_word(scf, scf_msg_unknown_command, name.text, name.length);
            scf_stop(scf, -1);
        }
        size_t again = scf->redispatch;
        scf->redispatch = 0;
        if (again == 0 || again >= span.count) break;
        span.first += again;
        span.count -= again;
    }
    scf->command = saved;
}
