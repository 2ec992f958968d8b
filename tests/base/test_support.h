// Helpers shared by the runtime tests: bounded waiting for a condition, and running one test of
// this executable in a child process.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

// Runs this test executable again with only the tests matching `filter`, and with the
// environment variable ZUN_TEST_CHILD set to `role` so that those tests know they are in the
// child. Waits at most `timeout_ms`; a child still running then is terminated.
inline ChildResult run_child(const char* filter, const char* role, DWORD timeout_ms = 60000) {
    ChildResult result;
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(path) + L"\" --gtest_filter=";
    for (const char* c = filter; *c; ++c) command += static_cast<wchar_t>(*c);
    std::vector<wchar_t> command_line(command.begin(), command.end());
    command_line.push_back(0);

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

    std::wstring role_text(role, role + strlen(role));
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", role_text.c_str());
    BOOL created = CreateProcessW(path, command_line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                  nullptr, &startup, &process);
    SetEnvironmentVariableW(L"ZUN_TEST_CHILD", nullptr);
    CloseHandle(write_end);
    if (!created) {
        CloseHandle(read_end);
        return result;
    }
    result.started = true;

    // Drain the output on a thread so that a chatty child never blocks on a full pipe.
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
    CloseHandle(read_end);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return result;
}

// The role this process was started with by run_child, or "" in the parent.
inline std::string child_role() {
    const char* role = std::getenv("ZUN_TEST_CHILD");
    return role ? role : "";
}
