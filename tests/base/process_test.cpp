// Launching real child processes: redirected handles, exit codes, what the child inherits,
// program search, environment and directory, waiting with time-outs and cancel, and the shell.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "base/process.h"
#include "base/program_find.h"
#include "base/text_arena.h"
#include "child_process.h"
#include "late_signal.h"

namespace {

// Launches `program` (the test child by default) with the arguments after it.
uint32_t launch(ProcessLaunch* launch, std::vector<const wchar_t*> arguments,
                std::wstring program = io_child_path()) {
    arguments.insert(arguments.begin(), program.c_str());
    arguments.push_back(nullptr);
    return process_launch(launch, arguments.data());
}

} // namespace

TEST(ProcessLaunch, ChildReadsAndWritesItsRedirectedHandlesAndReturnsItsExitCode) {
    ChildPipe input(false), output(true), error(true);
    ProcessLaunch child;
    child.std_input = input.child_end;
    child.std_output = output.child_end;
    child.std_error = error.child_end;
    ASSERT_EQ(0u, launch(&child, {L"echo", L"42"}));
    EXPECT_NE(0u, child.process_id);
    EXPECT_EQ(nullptr, child.std_input); // the record's child handles are closed and forgotten
    // Reading stderr on a thread of its own: the pipes have no buffer.
    std::string err;
    std::thread err_reader([&] { err = read_all(error.parent_end.get()); });
    size_t count;
    EXPECT_EQ(0u, io_write(input.parent_end.get(), "ping", 4, &count));
    input.parent_end.reset();
    EXPECT_EQ("out:ping", read_all(output.parent_end.get()));
    err_reader.join();
    EXPECT_EQ("err:ping", err);
    ASSERT_EQ(1, process_wait(&child, nullptr, 20000));
    EXPECT_EQ(42u, child.exit_code);
}

TEST(ProcessLaunch, ParentsOwnStandardHandlesDoNotReachTheChild) {
    // Make this process's standard output an inheritable pipe end for the duration.
    ChildPipe leak_probe(true), input(false);
    HANDLE saved = GetStdHandle(STD_OUTPUT_HANDLE);
    SetStdHandle(STD_OUTPUT_HANDLE, leak_probe.child_end);
    ProcessLaunch child;
    child.std_input = input.child_end;
    uint32_t error = launch(&child, {L"wait"});
    SetStdHandle(STD_OUTPUT_HANDLE, saved);
    CloseHandle(leak_probe.child_end);
    ASSERT_EQ(0u, error);
    // The child is alive (waiting for its input). Had it inherited the write end, this read
    // would wait for the time-out; with no writer left it ends at once.
    char buffer[4];
    size_t count = 99;
    EXPECT_EQ(0u,
              io_read_ex(leak_probe.parent_end.get(), nullptr, nullptr, 3000, buffer, 4, &count));
    EXPECT_EQ(0u, count);

    // Waits for the running child: a time-out, a cancel source, then its termination.
    uint64_t start = tick_now();
    EXPECT_EQ(0, process_wait(&child, nullptr, 100));
    EXPECT_GE(tick_now() - start, 95u);
    LateSignal cancel(50);
    EXPECT_EQ(0, process_wait(&child, &cancel.pin, io_no_timeout));
    EXPECT_EQ(0u, process_terminate(child.process));
    ASSERT_EQ(1, process_wait(&child, nullptr, 20000));
    EXPECT_EQ(1u, child.exit_code);
}

