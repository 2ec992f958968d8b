// Helpers shared by the runtime tests: bounded waiting for a condition, and running tests of this
// executable in a child process.
#pragma once

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <windows.h>

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

struct ChildResult {
    bool started = false;
    DWORD exit_code = 0;
    std::string output; // standard output
};

// Runs this executable again with the tests matching `filter` and ZUN_TEST_CHILD=`role` in its
// environment (see child_role). A child still running after `timeout_ms` is terminated.
inline ChildResult run_child(const char* filter, const char* role, DWORD timeout_ms = 60000) {
    ChildResult result;
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(path) + L"\" --gtest_filter=";
    command.append(filter, filter + strlen(filter));

    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read_end, write_end;
    if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) return result;
    SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = write_end;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process = {};
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", std::wstring(role, role + strlen(role)).c_str());
    result.started = CreateProcessW(path, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                    nullptr, &startup, &process);
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", nullptr);
    CloseHandle(write_end);
    if (result.started) {
        // Drain the output meanwhile, so that a chatty child never blocks on a full pipe.
        std::thread reader([&] {
            char buffer[4096];
            DWORD got;
            while (ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got)
                result.output.append(buffer, got);
        });
        if (WaitForSingleObject(process.hProcess, timeout_ms) != WAIT_OBJECT_0)
            TerminateProcess(process.hProcess, 0xDEAD);
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &result.exit_code);
        reader.join();
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(read_end);
    return result;
}

// The role run_child gave this process, or "" in the parent.
inline std::string child_role() {
    const char* role = std::getenv("ZUN_TEST_CHILD");
    return role ? role : "";
}
