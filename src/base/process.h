// Starting child processes with chosen standard handles, optionally under another user's
// logon, and waiting for them with a time-out and a cancel source.
#pragma once

#include <cstddef>
#include <cstdint>

#include <windows.h>

#include "base/sync.h"

// Filled by the caller, then passed to process_launch. The record owns the process handle and,
// until the launch, the three child handles.
struct ProcessLaunch {
    // Failures of the caller's preparations (any count makes the launch fail with 14) and the
    // launch's error code (also its result; a non-zero code set beforehand stops the launch).
    uint32_t error_count = 0;
    uint32_t error = 0;
    bool no_window = false; // CREATE_NO_WINDOW

    // Results of the launch.
    uint32_t process_id = 0;
    HANDLE process = nullptr;

    // The child's standard handles: inheritable handles, or null for the null device. The
    // launch closes them, whatever its outcome.
    HANDLE std_input = nullptr;
    HANDLE std_output = nullptr;
    HANDLE std_error = nullptr;

    // "NAME=value" strings; none means the parent's environment.
    size_t environment_count = 0;
    const wchar_t* const* environment = nullptr;

    // With a user, the child runs under that logon (CreateProcessWithLogonW).
    const wchar_t* user = nullptr;
    const wchar_t* domain = nullptr;
    const wchar_t* password = nullptr;

    const wchar_t* directory = nullptr; // none: the parent's

    uint32_t exit_code = 0; // stored by process_wait

    ProcessLaunch() = default;
    ~ProcessLaunch();
    ProcessLaunch(const ProcessLaunch&) = delete;
    ProcessLaunch& operator=(const ProcessLaunch&) = delete;
};

// Starts `arguments[0]` (found beside the running program, in the current directory or on
// PATH) with the null-terminated argument vector. The parent's own standard handles are made
// not inheritable first, so that only the record's handles reach the child. Returns the error
// code, which is also stored: 87 for a program that is not found or an empty vector, 14 when
// preparations failed, else the CreateProcess error.
uint32_t process_launch(ProcessLaunch* launch, const wchar_t* const* arguments);

// 1 when the process has ended (its exit code stored), or at once when none was started; 0 on
// time-out or cancel. A time-out of 0x7FFFFFFF ms or more means none.
int process_wait(ProcessLaunch* launch, Signalable* cancel, uint32_t timeout_ms);

uint32_t process_terminate(HANDLE process);

// 1 when `handle` is signalled; 0 on time-out, cancel, or a handle that cannot be waited for.
int handle_wait(HANDLE handle, Signalable* cancel, uint32_t timeout_ms);

// Opens `arguments[0]` with the shell's "open" verb; the other arguments form the parameters.
// 87 for an empty vector, 14 when memory is short, else the shell's error.
uint32_t shell_open(const wchar_t* const* arguments);
