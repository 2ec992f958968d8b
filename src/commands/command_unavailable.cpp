#include "commands/command.h"
#include "usertext/usertext.h"

USERTEXT_KEY(error_command_not_available,
             "ERROR: The command \"%1\" is not available in this build.\n");

int command_unavailable(int argc, const wchar_t* const* argv) {
    const wchar_t* name = argc > 0 && argv && argv[0] ? argv[0] : L"";
    usertext_print(output_stdout(), ut_error_command_not_available, name);
    return -1;
}
