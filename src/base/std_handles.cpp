#include "base/console.h"

#include <cstdint>

#include <windows.h>

namespace {

// Console handles of Windows before 8 are pseudo-handles with the low two bits set; one
// inherited from a console the process no longer has is dead, and only GetConsoleMode tells.
bool is_dead_console_handle(HANDLE handle) {
    DWORD mode;
    return (reinterpret_cast<uintptr_t>(handle) & 3) == 3 && !GetConsoleMode(handle, &mode);
}

void repair(DWORD which, DWORD access) {
    HANDLE handle = GetStdHandle(which);
    if (handle && handle != INVALID_HANDLE_VALUE && !is_dead_console_handle(handle)) return;
    HANDLE null_device =
        CreateFileW(L"\\\\.\\NUL", access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (null_device != INVALID_HANDLE_VALUE) SetStdHandle(which, null_device);
}

} // namespace

void std_handles_repair() {
    repair(STD_INPUT_HANDLE, GENERIC_READ);
    repair(STD_OUTPUT_HANDLE, GENERIC_WRITE);
    repair(STD_ERROR_HANDLE, GENERIC_WRITE);
}
