// The host commands of zunhost: serve, findformatter and createsysmount, with their help texts
// and their places in the host's list. Their work arrives with formatter hosting; until then
// each reports that it is not available.
#include "commands/command.h"
#include "usertext/usertext.h"

USERTEXT_KEY(serve_short_help, "Mount file.\n");
USERTEXT_KEY(serve_long_help,
             "syntax: %(command_name) %1 [<switch> ...] -f <formatter name> <file>\n"
             "switches:\n"
             "  -f <formatter name>  Name of formatter with which to mount file.\n"
             "  -r  Serve read only.\n"
             "  -v  Verbose output.\n");
// Started by mount creation only.
USERTEXT_KEY(findformatter_short_help, "Internal use only.\n");
USERTEXT_KEY(findformatter_long_help, "Internal use only.\n");
USERTEXT_KEY(createsysmount_short_help, "Internal use only.\n");
USERTEXT_KEY(createsysmount_long_help, "Internal use only.\n");

COMMAND(serve_in_zunhost, host_commands, L"serve", command_unavailable);
COMMAND(findformatter_in_zunhost, host_commands, L"findformatter", command_unavailable);
COMMAND(createsysmount_in_zunhost, host_commands, L"createsysmount", command_unavailable);
