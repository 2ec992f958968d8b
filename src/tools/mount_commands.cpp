// The mount tool commands: mount, unmount, list and flush, with their help texts and their
// places in the front-ends' lists. Their work arrives with the mount API; until then each
// reports that it is not available.
#include "commands/command.h"
#include "usertext/usertext.h"

USERTEXT_KEY(mount_short_help, "Mount file.\n");
USERTEXT_KEY(mount_long_help,
             "syntax: %(command_name) %1 [<switch> ...] <file>\n"
             "switches:\n"
             "  -a  Allow everyone read access.\n"
             "  -b  Open new mount in shell.\n"
             "  -c  Authenticate through console.\n"
             "  -d  Single process mount for diagnostics.\n"
             "  -e  Display mount options dialog.\n"
             "  -f <formatter name>  Name of formatter with which to mount file.\n"
             "  -i  Mount visible only to owner. Default for non admins.\n"
             "  -l  Prompt for credentials if needed for system visibility.\n"
             "  -m <drive letter>  Map drive letter to mount.\n"
             "  -o <user sid>  Alternate owner.\n"
             "  -p <password>  Password prompt answer.\n"
             "  -r  Mount read only.\n"
             "  -s  Mount visible to all users and system. Default for admins.\n"
             "  -u  Do not create mount point at mount file.\n"
             "  -v  Verbose output.\n"
             "  -w  Allow everyone read and write access.\n"
             "  -x <pid>  Limit mount visibility to specified process and children.\n");
USERTEXT_KEY(unmount_short_help, "Unmount file(s).\n");
USERTEXT_KEY(unmount_long_help, "syntax: %(command_name) %1 [<switch> ...] <file>\n"
                                "switches:\n"
                                "  -f  Force unmount.\n"
                                "  -b  Perform unmount in background.\n");
USERTEXT_KEY(list_short_help, "List mounted files.\n");
USERTEXT_KEY(list_long_help, "syntax: %(command_name) %1 [<switch> ...] [<file>]\n"
                             "switches:\n"
                             "  -n  Do not resolve user names, just display SID.\n"
                             "  -u  Show UNC names for mounts.\n");
USERTEXT_KEY(flush_short_help, "Flush modifications to mounted file(s).\n");
USERTEXT_KEY(flush_long_help, "syntax: %(command_name) %1 [<file>]\n");

COMMAND(mount_in_zun, default_commands, L"mount", command_unavailable);
COMMAND(mount_in_zunhost, host_commands, L"mount", command_unavailable);
COMMAND(unmount_in_zun, default_commands, L"unmount", command_unavailable);
COMMAND(unmount_in_lumcmd, system_commands, L"unmount", command_unavailable);
COMMAND(list_in_zun, default_commands, L"list", command_unavailable);
COMMAND(list_in_lumcmd, system_commands, L"list", command_unavailable);
COMMAND(flush_in_zun, default_commands, L"flush", command_unavailable);
