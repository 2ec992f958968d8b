// The install commands: install, uninstall, sysinstall, sysuninstall, register, unregister and
// formatters, with their help texts and their places in the front-ends' lists. Their work
// arrives with the install engine; until then each reports that it is not available.
#include "commands/command.h"
#include "usertext/usertext.h"

USERTEXT_KEY(install_short_help, "Install ZUN system extension.\n");
USERTEXT_KEY(install_long_help, "syntax: %(command_name) %1\n");
USERTEXT_KEY(uninstall_short_help, "Uninstall core files from system.\n");
USERTEXT_KEY(uninstall_long_help,
             "syntax: %(command_name) %1 [<switch> ...] [<reference file>]\n"
             "switches:\n"
             "  -f  Force uninstall. Ignore references by other installed products. Don't spawn "
             "installed uninstaller.\n");
USERTEXT_KEY(sysinstall_short_help, "Install driver file to system.\n");
USERTEXT_KEY(sysinstall_long_help, "syntax: %(command_name) %1\n");
USERTEXT_KEY(sysuninstall_short_help, "Uninstall core files from system.\n");
USERTEXT_KEY(sysuninstall_long_help, "syntax: %(command_name) %1");
USERTEXT_KEY(register_short_help, "Register formatter DLL.\n");
USERTEXT_KEY(register_long_help, "syntax: %(command_name) %1 [-s] <formatter file name>\n"
                                 "  -s  Register for entire system.\n");
USERTEXT_KEY(unregister_short_help, "Unregister formatter DLL.\n");
USERTEXT_KEY(unregister_long_help, "syntax: %(command_name) %1 [-s] <formatter file name>\n"
                                   "  -s  Unregister for entire system.\n");
USERTEXT_KEY(formatters_short_help, "List installed formatters.\n");
USERTEXT_KEY(formatters_long_help, "syntax: %(command_name) %1\n");

COMMAND(install_in_zuninst, install_commands, L"install", command_unavailable);
COMMAND(uninstall_in_zuninst, install_commands, L"uninstall", command_unavailable);
COMMAND(uninstall_in_zun, default_commands, L"uninstall", command_unavailable);
COMMAND(sysinstall_in_luminst, system_install_commands, L"sysinstall", command_unavailable);
COMMAND(sysuninstall_in_luminst, system_install_commands, L"sysuninstall", command_unavailable);
COMMAND(sysuninstall_in_lumcmd, system_commands, L"sysuninstall", command_unavailable);
COMMAND(register_in_zun, default_commands, L"register", command_unavailable);
COMMAND(unregister_in_zun, default_commands, L"unregister", command_unavailable);
COMMAND(formatters_in_zun, default_commands, L"formatters", command_unavailable);
