// Command lines for CreateProcessW and ShellExecuteW, built so that CommandLineToArgvW (and the
// C runtime's own splitting) gives back the argument vector.
#pragma once

#include <cstddef>

struct TextAllocator;

struct CommandLine {
    wchar_t* text = nullptr;    // null when memory is short
    size_t second_argument = 0; // where the second argument begins (the length if none)
};

// `arguments` is null-terminated, the program first. Arguments are joined with one blank. The
// program always stands in double quotes and is written as it is (the splitting takes it up to
// the next quote, without escapes). Any other argument is quoted when it is empty or contains
// a blank or a tab; a double quote in it is written as \" with the backslashes right before it
// doubled, and in a quoted argument so are the backslashes at its end.
CommandLine command_line_build(TextAllocator& arena, const wchar_t* const* arguments);
