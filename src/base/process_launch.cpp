#include <cwchar>

#include "base/command_line.h"
#include "base/owned_handle.h"
#include "base/process.h"
#include "base/program_find.h"
#include "base/text_arena.h"

namespace {

void close_child_handle(HANDLE* handle) {
    if (handle_is_valid(*handle)) CloseHandle(*handle);
    *handle = nullptr;
}

// The directory of the running program, where the front-ends look for each other first.
wchar_t* program_directory(TextAllocator& arena) {
    for (DWORD size = MAX_PATH;; size *= 2) {
        auto* path = static_cast<wchar_t*>(arena.allocate((size + 1) * sizeof(wchar_t)));
        if (!path) return nullptr;
        DWORD length = GetModuleFileNameW(nullptr, path, size);
        if (length == 0) return nullptr;
        if (length < size) {
            wchar_t* separator = std::wcsrchr(path, L'\\');
            if (separator) *separator = 0;
            return path;
        }
        if (size >= 0x8000) return nullptr;
    }
}

// Strings, each terminated, then one more terminator: the block CREATE_UNICODE_ENVIRONMENT
// expects.
wchar_t* environment_block(TextAllocator& arena, const ProcessLaunch& launch) {
    size_t length = 1;
    for (size_t i = 0; i < launch.environment_count; ++i)
        length += std::wcslen(launch.environment[i]) + 1;
    auto* block = static_cast<wchar_t*>(arena.allocate((length + 1) * sizeof(wchar_t)));
    if (!block) return nullptr;
    wchar_t* out = block;
    for (size_t i = 0; i < launch.environment_count; ++i) {
        size_t string_length = std::wcslen(launch.environment[i]);
        std::wmemcpy(out, launch.environment[i], string_length + 1);
        out += string_length + 1;
    }
    *out++ = 0;
    *out = 0; // an empty environment still needs its two terminators
    return block;
}

// A handle on the null device that the child can inherit.
HANDLE inheritable_null() {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    return CreateFileW(L"\\\\.\\NUL", GENERIC_READ | GENERIC_WRITE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                       OPEN_EXISTING, 0, nullptr);
}

uint32_t start_process(ProcessLaunch* launch, wchar_t* command_line, wchar_t* environment) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = launch->std_input;
    startup.hStdOutput = launch->std_output;
    startup.hStdError = launch->std_error;
    DWORD flags = launch->no_window ? CREATE_NO_WINDOW : 0;
    if (environment) flags |= CREATE_UNICODE_ENVIRONMENT;
    PROCESS_INFORMATION info = {};
    BOOL started;
    if (launch->user) {
        // The logon's process inherits the three standard handles through the start-up
        // information; it cannot inherit anything else.
        started = CreateProcessWithLogonW(launch->user, launch->domain, launch->password,
                                          LOGON_WITH_PROFILE, nullptr, command_line, flags,
                                          environment, launch->directory, &startup, &info);
    } else {
        started = CreateProcessW(nullptr, command_line, nullptr, nullptr, TRUE, flags, environment,
                                 launch->directory, &startup, &info);
    }
    if (!started) return GetLastError();
    CloseHandle(info.hThread);
    launch->process = info.hProcess;
    launch->process_id = info.dwProcessId;
    return 0;
}

} // namespace

ProcessLaunch::~ProcessLaunch() {
    close_child_handle(&std_input);
    close_child_handle(&std_output);
    close_child_handle(&std_error);
    if (handle_is_valid(process)) CloseHandle(process);
}

uint32_t process_launch(ProcessLaunch* launch, const wchar_t* const* arguments) {
    TextArena arena;
    const wchar_t* const* vector = arguments;
    if (!arguments || !arguments[0]) {
        if (!launch->error) launch->error = ERROR_INVALID_PARAMETER;
    } else if (*arguments[0]) {
        wchar_t* base = program_directory(arena);
        wchar_t* found = program_find(
            arena, program_find_current_directory | program_find_path_variable, base, arguments[0]);
        if (found) {
            size_t count = 0;
            while (arguments[count]) ++count;
            auto** copy =
                static_cast<const wchar_t**>(arena.allocate((count + 1) * sizeof(wchar_t*)));
            if (copy) {
                copy[0] = found;
                for (size_t i = 1; i <= count; ++i) copy[i] = arguments[i];
                vector = copy;
            } else {
                ++launch->error_count;
            }
        } else if (!launch->error) {
            launch->error = ERROR_INVALID_PARAMETER;
        }
    }

    // A child inherits every inheritable handle of its parent, not just the three it is given:
    // the parent's own standard handles must not reach it (a pipe end held open by a child
    // would keep the pipe from ever reporting its end).
    for (DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        HANDLE own = GetStdHandle(which);
        if (handle_is_valid(own)) SetHandleInformation(own, HANDLE_FLAG_INHERIT, 0);
    }

    for (HANDLE* handle : {&launch->std_input, &launch->std_output, &launch->std_error}) {
        if (handle_is_valid(*handle)) continue;
        *handle = inheritable_null();
        if (*handle == INVALID_HANDLE_VALUE) {
            *handle = nullptr;
            ++launch->error_count;
        }
    }

    wchar_t* command_line = nullptr;
    wchar_t* environment = nullptr;
    if (!launch->error) {
        command_line = command_line_build(arena, vector).text;
        if (!command_line) ++launch->error_count;
        if (launch->environment && launch->environment_count) {
            environment = environment_block(arena, *launch);
            if (!environment) ++launch->error_count;
        }
    }
    if (launch->error_count && !launch->error) launch->error = ERROR_OUTOFMEMORY;

    if (!launch->error) launch->error = start_process(launch, command_line, environment);

    close_child_handle(&launch->std_input);
    close_child_handle(&launch->std_output);
    close_child_handle(&launch->std_error);
    return launch->error;
}

int process_wait(ProcessLaunch* launch, Signalable* cancel, uint32_t timeout_ms) {
    if (!launch->process_id) return 1;
    if (!handle_wait(launch->process, cancel, timeout_ms)) return 0;
    DWORD code = 0;
    GetExitCodeProcess(launch->process, &code);
    launch->exit_code = code;
    return 1;
}

uint32_t process_terminate(HANDLE process) {
    return TerminateProcess(process, 1) ? 0 : GetLastError();
}
