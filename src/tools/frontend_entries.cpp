// The exported entries of the front-end executables. Each executable finds the library, calls
// one of these with its arguments and returns the result; everything else happens here.
#include <windows.h>

#include "commands/command.h"

extern "C" {

// Also exported as "wmain", so that a program may take the library's entry for its own.
int zun_wmain(int argc, const wchar_t* const* argv) {
    return frontend_main(&default_commands, argc, argv);
}
int zunhost_wmain(int argc, const wchar_t* const* argv) {
    return frontend_main(&host_commands, argc, argv);
}
int zuninst_wmain(int argc, const wchar_t* const* argv) {
    return frontend_main(&install_commands, argc, argv);
}
int luminst_wmain(int argc, const wchar_t* const* argv) {
    return frontend_main(&system_install_commands, argc, argv);
}
int lumcmd_wmain(int argc, const wchar_t* const* argv) {
    return frontend_main(&system_commands, argc, argv);
}

int zun_wWinMain(HINSTANCE, HINSTANCE, const wchar_t* command_line) {
    return frontend_window_main(&default_commands, command_line);
}
// The host is started hidden by the mount creator, which reads its results from pipes and
// never from its exit code: -1 whatever the command gave.
int zunhost_wWinMain(HINSTANCE, HINSTANCE, const wchar_t* command_line) {
    frontend_window_main(&host_commands, command_line);
    return -1;
}
int zuninst_wWinMain(HINSTANCE, HINSTANCE, const wchar_t* command_line) {
    return frontend_window_main(&install_commands, command_line);
}
int luminst_wWinMain(HINSTANCE, HINSTANCE, const wchar_t* command_line) {
    return frontend_window_main(&system_install_commands, command_line);
}
int lumcmd_wWinMain(HINSTANCE, HINSTANCE, const wchar_t* command_line) {
    return frontend_window_main(&system_commands, command_line);
}

} // extern "C"
