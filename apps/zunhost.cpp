// A windowed program: the host is started hidden, and a console program would bring up a
// console window of its own when its parent has none.
#include "library_entry.h"

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE previous, wchar_t* command_line, int) {
    return run_window_entry("zunhost_wWinMain", instance, previous, command_line);
}
