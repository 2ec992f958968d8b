// The SCF interpreter's state, shared by its lexer, its core and its built-in commands. Users see
// scf.h only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <windows.h>

#include "base/scf.h"

// A growable array of plain records on the process heap. When full it grows by a quarter of
// its size plus 4; a refused growth leaves the new entry out (push returns false).
template <typename T> struct ScfArray {
    static_assert(std::is_trivially_copyable_v<T>);
    T* items = nullptr;
    size_t count = 0;
    size_t capacity = 0;

    bool push(const T& item) {
        if (count == capacity) {
            size_t grown = capacity + capacity / 4 + 4;
            void* block = items ? HeapReAlloc(GetProcessHeap(), 0, items, grown * sizeof(T))
                                : HeapAlloc(GetProcessHeap(), 0, grown * sizeof(T));
            if (!block) return false;
            items = static_cast<T*>(block);
            capacity = grown;
        }
        items[count++] = item;
        return true;
    }

    void release() {
        if (items) HeapFree(GetProcessHeap(), 0, items);
        items = nullptr;
        count = capacity = 0;
    }
};

// A word of a command: a slice of the script text, or a string the word owns.
struct ScfWord {
    const wchar_t* text;
    size_t length;
    wchar_t* owned; // null for a slice
};

// One heap block: the name, a zero, the value, a zero.
struct ScfVar {
    wchar_t* block;
    size_t name_length;
    size_t value_length;
    const wchar_t* value() const { return block + name_length + 1; }
};

struct ScfCommandEntry {
    const wchar_t* name;
    wchar_t* owned_name; // null for the built-ins, whose names are static
    ScfCommand* command;
};

// A run of words on the word stack.
struct ScfSpan {
    size_t first = 0;
    size_t count = 0;
};

// A growable terminated text; the result of the running script.
struct ScfText {
    wchar_t* text = nullptr;
    size_t length = 0;
    size_t capacity = 0; // units, terminator included

    bool assign(const wchar_t* s, size_t n);
    void release();
};

struct ScfInterpreter {
    ScfMessageSink* sink = nullptr;
    void* context = nullptr;
    ScfArray<ScfCommandEntry> commands;
    ScfArray<ScfVar> vars;
    ScfArray<ScfWord> words;
    ScfSpan command;   // the words of the command being run
    ScfSpan arguments; // $0..$9 of the running script
    size_t scope = 0;  // the first variable of the running script's scope
    ScfText result;
    bool stop = false;
    int status = 0;
    size_t redispatch = 0;
    unsigned depth = 0; // scripts nested in the running one
};

// Scripts may nest this deep (bodies, substitutions, command variables); deeper is an error
// rather than a stack overflow.
constexpr unsigned scf_max_depth = 100;

inline bool scf_is_blank(wchar_t c) {
    return c == ' ' || c == '\t' || c == '\r' || c == 0xFEFF;
}

// Runs the commands of a script in the current scope (scf_lexer.cpp).
void scf_execute(ScfInterpreter* scf, const wchar_t* text, size_t length);

// Runs a script in a new variable scope with the given $0..$9, sharing the result.
void scf_run_scoped(ScfInterpreter* scf, const wchar_t* text, size_t length, ScfSpan arguments);

// Runs the words in `span` as a command, re-dispatching as the handler asks.
void scf_dispatch(ScfInterpreter* scf, ScfSpan span);

// Registers the built-in commands (scf_builtins.cpp).
void scf_register_builtins(ScfInterpreter* scf);

// The messages of the interpreter, printf formats for scf_errorf.
extern const wchar_t scf_msg_unmatched_open[];
extern const wchar_t scf_msg_unmatched_close[];
extern const wchar_t scf_msg_unknown_command[];
extern const wchar_t scf_msg_too_few[];
extern const wchar_t scf_msg_too_many[];
extern const wchar_t scf_msg_expecting_else[];
extern const wchar_t scf_msg_missing_else_body[];
extern const wchar_t scf_msg_division_by_zero[];
extern const wchar_t scf_msg_nested_too_deeply[];
