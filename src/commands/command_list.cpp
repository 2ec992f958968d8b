// The command lists of the front-ends and how commands join them.
#include "base/text.h"
#include "commands/command.h"

CommandList default_commands;
CommandList host_commands;
CommandList install_commands;
CommandList system_install_commands;
CommandList system_commands;

int command_register(CommandEntry* entry, CommandList* list, const wchar_t* name,
                     CommandHandler handler) {
    if (!list) list = &default_commands;
    entry->name = name;
    entry->handler = handler;
    CommandEntry** link = &list->first;
    while (*link && text_compare_ascii_nocase((*link)->name, name) < 0) link = &(*link)->next;
    entry->next = *link;
    *link = entry;
    return 1;
}

const CommandEntry* command_find(const CommandList* list, const wchar_t* name) {
    if (!list) list = &default_commands;
    for (const CommandEntry* entry = list->first; entry; entry = entry->next)
        if (text_compare_ascii_nocase(entry->name, name) == 0) return entry;
    return nullptr;
}
