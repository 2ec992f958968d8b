// Helpers shared by the tests: bounded waiting for a condition, and child processes (this
// executable again, or another program) with chosen creation flags and standard handles.
#pragma once

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <windows.h>

#include "base/owned_handle.h"

// Collects everything written to a pipe's read end until the writers are gone, on a thread of
// its own so that a chatty child never blocks on a full pipe. Join the thread before reading.
inline std::thread pipe_drain(HANDLE read_end, std::string* out) {
    return std::thread([read_end, out] {
        char buffer[4096];
        DWORD got;
        while (ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got)
            out->append(buffer, got);
    });
}

// Waits until `condition()` holds or `timeout_ms` has passed; returns the last value. For
// observing another thread's progress, never for ordering it.
template <class Condition> bool wait_until(Condition condition, int timeout_ms = 10000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        std::this_thread::yield();
    }
    return true;
}

inline std::wstring test_program_path() {
    wchar_t path[MAX_PATH];
    return std::wstring(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
}

inline std::wstring test_program_directory() {
    std::wstring path = test_program_path();
    return path.substr(0, path.find_last_of(L'\\'));
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

// `handles` (input, output, error) must be inheritable; null: no standard handles at all.
inline StartedChild start_process(std::wstring command, DWORD flags,
                                  const HANDLE* handles = nullptr) {
    StartedChild child;
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

struct ChildResult {
    bool started = false;
    DWORD exit_code = 0;
    std::string output; // standard output
};

// Runs this executable again with the tests matching `filter` and ZUN_TEST_CHILD=`role` in its
// environment (see child_role). A child still running after `timeout_ms` is terminated.
inline ChildResult run_child(const char* filter, const char* role, DWORD timeout_ms = 60000) {
    ChildResult result;
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read_end, write_end;
    if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) return result;
    SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    HANDLE handles[3] = {GetStdHandle(STD_INPUT_HANDLE), write_end, GetStdHandle(STD_ERROR_HANDLE)};
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", std::wstring(role, role + strlen(role)).c_str());
    StartedChild child = start_process(L"\"" + test_program_path() + L"\" --gtest_filter=" +
                                           std::wstring(filter, filter + strlen(filter)),
                                       0, handles);
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", nullptr);
    CloseHandle(write_end);
    std::thread reader = pipe_drain(read_end, &result.output);
    result.started = child.process.valid();
    result.exit_code = result.started ? child.wait(timeout_ms) : 0;
    reader.join();
    CloseHandle(read_end);
    return result;
}

// The role run_child gave this process, or "" in the parent.
inline std::string child_role() {
    const char* role = std::getenv("ZUN_TEST_CHILD");
    return role ? role : "";
}
