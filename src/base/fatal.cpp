#include "base/fatal.h"

#include <windows.h>

#include "base/format.h"

void fatal_assert(const char* file, int line, const char* message) {
    char text[512];
    size_t length = utf8_format(text, sizeof text, "ASSERT: %s:%i%s%s%s\n", file, line,
                                message ? " \"" : "", message ? message : "", message ? "\"" : "");
    if (length > sizeof text - 1) length = sizeof text - 1;
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
    // Stop here, in a debugger if one is attached; without one the unhandled breakpoint ends the
    // process.
    __debugbreak();
    TerminateProcess(GetCurrentProcess(), STATUS_BREAKPOINT);
    __builtin_unreachable();
}