TEST(ProcessLaunch, FailuresEnvironmentAndDirectory) {
    ChildPipe input(false);
    ProcessLaunch missing;
    missing.std_input = input.child_end;
    EXPECT_EQ(87u, launch(&missing, {L"x"}, L"zun_no_such_program_71.exe"));
    EXPECT_EQ(nullptr, missing.std_input);                // closed all the same
    EXPECT_EQ(1, process_wait(&missing, nullptr, 20000)); // none started: at once
    ProcessLaunch empty, short_of_memory;
    const wchar_t* nothing[] = {nullptr};
    EXPECT_EQ(87u, process_launch(&empty, nothing));
    short_of_memory.error_count = 1; // the caller's preparations failed
    EXPECT_EQ(14u, launch(&short_of_memory, {L"context"}));

    ChildPipe output(true);
    ProcessLaunch child;
    child.std_output = output.child_end;
    const wchar_t* environment[] = {L"ZUN_CHILD_VALUE=from the parent", L"OTHER=1"};
    child.environment = environment;
    child.environment_count = 2;
    wchar_t windows[MAX_PATH];
    GetWindowsDirectoryW(windows, MAX_PATH);
    child.directory = windows;
    child.no_window = true;
    ASSERT_EQ(0u, launch(&child, {L"context", L"x"}));
    char expected_directory[MAX_PATH];
    GetWindowsDirectoryA(expected_directory, MAX_PATH);
    EXPECT_EQ(std::string(expected_directory) + "\nfrom the parent\nx\n",
              read_all(output.parent_end.get()));
    EXPECT_EQ(1, process_wait(&child, nullptr, 20000));
}

TEST(ProcessLaunch, ProgramsAreFoundBesideTheProgramInTheCurrentDirectoryAndOnPath) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring directory = temp + (L"zun_find_" + std::to_wstring(GetCurrentProcessId()));
    CreateDirectoryW(directory.c_str(), nullptr);
    std::wstring copy = directory + L"\\zun_found_child.exe";
    ASSERT_TRUE(CopyFileW(io_child_path().c_str(), copy.c_str(), FALSE));
    TextArena arena;
    const wchar_t* name = L"zun_found_child.exe";
    auto find = [&](uint32_t flags, const wchar_t* base, const wchar_t* name) {
        const wchar_t* found = program_find(arena, flags, base, name);
        return std::wstring(found ? found : L"<none>");
    };
    EXPECT_EQ(L"<none>", find(5, test_program_directory().c_str(), name));
    EXPECT_EQ(copy, find(0, directory.c_str(), name)); // the base directory
    wchar_t saved_directory[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, saved_directory);
    SetCurrentDirectoryW(directory.c_str());
    EXPECT_EQ(copy, find(1, nullptr, name));
    EXPECT_EQ(L"<none>", find(2, nullptr, name)); // only names with a "\"
    EXPECT_EQ(copy, find(2, nullptr, L".\\zun_found_child.exe"));
    SetCurrentDirectoryW(saved_directory);

    // PATH, with empty and missing entries on the way; the launcher searches the same way and
    // hands the arguments over as they are.
    std::wstring saved_path(32767, L'\0');
    saved_path.resize(GetEnvironmentVariableW(L"PATH", saved_path.data(), 32767));
    SetEnvironmentVariableW(L"PATH",
                            (L";;C:\\zun_nowhere;" + directory + L";" + saved_path).c_str());
    ChildPipe output(true);
    ProcessLaunch child;
    child.std_output = output.child_end;
    EXPECT_EQ(0u, launch(&child, {L"args", L"two words", L"", L"quote\"inside", L"tail\\"}, name));
    SetEnvironmentVariableW(L"PATH", saved_path.c_str());
    EXPECT_EQ("two words\n\nquote\"inside\ntail\\\n", read_all(output.parent_end.get()));
    EXPECT_EQ(1, process_wait(&child, nullptr, 20000));
    DeleteFileW(copy.c_str());
    RemoveDirectoryW(directory.c_str());
}

TEST(ProcessLaunch, ShellOpenAndHandleWait) {
    // The child sets the event named after everything it was given.
    std::wstring id = std::to_wstring(GetCurrentProcessId());
    OwnedHandle event(
        CreateEventW(nullptr, TRUE, FALSE, (L"zun_args|" + id + L"|two words").c_str()));
    const std::wstring program = io_child_path();
    const wchar_t* arguments[] = {program.c_str(), L"args", id.c_str(), L"two words", nullptr};
    ASSERT_EQ(0u, shell_open(arguments));
    Pin never{};
    EXPECT_EQ(1, handle_wait(event.get(), &never, 20000));
    ResetEvent(event.get());
    EXPECT_EQ(0, handle_wait(event.get(), &never, 0));
    const wchar_t* nothing[] = {nullptr};
    EXPECT_EQ(87u, shell_open(nothing));
}
