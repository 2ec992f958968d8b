// The process around a command: what every front-end entry does before and after dispatching.
#include <windows.h>
#include <shellapi.h>

#include "base/console.h"
#include "base/text.h"
#include "base/thread.h"
#include "base/trace_hook.h"
#include "commands/command.h"
#include "usertext/usertext.h"

namespace {

// The running program's path from the process heap (free with text_free), or null.
// GetModuleFileNameW truncates without an error when the buffer is short, so a full buffer
// means "try a larger one".
wchar_t* program_path() {
    for (DWORD capacity = MAX_PATH; capacity <= 32768; capacity *= 4) {
        wchar_t* path = text_allocate(capacity);
        if (!path) return nullptr;
        DWORD length = GetModuleFileNameW(nullptr, path, capacity);
        if (length && length < capacity) return path;
        text_free(path);
        if (!length) return nullptr;
    }
    return nullptr;
}

// "C:\dir\zun.exe" gives "zun".
void program_name(const wchar_t* path, wchar_t* name, size_t capacity) {
    const wchar_t* separator = text_find_last(path, L'\\');
    text_copy(name, capacity, separator ? separator + 1 : path);
    if (wchar_t* dot = text_find_last(name, L'.')) {
        if (dot != name) *dot = 0;
    }
}

// The vector of the windowed entry, built once and kept for the process: the pointers, a null
// pointer, then the strings, all in one block.
int g_window_argc = 0;
wchar_t** g_window_argv = nullptr;

bool build_window_arguments(const wchar_t* program, const wchar_t* command_line) {
    if (!command_line) command_line = L"";
    size_t line_length = text_length(program) + text_length(command_line) + 4;
    wchar_t* line = text_allocate(line_length);
    if (!line) return false;
    text_copy(line, line_length, L"\"");
    text_append(line, line_length, program);
    text_append(line, line_length, L"\" ");
    text_append(line, line_length, command_line);

    int count = 0;
    wchar_t** split = CommandLineToArgvW(line, &count);
    text_free(line);
    if (!split || count < 1) {
        if (split) LocalFree(split);
        return false;
    }
    size_t units = 0;
    for (int i = 0; i < count; ++i) units += text_length(split[i]) + 1;
    size_t pointer_bytes = (static_cast<size_t>(count) + 1) * sizeof(wchar_t*);
    auto* block = static_cast<unsigned char*>(
        HeapAlloc(GetProcessHeap(), 0, pointer_bytes + units * sizeof(wchar_t)));
    if (!block) {
        LocalFree(split);
        return false;
    }
    auto** vector = reinterpret_cast<wchar_t**>(block);
    auto* strings = reinterpret_cast<wchar_t*>(block + pointer_bytes);
    for (int i = 0; i < count; ++i) {
        size_t length = text_length(split[i]);
        vector[i] = strings;
        for (size_t j = 0; j <= length; ++j) strings[j] = split[i][j];
        strings += length + 1;
    }
    vector[count] = nullptr;
    LocalFree(split);
    g_window_argc = count;
    g_window_argv = vector;
    return true;
}

} // namespace

int frontend_main(const CommandList* list, int argc, const wchar_t* const* argv) {
    wchar_t* program = program_path();
    wchar_t name[MAX_PATH] = L"";
    if (program) program_name(program, name, MAX_PATH);

    TraceChannel channel = trace_channel_open(name);
    if (channel) {
        trace_channel_set_default(channel);
        trace_channel_release(channel);
    }
    std_handles_repair();
    console_signals_init();
    usertext_set(L"command_name", name);
    // Returns unless the command line is a "-:" maintenance command; those end the process.
    usertext_main(program ? program : L"", argc, argv);
    text_free(program);

    int code = argc > 0 && argv ? command_dispatch(list, argc - 1, argv + 1)
                                : command_dispatch(list, 0, nullptr);
    process_exit_work();
    return code;
}

int frontend_window_main(const CommandList* list, const wchar_t* command_line) {
    if (!g_window_argv) {
        wchar_t* program = program_path();
        bool built = program && build_window_arguments(program, command_line);
        text_free(program);
        if (!built) return -1;
    }
    return frontend_main(list, g_window_argc, g_window_argv);
}
