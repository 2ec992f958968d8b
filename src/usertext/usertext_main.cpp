// The "-:" maintenance commands every front-end answers before its own command line: they
// write the registered defaults, the module's resource or the loaded table to a file for
// translators, or show where the strings come from.
#include <windows.h>

#include "base/format.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "base/thread.h"
#include "usertext/usertext_internal.h"
#include "usertext/usertext_module.h"

USERTEXT_KEY(usertext_usage,
             "Strings will be read from module \"%s\" resources, type \"file\" name "
             "\"usertext\".\n"
             "Strings will be read from file \"%s\".\n"
             "Set environment variable \"KESTI_LANGID\" to override language selection.\n"
             "Commands:\n"
             "Show this information:  %s -:\n"
             "Write init strings to file:  %s -: init <filename>\n"
             "Write resource strings to file:  %s -: res <filename>\n"
             "Write loaded strings to file:  %s -: dump <filename>\n");
USERTEXT_KEY(error_no_resource_strings, "ERROR: No resource strings.\n");
USERTEXT_KEY(error_unable_to_create_file, "ERROR: %i Unable to create file \"%s\".\n");

namespace {

void print_printf(const wchar_t* key, size_t argc, const wchar_t* const* args) {
    TextArena arena;
    output_write_lines(output_stdout(), usertext_get_printf(arena, key, argc, args));
}

// Writes the bytes to the file; reports a failure. Returns the exit code.
int write_or_report(const wchar_t* file, const void* bytes, size_t size) {
    uint32_t error = bytes ? usertext_write_file(file, bytes, size) : ERROR_NOT_ENOUGH_MEMORY;
    if (error) {
        wchar_t number[16];
        text_format(number, 16, L"%i", static_cast<int>(error));
        const wchar_t* args[] = {number, file};
        print_printf(ut_error_unable_to_create_file, 2, args);
    }
    return static_cast<int>(error);
}

int write_table(const wchar_t* file) {
    size_t size = 0;
    char* bytes = usertext_table_file(&size);
    int code = write_or_report(file, bytes, size);
    text_free(bytes);
    return code;
}

void print_usage(const wchar_t* module, const wchar_t* path) {
    const wchar_t* separator = text_find_last(module, L'\\');
    const wchar_t* name = separator ? separator + 1 : module;
    const wchar_t* args[] = {module, path, name, name, name, name};
    print_printf(ut_usertext_usage, 6, args);
}

int run_command(const wchar_t* module, const wchar_t* path, int argc, const wchar_t* const* argv) {
    const wchar_t* command = argc > 2 ? argv[2] : nullptr;
    const wchar_t* file = argc > 3 ? argv[3] : nullptr;
    if (command && file) {
        if (text_compare_ascii_nocase(command, L"init") == 0) return write_table(file);
        if (text_compare_ascii_nocase(command, L"res") == 0) {
            const UserTextModule* strings = usertext_module();
            if (!strings->resource) {
                usertext_print(output_stdout(), ut_error_no_resource_strings);
                return -1;
            }
            return write_or_report(file, strings->resource, strings->resource_size);
        }
        if (text_compare_ascii_nocase(command, L"dump") == 0) {
            if (usertext_load(output_stdout()) != 0) return -1;
            return write_table(file);
        }
    }
    print_usage(module, path);
    return 0;
}

} // namespace

void usertext_main(const wchar_t* module, int argc, const wchar_t* const* argv) {
    wchar_t path[usertext_path_capacity];
    usertext_set_module(module, path, usertext_path_capacity);
    if (argc < 2 || !argv || !argv[1] || text_compare(argv[1], L"-:") != 0) {
        usertext_load(nullptr);
        return;
    }
    int code = run_command(module ? module : L"", path, argc, argv);
    process_exit_work();
    ExitProcess(static_cast<UINT>(code));
}
