#include "base/fatal.h"

#include <windows.h>

#if __has_include("base/format.h")
#include "base/format.h"
#else
// Until the runtime's own formatting engine is in the tree, the C runtime's snprintf (same
// signature shape, same conversions for this line) stands in for it.
#include <cstdio>
#define utf8_format snprintf
#endif

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
