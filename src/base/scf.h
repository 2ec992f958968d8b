// The SCF interpreter: the small command language of the system's text files.
//
// A script is a sequence of commands separated by line feeds or ";"; each command is a list of
// words, the first naming the command. Blanks are space, tab, carriage return and U+FEFF (so a
// byte order mark is harmless). A "#" where a command would begin starts a comment line.
//
// A word joins adjacent pieces:
//   plain text      any run of characters other than blanks, ";", line feed, "{", "}" and "$"
//   {text}          taken literally without the outer braces; inner braces nest and stay
//   $( and $)       a literal "{" and "}" (how a word carries an unbalanced brace)
//   ${script}       the result of running the script
//   $name           the value of a variable (nothing when it has none); names are ASCII letters,
//                   digits and "_", compared ASCII case-insensitively
//   $0 .. $9        word 0..9 of the command that started the running script: `parse`, `if`,
//                   `while` or a command variable (0 is that command's name). A ${script} is
//                   not started by a command and sees the words its enclosing script sees. At
//                   the top of scf_run there are none.
//   $ followed by anything else is a literal "$".
//
// A command runs the newest registered handler of its name (ASCII case-insensitive); failing
// that, a variable of that name is run as a script with the command's words as its $0..$9.
// Scripts run by parse, if, while, ${} and command variables get a variable scope of their own:
// they see the variables of the scripts that ran them, and what they set is gone when they end.
//
// Every value is text; numbers and truth values are read with value_parse. Built-in commands:
//   exit [status]           out word...            err word...           parse script
//   set name [value]        get name               if cond body [else ...]
//   while cond body         ! v     len w     cmp a b     asciicmpi a b
//   glob pattern text       asciiglobi pattern text
//   = != <> > >= < <=       && ||                  + - * / %
// `/` and `%` by zero give 0 and report "ERROR SCF: Division by zero in %s command.\n" (the
// script goes on, like after `err`).
//
// Errors are reported to the host's message sink and stop the running script and every script
// that encloses it with status -1; what was done before stays done. `err` reports without
// stopping.
//
// An interpreter is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

struct ScfInterpreter;

// Receives every message the interpreter reports (errors and `err` texts, each ending "\n").
struct ScfMessageSink {
    virtual void message(ScfInterpreter* scf, const wchar_t* text) = 0;

protected:
    ~ScfMessageSink() = default;
};

// A command: run reads its words through the scf_word functions and reports through the
// interpreter. Handlers of built-in commands are shared, stateless objects.
struct ScfCommand {
    virtual void run(ScfInterpreter* scf) = 0;

protected:
    ~ScfCommand() = default;
};

// ---------------------------------------------------------------------------------------------
// Hosts

// An interpreter with the built-in commands registered, or null when memory is short. The sink
// may be null (messages are then dropped); the context is the host's, see scf_context.
ScfInterpreter* scf_create(ScfMessageSink* sink, void* context);
void scf_destroy(ScfInterpreter* scf);

// A later registration of the same name wins. The name is copied; the handler must outlive the
// interpreter.
void scf_register(ScfInterpreter* scf, const wchar_t* name, ScfCommand* command);

// Sets a variable of the running script's scope (at the top level when no script runs).
void scf_set_var(ScfInterpreter* scf, const wchar_t* name, const wchar_t* value);
void scf_set_var(ScfInterpreter* scf, const wchar_t* name, size_t name_length, const wchar_t* value,
                 size_t value_length);

// Runs a script at the top level: variables it sets stay for later runs. The result is cleared
// first. Returns the exit status: 0, the value given to `exit`, or -1 after an error.
int scf_run(ScfInterpreter* scf, const wchar_t* script, size_t length);

// The result of the last script (what `out`, `get` and the value commands produced); never null.
const wchar_t* scf_result(ScfInterpreter* scf, size_t* length = nullptr);

// ---------------------------------------------------------------------------------------------
// Command handlers

void* scf_context(ScfInterpreter* scf);

// The words of the command being run; word 0 is its name. Words are not terminated: use the
// length. An index past the end reads as empty.
size_t scf_word_count(ScfInterpreter* scf);
const wchar_t* scf_word(ScfInterpreter* scf, size_t index, size_t* length);
size_t scf_word_length(ScfInterpreter* scf, size_t index);
// A terminated copy from the process heap (text_free), or null when memory is short.
wchar_t* scf_word_duplicate(ScfInterpreter* scf, size_t index);
// The value of a word read with value_parse.
int64_t scf_word_value(ScfInterpreter* scf, size_t index);

// Checks the word count, the command word included (max SIZE_MAX: no limit). Too few or too
// many words are reported and stop the script; the result is then false.
bool scf_check_count(ScfInterpreter* scf, size_t min, size_t max);

void scf_set_result(ScfInterpreter* scf, const wchar_t* text);
void scf_set_result(ScfInterpreter* scf, const wchar_t* text, size_t length);

// Reports a message to the host's sink without stopping; scf_stop stops.
void scf_error(ScfInterpreter* scf, const wchar_t* message);
void scf_errorf(ScfInterpreter* scf, const wchar_t* format, ...);
// Stops the running script and every enclosing one; scf_run returns `status`.
void scf_stop(ScfInterpreter* scf, int status);
bool scf_stopped(ScfInterpreter* scf);

// Asks the interpreter to run the current command again from word `index` on, once the handler
// returns (how "else if" chains are built). Index 0 asks nothing.
void scf_redispatch(ScfInterpreter* scf, size_t index);

// The value of the newest variable of that name, or null: a command variable's script.
const wchar_t* scf_find_var(ScfInterpreter* scf, const wchar_t* name, size_t name_length,
                            size_t* value_length);

// Runs text as a script in a scope of its own whose $0..$9 are the current command's words.
// The result is shared with the caller's script. Returns false when the script stopped.
bool scf_run_script(ScfInterpreter* scf, const wchar_t* text, size_t length);

// As scf_run_script, with a result of its own that is read as a value (`while` conditions).
int64_t scf_run_for_value(ScfInterpreter* scf, const wchar_t* text, size_t length);
