// Launching real child processes: redirected handles, exit codes, what the child inherits,
// program search, environment and directory, waiting with time-outs and cancel, and the shell.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "base/io.h"
#include "base/owned_handle.h"
#include "base/pipe.h"
#include "base/process.h"
#include "base/program_find.h"
#include "base/text_arena.h"
#include "base/tick.h"
#include "child_process.h"
#include "late_signal.h"

namespace {

// A private pipe whose child end is inheritable; the parent keeps the other end.
struct ChildPipe {
    OwnedHandle parent_end;
    HANDLE child_end = nullptr; // handed to the launch record, which closes it

    // `child_writes`: the child gets the write end.
    explicit ChildPipe(bool child_writes) {
        HANDLE server, client;
        EXPECT_EQ(0u, pipe_create(false, false, &server, &client));
        parent_end.reset(child_writes ? server : client);
        child_end = child_writes ? client : server;
        SetHandleInformation(child_end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
};

std::string read_all(HANDLE handle) {
    std::string data;
    char buffer[4096];
    size_t count;
    while (io_read_ex(handle, nullptr, nullptr, 20000, buffer, sizeof buffer, &count) == 0 && count)
        data.append(buffer, count);
    return data;
}

} // namespace

TEST(ProcessLaunch, ChildReadsAndWritesItsRedirectedHandlesAndReturnsItsExitCode) {
    ChildPipe input(false), output(true), error(true);
    ProcessLaunch launch;
    launch.std_input = input.child_end;
    launch.std_output = output.child_end;
    launch.std_error = error.child_end;
    const std::wstring program = io_child_path();
    const wchar_t* arguments[] = {program.c_str(), L"echo", L"42", nullptr};
    ASSERT_EQ(0u, process_launch(&launch, arguments));
    EXPECT_NE(0u, launch.process_id);
    // The record's child handles are closed and forgotten.
    EXPECT_EQ(nullptr, launch.std_input);
    EXPECT_EQ(nullptr, launch.std_output);

    // Reading stdout and stderr on threads of their own: the pipes have no buffer.
    std::string out, err;
    std::thread out_reader([&] { out = read_all(output.parent_end.get()); });
    std::thread err_reader([&] { err = read_all(error.parent_end.get()); });
    size_t count;
    EXPECT_EQ(0u, io_write(input.parent_end.get(), "ping", 4, &count));
    input.parent_end.reset();
    out_reader.join();
    err_reader.join();
    EXPECT_EQ("out:ping", out);
    EXPECT_EQ("err:ping", err);
    ASSERT_EQ(1, process_wait(&launch, nullptr, 20000));
    EXPECT_EQ(42u, launch.exit_code);
}

TEST(ProcessLaunch, ParentsOwnStandardHandlesDoNotReachTheChild) {
    // Make this process's standard output an inheritable pipe end for the duration.
    ChildPipe leak_probe(true); // its child end: inheritable write end
    HANDLE saved = GetStdHandle(STD_OUTPUT_HANDLE);
    SetStdHandle(STD_OUTPUT_HANDLE, leak_probe.child_end);

    ChildPipe input(false);
    ProcessLaunch launch;
    launch.std_input = input.child_end;
    const std::wstring program = io_child_path();
    const wchar_t* arguments[] = {program.c_str(), L"wait", nullptr};
    uint32_t error = process_launch(&launch, arguments);
    SetStdHandle(STD_OUTPUT_HANDLE, saved);
    DWORD flags = 0;
    GetHandleInformation(leak_probe.child_end, &flags);
    EXPECT_EQ(0u, flags & HANDLE_FLAG_INHERIT);
    CloseHandle(leak_probe.child_end);
    ASSERT_EQ(0u, error);

    // The child is alive (waiting for its input). Had it inherited the write end, this read
    // would wait for the time-out; with no writer left it ends at once.
    char buffer[4];
    size_t count = 99;
    EXPECT_EQ(0u, io_read_ex(leak_probe.parent_end.get(), nullptr, nullptr, 3000, buffer,
                             sizeof buffer, &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0, process_wait(&launch, nullptr, 0)); // still running
    input.parent_end.reset();
    ASSERT_EQ(1, process_wait(&launch, nullptr, 20000));
    EXPECT_EQ(0u, launch.exit_code);
}

TEST(ProcessLaunch, UnknownProgramFailsWith87AndLeavesNoProcess) {
    ChildPipe input(false);
    ProcessLaunch launch;
    launch.std_input = input.child_end;
    const wchar_t* arguments[] = {L"zun_no_such_program_71.exe", L"x", nullptr};
    EXPECT_EQ(87u, process_launch(&launch, arguments));
    EXPECT_EQ(87u, launch.error);
    EXPECT_EQ(0u, launch.process_id);
    EXPECT_EQ(nullptr, launch.std_input); // closed all the same
    EXPECT_EQ(1, process_wait(&launch, nullptr, 20000));

    ProcessLaunch empty;
    const wchar_t* nothing[] = {nullptr};
    EXPECT_EQ(87u, process_launch(&empty, nothing));
    ProcessLaunch short_of_memory; // the caller's preparations failed
    short_of_memory.error_count = 1;
    const std::wstring program = io_child_path();
    const wchar_t* arguments2[] = {program.c_str(), L"echo", nullptr};
    EXPECT_EQ(14u, process_launch(&short_of_memory, arguments2));
}

TEST(ProcessLaunch, ProgramsAreFoundBesideTheProgramInTheCurrentDirectoryAndOnPath) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring directory =
        std::wstring(temp) + L"zun_find_" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(directory.c_str(), nullptr);
    std::wstring copy = directory + L"\\zun_found_child.exe";
    ASSERT_TRUE(CopyFileW(io_child_path().c_str(), copy.c_str(), FALSE));

    TextArena arena;
    const wchar_t* name = L"zun_found_child.exe";
    EXPECT_EQ(nullptr, program_find(arena, 5, test_program_directory().c_str(), name));
    EXPECT_EQ(copy, program_find(arena, 0, directory.c_str(), name)); // the base directory

    wchar_t saved_directory[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, saved_directory);
    SetCurrentDirectoryW(directory.c_str());
    const wchar_t* found = program_find(arena, 1, nullptr, name);
    EXPECT_TRUE(found && copy == found);
    EXPECT_EQ(nullptr, program_find(arena, 2, nullptr, name)); // only names with a "\"
    found = program_find(arena, 2, nullptr, L".\\zun_found_child.exe");
    EXPECT_TRUE(found && copy == found);
    SetCurrentDirectoryW(saved_directory);

    // PATH, with empty and missing entries on the way; the launcher searches the same way.
    DWORD size = GetEnvironmentVariableW(L"PATH", nullptr, 0);
    std::wstring saved_path(size, L'\0');
    saved_path.resize(GetEnvironmentVariableW(L"PATH", saved_path.data(), size));
    SetEnvironmentVariableW(L"PATH",
                            (L";;C:\\zun_nowhere;" + directory + L";" + saved_path).c_str());
    ChildPipe output(true);
    ProcessLaunch launch;
    launch.std_output = output.child_end;
    const wchar_t* arguments[] = {name, L"args", L"found", nullptr};
    EXPECT_EQ(0u, process_launch(&launch, arguments));
    SetEnvironmentVariableW(L"PATH", saved_path.c_str());
    EXPECT_EQ("found\n", read_all(output.parent_end.get()));
    EXPECT_EQ(1, process_wait(&launch, nullptr, 20000));

    DeleteFileW(copy.c_str());
    RemoveDirectoryW(directory.c_str());
}

TEST(ProcessLaunch, ArgumentsEnvironmentAndDirectoryArriveAsGiven) {
    const std::wstring program = io_child_path();
    {
        ChildPipe output(true);
        ProcessLaunch launch;
        launch.std_output = output.child_end;
        const wchar_t* arguments[] = {program.c_str(),  L"args",       L"two words", L"",
                                      L"quote\"inside", L"trailing\\", L"tab\there", nullptr};
        ASSERT_EQ(0u, process_launch(&launch, arguments));
        EXPECT_EQ("two words\n\nquote\"inside\ntrailing\\\ntab\there\n",
                  read_all(output.parent_end.get()));
        EXPECT_EQ(1, process_wait(&launch, nullptr, 20000));
    }
    ChildPipe output(true);
    ProcessLaunch launch;
    launch.std_output = output.child_end;
    const wchar_t* environment[] = {L"ZUN_CHILD_VALUE=from the parent", L"OTHER=1"};
    launch.environment = environment;
    launch.environment_count = 2;
    wchar_t windows[MAX_PATH];
    GetWindowsDirectoryW(windows, MAX_PATH);
    launch.directory = windows;
    launch.no_window = true;
    const wchar_t* arguments[] = {program.c_str(), L"context", nullptr};
    ASSERT_EQ(0u, process_launch(&launch, arguments));
    char expected_directory[MAX_PATH];
    GetWindowsDirectoryA(expected_directory, MAX_PATH);
    EXPECT_EQ(std::string(expected_directory) + "\nfrom the parent\n",
              read_all(output.parent_end.get()));
    EXPECT_EQ(1, process_wait(&launch, nullptr, 20000));
}

TEST(ProcessWait, TimeOutCancelAndTermination) {
    ChildPipe input(false);
    ProcessLaunch launch;
    launch.std_input = input.child_end;
    const std::wstring program = io_child_path();
    const wchar_t* arguments[] = {program.c_str(), L"wait", nullptr};
    ASSERT_EQ(0u, process_launch(&launch, arguments));

    uint64_t start = tick_now();
    EXPECT_EQ(0, process_wait(&launch, nullptr, 100));
    uint64_t elapsed = tick_now() - start;
    EXPECT_GE(elapsed, 95u);
    EXPECT_LT(elapsed, 1000u);

    LateSignal cancel(50);
    start = tick_now();
    EXPECT_EQ(0, process_wait(&launch, &cancel.pin, io_no_timeout));
    EXPECT_LT(tick_now() - start, 5000u);

    EXPECT_EQ(0u, process_terminate(launch.process));
    ASSERT_EQ(1, process_wait(&launch, nullptr, 20000));
    EXPECT_EQ(1u, launch.exit_code);

    OwnedHandle event(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    Pin never{};
    EXPECT_EQ(1, handle_wait(event.get(), &never, 0));
    ResetEvent(event.get());
    EXPECT_EQ(0, handle_wait(event.get(), &never, 0));
}

TEST(ShellOpen, OpensAProgramWithItsParameters) {
    std::wstring name = L"zun_shell_" + std::to_wstring(GetCurrentProcessId());
    // The child sets the event named after everything it was given.
    OwnedHandle event(CreateEventW(nullptr, TRUE, FALSE, (name + L"|two words|x").c_str()));
    const std::wstring program = io_child_path();
    const wchar_t* arguments[] = {program.c_str(), L"signal", name.c_str(),
                                  L"two words",    L"x",      nullptr};
    ASSERT_EQ(0u, shell_open(arguments));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event.get(), 20000));

    const wchar_t* nothing[] = {nullptr};
    EXPECT_EQ(87u, shell_open(nothing));
    const wchar_t* missing[] = {L"C:\\zun_no_such_document_71.txt", nullptr};
    EXPECT_NE(0u, shell_open(missing));
}
