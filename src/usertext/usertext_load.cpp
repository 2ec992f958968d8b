// Loading the translation: the module's text file or resource run as a script whose `text`
// commands set the texts, once per process, on demand or from usertext_main.
#include <atomic>

#include "base/scf.h"
#include "base/text.h"
#include "base/utf.h"
#include "usertext/usertext_internal.h"
#include "usertext/usertext_module.h"

USERTEXT_KEY(error_parsing_file_strings, "ERROR: Error(s) encountered parsing file strings.\n");
USERTEXT_KEY(error_parsing_resource_strings,
             "ERROR: Error(s) encountered parsing resource strings.\n");

namespace {

std::atomic<bool> g_load_armed{false};
bool g_load_started = false; // under the user text hold
int g_load_result = 0;

// `text key [words...]`: one word is the text as it stands, several are joined with single
// blanks, none is the empty text. Line ends are kept as line feeds, as in the registered
// defaults: a file edited with CR LF line ends gives the same texts as one without, and a
// written table loads back to exactly the texts it was written from.
struct TextCommand final : ScfCommand {
    void run(ScfInterpreter* scf) override {
        if (!scf_check_count(scf, 2, SIZE_MAX)) return;
        size_t count = scf_word_count(scf);
        size_t total = 0;
        for (size_t i = 2; i < count; ++i) total += scf_word_length(scf, i) + (i > 2);
        wchar_t* key = scf_word_duplicate(scf, 1);
        wchar_t* text = text_allocate(total + 1);
        if (key && text) {
            size_t at = 0;
            for (size_t i = 2; i < count; ++i) {
                if (i > 2) text[at++] = ' ';
                size_t length;
                const wchar_t* word = scf_word(scf, i, &length);
                for (size_t j = 0; j < length; ++j)
                    if (word[j] != '\r' || j + 1 == length || word[j + 1] != '\n')
                        text[at++] = word[j];
            }
            text[at] = 0;
            usertext_set(key, text);
        }
        text_free(key);
        text_free(text);
    }
};

// Counts the interpreter's messages and passes them on.
struct CountingSink final : ScfMessageSink {
    OutputSink* errors;
    unsigned count = 0;

    explicit CountingSink(OutputSink* sink) : errors(sink) {}

    void message(ScfInterpreter*, const wchar_t* text) override {
        ++count;
        output_write_lines(errors, text);
    }
};

} // namespace

unsigned usertext_parse(const char* bytes, size_t size, const wchar_t* langid, OutputSink* errors) {
    static TextCommand text_command;
    wchar_t* script = utf8_to_text_alloc(bytes, size);
    CountingSink sink(errors);
    ScfInterpreter* scf = script ? scf_create(&sink, nullptr) : nullptr;
    if (!scf) {
        text_free(script);
        return 1;
    }
    scf_register(scf, L"text", &text_command);
    scf_set_var(scf, L"langid", langid);
    scf_run(scf, script, text_length(script));
    scf_destroy(scf);
    text_free(script);
    return sink.count;
}

void usertext_arm_load() {
    g_load_armed.store(true, std::memory_order_release);
}

int usertext_load(OutputSink* errors) {
    RecursiveHold* hold = usertext_hold();
    hold_acquire_recursive(hold);
    if (!g_load_started) {
        // Marked first: a text asked for on this thread while the script runs must not start
        // the load again.
        g_load_started = true;
        wchar_t langid[100];
        usertext_language(langid, 100);
        const UserTextModule* module = usertext_module();
        // A present file replaces the resource entirely.
        const wchar_t* failure_key = nullptr;
        if (module->file_size) {
            if (usertext_parse(module->file, module->file_size, langid, errors))
                failure_key = ut_error_parsing_file_strings;
        } else if (module->resource) {
            if (usertext_parse(module->resource, module->resource_size, langid, errors))
                failure_key = ut_error_parsing_resource_strings;
        }
        if (failure_key) {
            usertext_print(errors, failure_key);
            g_load_result = -1;
        }
        g_load_armed.store(false, std::memory_order_release);
    }
    int result = g_load_result;
    hold_release_recursive(hold);
    return result;
}

void usertext_run_pending_load() {
    if (g_load_armed.load(std::memory_order_acquire)) usertext_load(nullptr);
}
