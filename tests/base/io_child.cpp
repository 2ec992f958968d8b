// A child program for the process and console tests. The first argument picks what it does;
// the exit code reports the outcome.

#include <cstring>
#include <string>

#include <windows.h>

#include "base/alarm.h"
#include "base/console.h"
#include "base/io.h"
#include "base/process_signals.h"
#include "base/thread.h"
#include "base/tick.h"
#include "base/trace_hook.h"

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

std::string narrow(const wchar_t* text) {
    int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(length > 0 ? length - 1 : 0, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), length, nullptr, nullptr);
    return result;
}

// Copies standard input to standard output and error, tagged, and exits with the given code.
int echo(int code) {
    std::string data = read_all_input();
    write_out(STD_OUTPUT_HANDLE, "out:" + data);
    write_out(STD_ERROR_HANDLE, "err:" + data);
    return code;
}

// Writes each argument after the mode on a line of its own.
int arguments(int argc, wchar_t** argv) {
    std::string text;
    for (int i = 2; i < argc; ++i) text += narrow(argv[i]) + "\n";
    write_out(STD_OUTPUT_HANDLE, text);
    return 0;
}

// Writes its current directory and the value of ZUN_CHILD_VALUE, a line each.
int context() {
    wchar_t directory[MAX_PATH] = {}, value[256] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    GetEnvironmentVariableW(L"ZUN_CHILD_VALUE", value, 256);
    write_out(STD_OUTPUT_HANDLE, narrow(directory) + "\n" + narrow(value) + "\n");
    return 0;
}

// Sets the event named after its arguments ("name|arg|arg..."): the parent, waiting on the
// name it expects, learns that the child ran and what it was given.
int signal(int argc, wchar_t** argv) {
    std::wstring name = argv[2];
    for (int i = 3; i < argc; ++i) name += std::wstring(L"|") + argv[i];
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
    if (!event) return 1;
    SetEvent(event);
    CloseHandle(event);
    return 0;
}

// Started with no standard handles at all: after the repair all three must work.
int handles() {
    std_handles_repair();
    HANDLE in = GetStdHandle(STD_INPUT_HANDLE), out = GetStdHandle(STD_OUTPUT_HANDLE),
           err = GetStdHandle(STD_ERROR_HANDLE);
    if (!in || !out || !err || in == INVALID_HANDLE_VALUE) return 1;
    char buffer[4];
    size_t count = 1;
    if (io_read(in, buffer, sizeof buffer, &count) || count) return 2;
    if (io_write(out, "x", 1, &count) || count != 1) return 3;
    if (io_write(err, "x", 1, &count) || count != 1) return 4;
    return 0;
}

// Raises Ctrl+C in its own console and waits for the shutdown pin.
int control_c() {
    console_signals_init();
    if (!GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) return 2;
    int result = pin_wait(shutdown_pin(), nullptr, 10000) ? 0 : 1;
    process_exit_work();
    return result;
}

// Without a console: announces itself, then waits for the signal window to be closed.
int window() {
    console_signals_init();
    write_out(STD_OUTPUT_HANDLE, "ready\n");
    int result = pin_wait(shutdown_pin(), nullptr, 10000) ? 0 : 1;
    process_exit_work();
    return result;
}

// Types `text` into the console's input, as key records.
void type_into(HANDLE console, const wchar_t* text) {
    for (const wchar_t* c = text; *c; ++c) {
        INPUT_RECORD records[2] = {};
        for (int i = 0; i < 2; ++i) {
            records[i].EventType = KEY_EVENT;
            records[i].Event.KeyEvent.bKeyDown = i == 0;
            records[i].Event.KeyEvent.wRepeatCount = 1;
            records[i].Event.KeyEvent.wVirtualKeyCode =
                *c == L'\r' ? VK_RETURN : LOBYTE(VkKeyScanW(*c));
            records[i].Event.KeyEvent.uChar.UnicodeChar = *c;
        }
        DWORD written;
        WriteConsoleInputW(console, records, 2, &written);
    }
}

// Signals a pin from the alarm thread after a while.
struct LateSignal {
    Alarm alarm; // first
    Pin pin{};
    explicit LateSignal(uint32_t ms) { alarm_set(&alarm, fire, tick_now() + ms); }
    ~LateSignal() { alarm_cancel(&alarm); }
    static void fire(Alarm* alarm) {
        pin_signal(&reinterpret_cast<LateSignal*>(alarm)->pin);
        alarm->callback = nullptr;
    }
};

// Console line reads in a console of its own. The exit code has a bit for each check that
// failed; 64 when there is no console to read.
int console_read() {
    HANDLE input =
        CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (input == INVALID_HANDLE_VALUE) return 64;
    int failed = 0;
    uint8_t kind = 0;
    char buffer[64];
    size_t count = 0;

    // A line typed ahead comes back without its line end.
    type_into(input, L"abc\r");
    if (io_read_ex(input, &kind, nullptr, 5000, buffer, sizeof buffer, &count) ||
        std::string(buffer, count) != "abc")
        failed |= 1;
    if ((kind & io_class_mask) != io_class_console) failed |= 2;

    // A buffer that holds the CR but not the LF: the LF is dropped, the next line is whole.
    type_into(input, L"wxyz\rnext\r");
    if (io_read_ex(input, &kind, nullptr, 5000, buffer, 5, &count) ||
        std::string(buffer, count) != "wxyz")
        failed |= 4;
    if (io_read_ex(input, &kind, nullptr, 5000, buffer, sizeof buffer, &count) ||
        std::string(buffer, count) != "next")
        failed |= 8;

    // Nobody types: the time-out breaks the read off with an Enter.
    uint64_t start = tick_now();
    uint32_t error = io_read_ex(input, &kind, nullptr, 100, buffer, sizeof buffer, &count);
    uint64_t elapsed = tick_now() - start;
    if (error != 121 || count != 0 || elapsed < 95 || elapsed > 2000) failed |= 16;

    // A cancel source signalled during the read, and one signalled before it.
    {
        LateSignal cancel(50);
        if (io_read_ex(input, &kind, &cancel.pin, io_no_timeout, buffer, sizeof buffer, &count) !=
            995)
            failed |= 32;
        if (io_read_ex(input, &kind, &cancel.pin, io_no_timeout, buffer, sizeof buffer, &count) !=
            995)
            failed |= 32;
    }
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
    if (argc < 2) return 100;
    const wchar_t* mode = argv[1];
    if (!wcscmp(mode, L"echo")) return echo(argc > 2 ? _wtoi(argv[2]) : 0);
    if (!wcscmp(mode, L"args")) return arguments(argc, argv);
    if (!wcscmp(mode, L"wait")) return read_all_input().empty() ? 0 : 1;
    if (!wcscmp(mode, L"handles")) return handles();
    if (!wcscmp(mode, L"context")) return context();
    if (!wcscmp(mode, L"signal") && argc > 2) return signal(argc, argv);
    if (!wcscmp(mode, L"trace")) return trace();
    if (!wcscmp(mode, L"console-read")) return console_read();
    if (!wcscmp(mode, L"ctrl-c")) return control_c();
    if (!wcscmp(mode, L"window")) return window();
    return 101;
}
