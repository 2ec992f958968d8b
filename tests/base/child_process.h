// Starting the test child program (io_child.exe, beside the test executable) with chosen
// creation flags and standard handles, and waiting for it with a bound.
#pragma once

#include <string>

#include <windows.h>

#include "base/owned_handle.h"

inline std::wstring test_program_directory() {
    wchar_t path[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path, length);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

inline std::wstring io_child_path() {
    return test_program_directory() + L"\\io_child.exe";
}

struct StartedChild {
    OwnedHandle process;
    DWORD id = 0;

    // The exit code, or 0xDEAD after terminating a child that ran past `timeout_ms`.
    DWORD wait(DWORD timeout_ms = 20000) {
        if (WaitForSingleObject(process.get(), timeout_ms) != WAIT_OBJECT_0) {
            TerminateProcess(process.get(), 0xDEAD);
            WaitForSingleObject(process.get(), 5000);
        }
        DWORD code = 0;
        GetExitCodeProcess(process.get(), &code);
        return code;
    }
};

// `handles` null: the child gets no standard handles at all (STARTF_USESTDHANDLES with nulls).
inline StartedChild start_child(const std::wstring& arguments, DWORD flags,
                                const HANDLE* handles = nullptr) {
    StartedChild child;
    std::wstring command = L"\"" + io_child_path() + L"\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    if (handles) {
        startup.hStdInput = handles[0];
        startup.hStdOutput = handles[1];
        startup.hStdError = handles[2];
    }
    PROCESS_INFORMATION info = {};
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, handles != nullptr, flags,
                       nullptr, nullptr, &startup, &info)) {
        CloseHandle(info.hThread);
        child.process.reset(info.hProcess);
        child.id = info.dwProcessId;
    }
    return child;
}
