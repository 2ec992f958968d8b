// Commands and their dispatch. Each front-end (zun, zunhost, zuninst, luminst, lumcmd) has a
// command list; commands register themselves in one or more lists at start-up, and the
// front-end's entry dispatches its command line against its list.
//
// Register a command from namespace scope, once per list it belongs to:
//
//     COMMAND(mount_in_zun, default_commands, L"mount", mount_command);
//     COMMAND(mount_in_zunhost, host_commands, L"mount", mount_command);
//
// Its help texts are the user text keys "<name>_short_help" (one line) and "<name>_long_help"
// (syntax and switches; "%1" stands for the command name), registered beside the command.
#pragma once

#include <cstdint>

// Takes the arguments from the command name on (argv[0] is the name as typed) and returns the
// process exit code: 0 success, -1 failure, or a Windows error code as the command documents.
using CommandHandler = int (*)(int argc, const wchar_t* const* argv);

struct CommandEntry {
    CommandEntry* next;
    const wchar_t* name;
    CommandHandler handler;
};

// Entries in ascending order of name, ASCII case-insensitive. Filled by start-up initialisers
// on one thread before any dispatch; read-only afterwards.
struct CommandList {
    CommandEntry* first = nullptr;
};

extern CommandList default_commands;        // zun
extern CommandList host_commands;           // zunhost
extern CommandList install_commands;        // zuninst
extern CommandList system_install_commands; // luminst
extern CommandList system_commands;         // lumcmd

// Inserts the entry before the first one whose name is not below `name`. A null list is the
// default list. Returns 1, for use in initialisers.
int command_register(CommandEntry* entry, CommandList* list, const wchar_t* name,
                     CommandHandler handler);

#define COMMAND(id, list, name, handler)                                                           \
    static CommandEntry id##_entry = {nullptr, nullptr, nullptr};                                  \
    [[maybe_unused]] static const int id##_registered =                                            \
        command_register(&id##_entry, &list, name, handler)

// The entry named `name` (ASCII case-insensitive), or null.
const CommandEntry* command_find(const CommandList* list, const wchar_t* name);

// Runs the command line `argv` (without the program name) against the list, or prints the
// banner (no arguments), the general help (a help word alone, or before an unknown name) or a
// command's long help (a help word before or right after its name). An unknown command prints
// its error and gives -1. Output goes to standard output.
int command_dispatch(const CommandList* list, int argc, const wchar_t* const* argv);

// "/?", "-h", "help", "--help" and the like, ASCII case-insensitive.
bool command_is_help_word(const wchar_t* argument);

// The handler of a command whose implementation this build does not carry: it says so and
// gives -1.
int command_unavailable(int argc, const wchar_t* const* argv);

// The console entry of a front-end: prepares the process (trace channel, standard handles,
// console control, user text with "-:" maintenance commands), dispatches argv[1..] against the
// list, runs the process-exit work and returns the command's exit code.
int frontend_main(const CommandList* list, int argc, const wchar_t* const* argv);

// The windowed entry: builds the argument vector from the program's path and `command_line`
// (split as CommandLineToArgvW splits) and runs frontend_main with it; -1 when the vector
// cannot be built.
int frontend_window_main(const CommandList* list, const wchar_t* command_line);
