#include "base/command_line.h"

#include <cwchar>

#include "base/text_arena.h"

namespace {

bool needs_quotes(const wchar_t* argument) {
    return !*argument || std::wcspbrk(argument, L" \t") != nullptr;
}

// Writes one argument after the first (or only measures it when `out` is null) and returns the
// number of units.
size_t write_argument(const wchar_t* argument, wchar_t* out) {
    size_t length = 0;
    auto put = [&](wchar_t c) {
        if (out) out[length] = c;
        ++length;
    };
    bool quoted = needs_quotes(argument);
    if (quoted) put(L'"');
    size_t backslashes = 0;
    for (const wchar_t* p = argument; *p; ++p) {
        if (*p == L'\\') {
            ++backslashes;
            put(L'\\');
            continue;
        }
        if (*p == L'"') {
            // 2n backslashes and \" read back as n backslashes and a quote.
            for (size_t i = 0; i < backslashes; ++i) put(L'\\');
            put(L'\\');
        }
        backslashes = 0;
        put(*p);
    }
    if (quoted) {
        // Before the closing quote, 2n backslashes read back as n.
        for (size_t i = 0; i < backslashes; ++i) put(L'\\');
        put(L'"');
    }
    return length;
}

} // namespace

CommandLine command_line_build(TextAllocator& arena, const wchar_t* const* arguments) {
    CommandLine line;
    if (!arguments || !arguments[0]) {
        auto* empty = static_cast<wchar_t*>(arena.allocate(sizeof(wchar_t)));
        if (empty) *empty = 0;
        line.text = empty;
        return line;
    }
    // The program: the splitting of the first argument knows no escapes, so it goes in quotes
    // as it is.
    size_t program_length = std::wcslen(arguments[0]);
    size_t length = program_length + 2;
    for (size_t i = 1; arguments[i]; ++i) length += 1 + write_argument(arguments[i], nullptr);

    auto* text = static_cast<wchar_t*>(arena.allocate((length + 1) * sizeof(wchar_t)));
    if (!text) return line;
    size_t position = 0;
    text[position++] = L'"';
    std::wmemcpy(text + position, arguments[0], program_length);
    position += program_length;
    text[position++] = L'"';
    line.second_argument = position;
    for (size_t i = 1; arguments[i]; ++i) {
        text[position++] = L' ';
        if (i == 1) line.second_argument = position;
        position += write_argument(arguments[i], text + position);
    }
    text[position] = 0;
    line.text = text;
    return line;
}
