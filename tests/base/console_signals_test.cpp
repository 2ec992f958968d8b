// Process signal pins, standard handle repair and the shutdown signal, driven through real
// child processes: ones with a console of their own, ones without a console at all.
#include <gtest/gtest.h>

#include <string>

#include "base/process_signals.h"
#include "child_process.h"

TEST(ProcessSignalPins, FixedPinsIgnoreSignalAndReset) {
    Signalable *clear = process_signal_pin(0), *set = process_signal_pin(5);
    EXPECT_EQ(set, process_signal_pin(9)); // larger indexes mean 5
    signalable_signal(clear);
    signalable_reset(set);
    EXPECT_EQ(0, pin_wait(clear, nullptr, 20));
    EXPECT_EQ(0, pin_wait(clear, set, 10000)); // the fixed-set pin as a cancel source at once
    // Pins 1 to 4 are ordinary and distinct.
    Signalable* spare = process_signal_pin(4);
    EXPECT_NE(spare, process_signal_pin(3));
    signalable_signal(spare);
    EXPECT_EQ(1, pin_wait(spare, clear, 10000));
    signalable_reset(spare);
    EXPECT_EQ(0, signalable_is_signalled(spare));
}

TEST(ConsoleSignals, ChildrenWithAndWithoutAConsole) {
    // "handles": started without any standard handles, the repair gives it the null device.
    // "ctrl-c": Ctrl+C in its own console signals the shutdown pin. "console-read": line reads
    // with typed lines, short buffers, a time-out and a cancel source (see the child's bits).
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

        std::pair<DWORD, HWND> search{child.id, nullptr};
        EnumWindows(
            [](HWND window, LPARAM parameter) -> BOOL {
                auto* search = reinterpret_cast<std::pair<DWORD, HWND>*>(parameter);
                wchar_t name[64];
                DWORD process_id = 0;
                GetWindowThreadProcessId(window, &process_id);
                if (process_id != search->first || !GetClassNameW(window, name, 64) ||
                    std::wstring(name) != L"SignalWindow")
                    return TRUE;
                search->second = window;
                return FALSE;
            },
            reinterpret_cast<LPARAM>(&search));
        ASSERT_NE(nullptr, search.second);
        PostMessageW(search.second, message, wparam, 0);
        EXPECT_EQ(0u, child.wait()) << message;
    }
}
