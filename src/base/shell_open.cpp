#include <windows.h>
#include <shellapi.h>

#include "base/command_line.h"
#include "base/process.h"
#include "base/text_arena.h"

uint32_t shell_open(const wchar_t* const* arguments) {
    if (!arguments || !arguments[0]) return ERROR_INVALID_PARAMETER;
    TextArena arena;
    CommandLine line = command_line_build(arena, arguments);
    if (!line.text) return ERROR_OUTOFMEMORY;
    const wchar_t* parameters =
        line.text[line.second_argument] ? line.text + line.second_argument : nullptr;
    HINSTANCE result =
        ShellExecuteW(nullptr, L"open", arguments[0], parameters, nullptr, SW_SHOWNA);
    // ShellExecuteW reports success as a value above 32.
    if (reinterpret_cast<INT_PTR>(result) > 32) return 0;
    DWORD error = GetLastError();
    return error ? error : static_cast<uint32_t>(reinterpret_cast<INT_PTR>(result));
}
