// Process signal pins, standard handle repair and the shutdown signal, driven through real
// child processes: one with a console of its own for Ctrl+C, one without a console for the
// hidden signal window.

#include <gtest/gtest.h>

#include <string>

#include "base/io.h"
#include "base/pipe.h"
#include "base/process_signals.h"
#include "child_process.h"

TEST(ProcessSignalPins, FixedPinsIgnoreSignalAndReset) {
    Signalable* clear = process_signal_pin(0);
    Signalable* set = process_signal_pin(5);
    EXPECT_EQ(set, process_signal_pin(9)); // larger indexes mean 5
    signalable_signal(clear);
    signalable_reset(set);
    EXPECT_EQ(0, signalable_is_signalled(clear));
    EXPECT_EQ(1, signalable_is_signalled(set));
    EXPECT_EQ(0, pin_wait(clear, nullptr, 20));
    EXPECT_EQ(1, pin_wait(set, nullptr, 10000));
    // As a cancel source: the fixed-set pin stops a wait on the fixed-clear one at once.
    EXPECT_EQ(0, pin_wait(clear, set, 10000));

    // Pins 1 to 4 are ordinary and distinct.
    Signalable* spare = process_signal_pin(4);
    EXPECT_NE(spare, process_signal_pin(3));
    EXPECT_NE(spare, shutdown_pin());
    signalable_signal(spare);
    EXPECT_EQ(1, pin_wait(spare, nullptr, 10000));
    signalable_reset(spare);
    EXPECT_EQ(0, signalable_is_signalled(spare));
}

TEST(StdHandles, AChildStartedWithoutAnyGetsTheNullDevice) {
    StartedChild child = start_child(L"handles", DETACHED_PROCESS);
    ASSERT_TRUE(child.process.valid());
    EXPECT_EQ(0u, child.wait());
}

TEST(ConsoleSignals, ControlCInTheChildsOwnConsoleSignalsTheShutdownPin) {
    StartedChild child = start_child(L"ctrl-c", CREATE_NEW_CONSOLE);
    ASSERT_TRUE(child.process.valid());
    EXPECT_EQ(0u, child.wait());
}

namespace {

struct FindWindow {
    DWORD process_id;
    HWND found = nullptr;
};

BOOL CALLBACK find_signal_window(HWND window, LPARAM parameter) {
    auto* search = reinterpret_cast<FindWindow*>(parameter);
    wchar_t name[64];
    DWORD process_id = 0;
    GetWindowThreadProcessId(window, &process_id);
    if (process_id == search->process_id && GetClassNameW(window, name, 64) &&
        std::wstring(name) == L"SignalWindow") {
        search->found = window;
        return FALSE;
    }
    return TRUE;
}

// Starts a child without a console, waits for its "ready" line (its window exists by then),
// sends `message` to its signal window and returns its exit code.
DWORD close_signal_window(UINT message, WPARAM wparam) {
    HANDLE server, client;
    EXPECT_EQ(0u, pipe_create(false, false, &server, &client));
    OwnedHandle read_end(server), write_end(client);
    SetHandleInformation(write_end.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    HANDLE handles[3] = {nullptr, write_end.get(), write_end.get()};
    StartedChild child = start_child(L"window", DETACHED_PROCESS, handles);
    write_end.reset();
    if (!child.process.valid()) return 0xBAD;

    char line[16] = {};
    size_t count = 0;
    EXPECT_EQ(0u, io_read_ex(read_end.get(), nullptr, nullptr, 15000, line, sizeof line, &count));
    EXPECT_EQ("ready\n", std::string(line, count));

    FindWindow search{child.id};
    EnumWindows(find_signal_window, reinterpret_cast<LPARAM>(&search));
    EXPECT_NE(nullptr, search.found);
    if (search.found) PostMessageW(search.found, message, wparam, 0);
    return child.wait();
}

} // namespace

TEST(ConsoleSignals, ClosingTheHiddenSignalWindowSignalsTheShutdownPin) {
    EXPECT_EQ(0u, close_signal_window(WM_CLOSE, 0));
}

TEST(ConsoleSignals, EndOfSessionSignalsTheShutdownPinAndTheProcessStillEnds) {
    EXPECT_EQ(0u, close_signal_window(WM_ENDSESSION, TRUE));
}

TEST(ConsoleRead, LineReadsInAConsoleOfTheirOwn) {
    // Typed lines, line ends split by a short buffer, a time-out and a cancel source, all
    // broken off by an Enter typed into the console (see the child's bits).
    StartedChild child = start_child(L"console-read", CREATE_NEW_CONSOLE);
    ASSERT_TRUE(child.process.valid());
    EXPECT_EQ(0u, child.wait());
}
