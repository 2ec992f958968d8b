// Real child processes: launching with redirected handles, what the child inherits, program
// search, environment and directory, waits, the shell; command lines against the platform's own
// splitting; process signal pins, standard handle repair and the shutdown signal through
// children with and without a console; the trace hook with and without the trace library.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>
#include <shellapi.h>

#include "base/command_line.h"
#include "base/process.h"
#include "base/process_signals.h"
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

using Vector = std::vector<std::wstring>;

Vector split(const std::wstring& line) {
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(line.c_str(), &count);
    Vector result(arguments, arguments + count);
    LocalFree(arguments);
    return result;
}

// A new folder of its own in the temporary folder.
std::wstring temp_folder(const wchar_t* name) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring folder = temp + (name + std::to_wstring(GetCurrentProcessId()));
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

} // namespace

TEST(ProcessLaunch, ChildReadsAndWritesItsRedirectedHandlesAndReturnsItsExitCode) {
    ChildPipe input(false), output(true), error(true);
    ProcessLaunch child;
    child.std_input = input.child_end;
    child.std_output = output.child_end;
    child.std_error = error.child_end;
    ASSERT_EQ(0u, launch(&child, {L"echo", L"42"}));
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

TEST(ProcessLaunch, Failures) {
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
}

TEST(ProcessLaunch, ProgramsAreFoundAndGetTheirArgumentsEnvironmentAndDirectory) {
    std::wstring directory = temp_folder(L"zun_find_");
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
    // hands the arguments, environment and directory over as they are.
    std::wstring saved_path(32767, L'\0');
    saved_path.resize(GetEnvironmentVariableW(L"PATH", saved_path.data(), 32767));
    SetEnvironmentVariableW(L"PATH",
                            (L";;C:\\zun_nowhere;" + directory + L";" + saved_path).c_str());
    ChildPipe output(true);
    ProcessLaunch child;
    child.std_output = output.child_end;
    const wchar_t* environment[] = {L"ZUN_CHILD_VALUE=from the parent", L"OTHER=1"};
    child.environment = environment;
    child.environment_count = 2;
    child.directory = L"C:\\";
    child.no_window = true;
    EXPECT_EQ(0u,
              launch(&child, {L"context", L"two words", L"", L"quote\"inside", L"tail\\"}, name));
    SetEnvironmentVariableW(L"PATH", saved_path.c_str());
    EXPECT_EQ("C:\\\nfrom the parent\ntwo words\n\nquote\"inside\ntail\\\n",
              read_all(output.parent_end.get()));
    EXPECT_EQ(1, process_wait(&child, nullptr, 20000));
    DeleteFileW(copy.c_str());
    RemoveDirectoryW(directory.c_str());
}

TEST(ProcessLaunch, HandleWaitAndShellOpen) {
    OwnedHandle event(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    Pin never{};
    EXPECT_EQ(1, handle_wait(event.get(), &never, 0));
    ResetEvent(event.get());
    EXPECT_EQ(0, handle_wait(event.get(), &never, 0));
    const wchar_t* nothing[] = {nullptr};
    EXPECT_EQ(87u, shell_open(nothing));
}

TEST(CommandLine, IsTheInverseOfCommandLineToArgvW) {
    // Generated vectors from a small alphabet that holds everything the splitting treats
    // specially (blanks, tabs, quotes, backslashes, empty arguments); the program (split
    // without escapes) holds no quote.
    TextArena arena;
    std::mt19937 random(20240601);
    auto text = [&](const std::wstring& alphabet, size_t max_length) {
        std::wstring s(std::uniform_int_distribution<size_t>(0, max_length)(random), L' ');
        for (wchar_t& c : s)
            c = alphabet[std::uniform_int_distribution<size_t>(0, alphabet.size() - 1)(random)];
        return s;
    };
    int failures = 0;
    for (int round = 0; round < 5000 && failures < 5; ++round) {
        Vector vector{text(L"pq \t\\:", 6)};
        for (size_t n = std::uniform_int_distribution<size_t>(0, 6)(random); n; --n)
            vector.push_back(text(L"ab \t\\\"\x00e9", 7));
        std::vector<const wchar_t*> pointers;
        for (const std::wstring& s : vector) pointers.push_back(s.c_str());
        pointers.push_back(nullptr);
        CommandLine line = command_line_build(arena, pointers.data());
        // The rest of the line after the second-argument position is the other arguments.
        Vector tail = split(L"\"x\" " + std::wstring(line.text + line.second_argument));
        tail.erase(tail.begin());
        if (split(line.text) != vector || tail != Vector(vector.begin() + 1, vector.end())) {
            ++failures;
            ADD_FAILURE() << "line " << testing::PrintToString(std::wstring(line.text));
        }
    }
}

TEST(ProcessSignalPins, FixedPinsIgnoreSignalAndReset) {
    Signalable *clear = process_signal_pin(0), *set = process_signal_pin(5);
    EXPECT_EQ(set, process_signal_pin(9)); // larger indexes mean 5
    signalable_signal(clear);
    signalable_reset(set);
    EXPECT_EQ(0, pin_wait(clear, nullptr, 20));
    EXPECT_EQ(0, pin_wait(clear, set, 10000)); // the fixed-set pin as a cancel source at once
    // Pins 1 to 4 are ordinary.
    signalable_signal(process_signal_pin(4));
    EXPECT_EQ(1, pin_wait(process_signal_pin(4), clear, 10000));
    signalable_reset(process_signal_pin(4));
}

TEST(ConsoleSignals, ChildrenWithAndWithoutAConsole) {
    // "handles": started without any standard handles, the repair gives it the null device.
    // "ctrl-c": Ctrl+C in its own console signals the shutdown pin. "console-read": console line
    // reads broken off by a time-out and by a cancel source (see the child's bits).
    const std::pair<const wchar_t*, DWORD> children[] = {{L"handles", DETACHED_PROCESS},
                                                         {L"ctrl-c", CREATE_NEW_CONSOLE},
                                                         {L"console-read", CREATE_NEW_CONSOLE}};
    for (auto [mode, flags] : children) {
        StartedChild child = start_child(mode, flags);
        ASSERT_TRUE(child.process.valid());
        EXPECT_EQ(0u, child.wait()) << testing::PrintToString(std::wstring(mode));
    }
}

TEST(ConsoleSignals, ClosingOrEndingTheSessionOfTheHiddenWindowSignalsTheShutdownPin) {
    for (auto [message, wparam] : {std::pair<UINT, WPARAM>{WM_CLOSE, 0}, {WM_ENDSESSION, TRUE}}) {
        // A child without a console; its window exists once it has written its "ready" line.
        ChildPipe output(true);
        HANDLE handles[3] = {nullptr, output.child_end, output.child_end};
        StartedChild child = start_child(L"window", DETACHED_PROCESS, handles);
        CloseHandle(output.child_end);
        ASSERT_TRUE(child.process.valid());
        char line[16] = {};
        size_t count = 0;
        EXPECT_EQ(0u, io_read_ex(output.parent_end.get(), nullptr, nullptr, 15000, line,
                                 sizeof line, &count));
        EXPECT_EQ("ready\n", std::string(line, count));

        HWND window = nullptr;
        for (DWORD owner = 0; owner != child.id;) {
            window = FindWindowExW(nullptr, window, L"SignalWindow", nullptr);
            if (!window) break;
            GetWindowThreadProcessId(window, &owner);
        }
        ASSERT_NE(nullptr, window);
        PostMessageW(window, message, wparam, 0);
        EXPECT_EQ(0u, child.wait()) << message;
    }
}

TEST(TraceHook, LinesReachTheTraceLibraryWhenItIsPresentAndAreNoOpsWithout) {
    EXPECT_EQ(3u, start_child(L"trace", 0).wait());
    std::wstring directory = temp_folder(L"zun_trace_");
    std::wstring program = directory + L"\\io_child.exe", library = directory + L"\\traceapp.dll",
                 output = directory + L"\\trace.txt";
    ASSERT_TRUE(CopyFileW(io_child_path().c_str(), program.c_str(), FALSE));
    ASSERT_TRUE(CopyFileW((test_program_directory() + L"\\tracetest\\traceapp.dll").c_str(),
                          library.c_str(), FALSE));
    DeleteFileW(output.c_str());
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", output.c_str());
    EXPECT_EQ(0u, start_process(L"\"" + program + L"\" trace", 0).wait());
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);

    OwnedHandle file(CreateFileW(output.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                 OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ("io_child: hello 42 world\nsecond: direct\nsecond: " + std::string(2000, 'x') +
                  "\nreleased second\nreleased io_child\nclosed\n",
              read_all(file.get()));
    file.reset();
    for (const std::wstring& path : {output, program, library}) DeleteFileW(path.c_str());
    RemoveDirectoryW(directory.c_str());
}
