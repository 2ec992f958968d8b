// User text: every text the system shows a person is a value under a short key, registered at
// start-up with an English default and replaceable by a translation read from the module's
// text file or its "usertext" resource.
//
// Registering keys. A source file registers the keys it shows, at namespace scope:
//
//     USERTEXT_KEY(error_unknown_command, "ERROR: Unknown command \"%1\".\n");
//
// which defines the global `ut_error_unknown_command` (the key) and registers the default text
// before any front-end code runs. Another file that prints the same key declares it with
// USERTEXT_KEY_EXTERN(error_unknown_command), or simply passes the key as L"...".
//
// Texts are templates (see usertext_expand): "%1".."%9" are the caller's arguments and
// "%(name)" the text of another key, so numbers are formatted into strings by the caller first.
//
// The table is one per process. It is filled by the registrations, the locale texts and one
// load of the translation, and only read afterwards: it has no lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>

struct TextAllocator;

// ---------------------------------------------------------------------------------------------
// Output sinks

// Where messages go. write() takes one line; with line_end the sink ends the line (CR LF).
struct OutputSink {
    virtual void write(const wchar_t* text, bool line_end) = 0;

protected:
    ~OutputSink() = default;
};

// Standard output and standard error: each line is converted to the ANSI code page (no
// best-fit mapping) and written with CR LF when line_end is set.
OutputSink* output_stdout();
OutputSink* output_stderr();

// Splits text at each line feed (dropping a carriage return before it) and writes every line
// with line_end set, and the rest after the last line feed, if any, without. A null sink drops
// the text.
void output_write_lines(OutputSink* sink, const wchar_t* text);

// ---------------------------------------------------------------------------------------------
// The table

// Registers a key with its default text (UTF-8) and returns the key. For start-up initialisers
// (USERTEXT_KEY); registration order does not matter.
const wchar_t* usertext_register(const wchar_t* key, const char* default_text);

#define USERTEXT_KEY(name, default_text)                                                           \
    extern const wchar_t* const ut_##name;                                                         \
    const wchar_t* const ut_##name = usertext_register(L"" #name, default_text)
#define USERTEXT_KEY_EXTERN(name) extern const wchar_t* const ut_##name

// Sets a key's text, replacing the old one. In test mode (KESTI_USERTEXTTESTMODE non-zero when
// the table was created) the stored text is "(key) text".
void usertext_set(const wchar_t* key, const wchar_t* text);

// The stored text of a key, unexpanded, or null when the key is not in the table.
const wchar_t* usertext_lookup(const wchar_t* key);

bool usertext_test_mode();

// Visits every entry in key order (ASCII case-insensitive).
using UserTextVisitor = void (*)(void* context, const wchar_t* key, const wchar_t* text);
void usertext_enumerate(UserTextVisitor visit, void* context);

// ---------------------------------------------------------------------------------------------
// Expansion

// Expands the key's text into a counted buffer: units are stored while they fit, the result is
// terminated at min(count, capacity - 1) when capacity is not 0, and the count of units the
// whole expansion needs is returned. A key that is not in the table stands for itself.
//   %1..%9   argument 1..9, or the text of `missing_arg` when there is none (or it is null)
//   %(name)  the text of `name`, expanded with the same arguments; five levels deep at most,
//            after which the stored text is inserted as it is
//   %c       any other character c stands for itself ("%%" is "%"); a final "%" ends the text
// Arguments and inserted texts are not scanned again. When the text has no "%" at all,
// *direct (if given) receives the stored text itself, else null.
size_t usertext_expand(const wchar_t* key, size_t argc, const wchar_t* const* args, wchar_t* out,
                       size_t capacity, const wchar_t** direct);

// The expanded text, loading the translation first if that is still pending. A text without
// placeholders comes back as stored (it lives as long as the table); any other from the
// arena. When the table is missing or the arena refuses: "usertext_error".
const wchar_t* usertext_get_args(TextAllocator& arena, const wchar_t* key, size_t argc,
                                 const wchar_t* const* args);
const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key);
const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1);
const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1,
                            const wchar_t* arg2);
const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1,
                            const wchar_t* arg2, const wchar_t* arg3);

// For the few texts that are printf formats ("%s", "%i" in the order the caller documents):
// each conversion is replaced by the next argument string, "%%" by "%"; a conversion without
// an argument gives nothing. Nothing else of the format engine is reachable from a
// translation. "usertext_error" when the arena refuses.
const wchar_t* usertext_get_printf(TextAllocator& arena, const wchar_t* key, size_t argc,
                                   const wchar_t* const* args);

// usertext_get, then output_write_lines.
void usertext_print_args(OutputSink* sink, const wchar_t* key, size_t argc,
                         const wchar_t* const* args);
void usertext_print(OutputSink* sink, const wchar_t* key);
void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1);
void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1, const wchar_t* arg2);
void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1, const wchar_t* arg2,
                    const wchar_t* arg3);

// ---------------------------------------------------------------------------------------------
// The module's translation

// The capacity of the text file path buffer front-ends pass to usertext_set_module.
constexpr size_t usertext_path_capacity = 300;

// Forms the text file path "<module>.usertext" into `path`. The first call also takes the
// module's "usertext" resource (type "usertext", name "file") and the file's first 200,000
// bytes, and arms the lazy load of the first usertext_get; later calls load nothing.
void usertext_set_module(const wchar_t* module, wchar_t* path, size_t capacity);

// Loads the translation once per process: the file if it gave any bytes, else the resource.
// Interpreter messages go to `errors` (may be null). Returns 0, or -1 when the strings had
// errors (then "ERROR: Error(s) encountered parsing file strings." or "... resource strings."
// is written too). A later call loads nothing and returns the first call's result.
int usertext_load(OutputSink* errors);

// The language identifier the translation chooses by, at most 99 characters: KESTI_LANGID if
// set and not empty, else the user's "Control Panel\International" sLanguage (read once),
// else "ENU". Stored with a bounded copy.
void usertext_language(wchar_t* out, size_t capacity);

// Every front-end calls this first with its module path and full argument vector. Unless
// argv[1] is "-:" it loads the translation quietly and returns. With "-:" it runs a
// maintenance command and ends the process:
//   -: init <file>   write the registered defaults as a text file
//   -: res <file>    write the module's resource bytes
//   -: dump <file>   load the translation and write the table as loaded
//   -: (anything else)  print the usage
void usertext_main(const wchar_t* module, int argc, const wchar_t* const* argv);
