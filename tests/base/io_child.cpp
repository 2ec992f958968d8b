// A child program for the process and console tests. The first argument picks what it does;
// the exit code reports the outcome.
#include <string>

#include <windows.h>

#include "base/console.h"
#include "base/io.h"
#include "base/process_signals.h"
#include "base/thread.h"
#include "base/trace_hook.h"
#include "base/utf.h"
#include "late_signal.h"

namespace {

void write_out(DWORD which, const std::string& text) {
    size_t count;
    io_write(GetStdHandle(which), text.data(), text.size(), &count);
}

std::string read_all_input() {
    std::string data;
    char buffer[4096];
    size_t count;
    while (io_read(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &count) == 0 && count)
        data.append(buffer, count);
    return data;
}

// Writes its current directory, the value of ZUN_CHILD_VALUE and each argument after the mode,
// a line each.
int context(int argc, wchar_t** argv) {
    wchar_t directory[MAX_PATH] = {}, value[256] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    GetEnvironmentVariableW(L"ZUN_CHILD_VALUE", value, 256);
    std::wstring text = directory + std::wstring(L"\n") + value + L"\n";
    for (int i = 2; i < argc; ++i) text += argv[i] + std::wstring(L"\n");
    static char utf8[8192];
    write_out(STD_OUTPUT_HANDLE, std::string(utf8, text_to_utf8(utf8, sizeof utf8, text.c_str())));
    return 0;
}

// Started with no standard handles at all: after the repair all three must work.
int handles() {
    std_handles_repair();
    char buffer[4];
    size_t count = 1;
    if (io_read(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &count) || count) return 1;
    for (DWORD which : {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE})
        if (io_write(GetStdHandle(which), "x", 1, &count) || count != 1) return 2;
    return 0;
}

// Waits for the shutdown pin after raising Ctrl+C in its own console or, without a console,
// after announcing itself so that the parent can close its signal window.
int await_shutdown(bool control_c) {
    console_signals_init();
    if (!control_c)
        write_out(STD_OUTPUT_HANDLE, "ready\n");
    else if (!GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0))
        return 2;
    int result = pin_wait(shutdown_pin(), nullptr, 10000) ? 0 : 1;
    process_exit_work();
    return result;
}

// Console line reads in a console of its own, broken off by an Enter injected into its input.
// The exit code has a bit for each check that failed; 64 when there is no console to read.
int console_read() {
    HANDLE input =
        CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (input == INVALID_HANDLE_VALUE) return 64;
    uint8_t kind = 0;
    char buffer[64];
    size_t count = 0;
    auto read = [&](size_t length, Signalable* cancel, uint32_t timeout_ms) {
        uint32_t error = io_read_ex(input, &kind, cancel, timeout_ms, buffer, length, &count);
        return error ? "error " + std::to_string(error) + "/" + std::to_string(count)
                     : std::string(buffer, count);
    };
    int failed = 0;
    // Nobody types: the time-out breaks the read off with an Enter.
    uint64_t start = tick_now();
    failed |= read(64, nullptr, 100) != "error 121/0" || tick_now() - start < 95;
    failed |= ((kind & io_class_mask) != io_class_console) << 1;
    // A cancel source signalled during the read, and one signalled before it.
    LateSignal cancel(50);
    failed |= (read(64, &cancel.pin, io_no_timeout) != "error 995/0") << 2;
    failed |= (read(64, &cancel.pin, io_no_timeout) != "error 995/0") << 3;
    CloseHandle(input);
    return failed;
}

// Traces through the hook; exit code 0 with the library present, 3 without (every call then
// does nothing and must not fail).
int trace() {
    TraceChannel channel = trace_channel_open(L"io_child");
    trace_channel_set_default(channel);
    trace_channel_release(channel); // the default keeps its own reference
    trace_print(trace_default_channel, L"hello %i %ls\n", 42, L"world");
    TraceChannel second = trace_channel_open(L"second");
    trace_print(second, L"%hs\n", "direct");
    trace_print(second, L"%ls\n", std::wstring(2000, L'x').c_str()); // past the stack buffer
    trace_channel_release(second);
    trace_print(nullptr, L"nowhere\n");
    int result = trace_enabled() ? 0 : 3;
    process_exit_work();
    trace_print(trace_default_channel, L"after the exit work\n");
    return result;
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"echo") { // standard input to standard output and error, tagged
        std::string data = read_all_input();
        write_out(STD_OUTPUT_HANDLE, "out:" + data);
        write_out(STD_ERROR_HANDLE, "err:" + data);
        return argc > 2 ? _wtoi(argv[2]) : 0;
    }
    if (mode == L"wait") return read_all_input().empty() ? 0 : 1;
    if (mode == L"context") return context(argc, argv);
    if (mode == L"handles") return handles();
    if (mode == L"ctrl-c" || mode == L"window") return await_shutdown(mode == L"ctrl-c");
    if (mode == L"console-read") return console_read();
    if (mode == L"trace") return trace();
    return 101;
}
