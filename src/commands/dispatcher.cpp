// The dispatcher: a front-end's command line against its command list, with the banner and
// the help texts.
#include "base/format.h"
#include "base/product.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "commands/command.h"
#include "usertext/usertext.h"

USERTEXT_KEY(banner, "%(application_name)\n%(copyright)\n%(build_tag)\n"
                     "For help run: %(command_name) -h\n");
USERTEXT_KEY(syntax, "%(command_name) <command> [...]\ncommands:\n");
USERTEXT_KEY(syntax2, "For more help run: %(command_name) <command> -h\n");
USERTEXT_KEY(error_unknown_command, "ERROR: Unknown command \"%1\".\n");
USERTEXT_KEY(application_name, "Command - Kesti File Mount");
USERTEXT_KEY(build_tag, ZUN_PRODUCT_BUILD_TAG);
USERTEXT_KEY(copyright, "Copyright (C) 2012 Kesti File Mount developers.");

// Shared by every command that parses switches.
USERTEXT_KEY(warning_ignoring_switch, "WARNING: Ignoring unknown switch \"%1\"\n");
USERTEXT_KEY(warning_ignoring_arg, "WARNING: Ignoring unexpected argument \"%1\"\n");

namespace {

constexpr const wchar_t* kHelpWords[] = {L"/?", L"/h",   L"/help", L"?",     L"-?",
                                         L"-h", L"help", L"-help", L"--help"};

// The key "<command>_<suffix>". Command names are short words of our own.
void help_key(wchar_t* key, size_t capacity, const wchar_t* name, const wchar_t* suffix) {
    text_format(key, capacity, L"%ls_%ls", name, suffix);
}

void print_general_help(const CommandList* list) {
    TextArena arena;
    OutputSink* out = output_stdout();
    output_write_lines(out, usertext_get(arena, ut_syntax));
    for (const CommandEntry* entry = list->first; entry; entry = entry->next) {
        wchar_t key[80];
        help_key(key, 80, entry->name, L"short_help");
        const wchar_t* line =
            text_format_arena(arena, L"  %ls  %ls", entry->name, usertext_get(arena, key));
        output_write_lines(out, line ? line : L"usertext_error\n");
    }
    output_write_lines(out, usertext_get(arena, ut_syntax2));
}

void print_long_help(const CommandEntry* entry) {
    wchar_t key[80];
    help_key(key, 80, entry->name, L"long_help");
    usertext_print(output_stdout(), key, entry->name);
}

} // namespace

bool command_is_help_word(const wchar_t* argument) {
    if (!argument) return false;
    for (const wchar_t* word : kHelpWords)
        if (text_compare_ascii_nocase(argument, word) == 0) return true;
    return false;
}

int command_dispatch(const CommandList* list, int argc, const wchar_t* const* argv) {
    if (!list) list = &default_commands;
    if (argc <= 0 || !argv) {
        usertext_print(output_stdout(), ut_banner);
        return 0;
    }
    auto argument = [&](int i) -> const wchar_t* {
        return i < argc && argv[i] ? argv[i] : (i < argc ? L"" : nullptr);
    };

    bool help_first = command_is_help_word(argument(0));
    const wchar_t* name = help_first ? argument(1) : argument(0);
    if (!name) {
        print_general_help(list);
        return 0;
    }
    const CommandEntry* entry = command_find(list, name);
    if (entry) {
        if (help_first || command_is_help_word(argument(1))) {
            // The registered name, not the typed one: "MOUNT -H" shows "mount".
            print_long_help(entry);
            return 0;
        }
        return entry->handler(argc, argv);
    }
    if (help_first) {
        print_general_help(list);
        return 0;
    }
    usertext_print(output_stdout(), ut_error_unknown_command, name);
    return -1;
}
