// Console control events and the hidden signal window. Both only signal the shutdown pin; the
// work that watches the pin does the stopping.
//
// A process with a console learns of Ctrl+C, Ctrl+Break, the console's close button, logoff and
// shutdown through its control handler, called on a thread the system creates. A process
// without one (a windowed front-end, a detached child) learns of the end of the session only
// through a top-level window: the system sends WM_QUERYENDSESSION/WM_ENDSESSION to windows,
// not to processes. Hence the hidden window and its thread.

#include <atomic>

#include <windows.h>

#include "base/console.h"
#include "base/nt.h"
#include "base/process_signals.h"
#include "base/settle.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/tick.h"

extern "C" IMAGE_DOS_HEADER __ImageBase; // this module, whichever image it is linked into

namespace {

// Posted to the window to make it go away: by the shutdown pin's waiter and by the teardown.
constexpr UINT signal_window_quit = WM_USER + 100;
constexpr const wchar_t* signal_window_name = L"SignalWindow";

struct ConsoleState {
    bool initialised = false;  // under the global lock
    bool tearing_down = false; // under the global lock
    int handler_calls = 0;     // control-handler calls in progress, under the global lock
    std::atomic<HWND> window{nullptr};
    HANDLE thread = nullptr;
    std::atomic<bool> session_ended{false};
    Pin window_ready{};
    WaiterEntry shutdown_entry;
    ExitRoutine teardown;
};

ConsoleState g_console;

BOOL WINAPI control_handler(DWORD event) {
    global_lock();
    bool tearing_down = g_console.tearing_down;
    ++g_console.handler_calls;
    global_unlock();

    BOOL handled = TRUE;
    if (!tearing_down) {
        switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
        case CTRL_CLOSE_EVENT:
        case CTRL_LOGOFF_EVENT:
        case CTRL_SHUTDOWN_EVENT:
            signalable_signal(shutdown_pin());
            break;
        default:
            handled = FALSE;
            break;
        }
    }

    global_lock();
    --g_console.handler_calls;
    global_unlock();
    return handled;
}

LRESULT CALLBACK signal_window_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
    case WM_CREATE:
        g_console.window.store(window, std::memory_order_release);
        return 0;
    case WM_DESTROY:
        g_console.window.store(nullptr, std::memory_order_release);
        PostQuitMessage(0);
        return 0;
    case WM_CLOSE:
        signalable_signal(shutdown_pin());
        DestroyWindow(window);
        return 0;
    case WM_ENDSESSION:
        if (!wparam) break;
        // The session is ending and the system ends the process once this message returns.
        // Returning never lets the process finish its shutdown work (watching the shutdown
        // pin) while the system waits for the window.
        g_console.window.store(nullptr, std::memory_order_release);
        g_console.session_ended.store(true, std::memory_order_release);
        signalable_signal(shutdown_pin());
        for (;;) Sleep(INFINITE);
    case signal_window_quit:
        DestroyWindow(window);
        return 0;
    }
    return DefWindowProcW(window, message, wparam, lparam);
}

DWORD WINAPI signal_window_thread(void*) {
    HINSTANCE instance = reinterpret_cast<HINSTANCE>(&__ImageBase);
    WNDCLASSW window_class = {};
    window_class.lpfnWndProc = signal_window_procedure;
    window_class.hInstance = instance;
    window_class.lpszClassName = signal_window_name;
    RegisterClassW(&window_class);
    HWND window = CreateWindowExW(0, signal_window_name, signal_window_name,
                                  WS_CLIPSIBLINGS | WS_CAPTION | WS_SYSMENU, 100, 100, 200, 200,
                                  nullptr, nullptr, instance, nullptr);
    if (window) ShowWindow(window, SW_HIDE);
    pin_signal(&g_console.window_ready);
    MSG message;
    while (g_console.window.load(std::memory_order_acquire) &&
           GetMessageW(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    return 0;
}

void shutdown_signalled(WaiterEntry* entry) {
    if (HWND window = g_console.window.load(std::memory_order_acquire))
        PostMessageW(window, signal_window_quit, 0, 0);
    entry->callback.store(nullptr, std::memory_order_release);
}

// At process exit the system has already ended every other thread: nothing is left to wait for.
bool process_is_ending() {
    return RtlDllShutdownInProgress();
}

void console_teardown() {
    global_lock();
    g_console.tearing_down = true;
    global_unlock();
    SetConsoleCtrlHandler(control_handler, FALSE);
    for (;;) {
        global_lock();
        int calls = g_console.handler_calls;
        global_unlock();
        if (!calls || process_is_ending()) break;
        sleep_ms(50);
    }

    if (HANDLE thread = g_console.thread) {
        if (HWND window = g_console.window.load(std::memory_order_acquire)) {
            PostMessageW(window, signal_window_quit, 0, 0);
            while (WaitForSingleObject(thread, 50) == WAIT_TIMEOUT && !process_is_ending()) {
            }
        }
        // A thread that saw the session end never returns.
        if (!g_console.session_ended.load(std::memory_order_acquire) && !process_is_ending())
            WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
        g_console.thread = nullptr;
    }

    if (g_console.shutdown_entry.callback.load(std::memory_order_acquire) &&
        !signalable_remove_waiter(shutdown_pin(), &g_console.shutdown_entry))
        callback_settle(g_console.shutdown_entry.callback);
}

} // namespace

void console_signals_init() {
    // The flag is taken under the global lock, but the work is done outside it: it waits for
    // the window thread, and nothing may be waited for while the global lock is held.
    global_lock();
    bool first = !g_console.initialised;
    g_console.initialised = true;
    global_unlock();
    if (!first) return;

    SetConsoleCtrlHandler(control_handler, TRUE);

    g_console.shutdown_entry.callback.store(shutdown_signalled, std::memory_order_release);
    if (!signalable_add_waiter(shutdown_pin(), &g_console.shutdown_entry))
        g_console.shutdown_entry.callback.store(nullptr, std::memory_order_release);

    HANDLE input = CreateFileW(L"CONIN$", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    if (input != INVALID_HANDLE_VALUE) {
        CloseHandle(input);
    } else {
        // Not a tracked thread: after the end of the session it never returns, and the
        // process-exit work must not wait for it.
        g_console.thread = CreateThread(nullptr, 0, signal_window_thread, nullptr, 0, nullptr);
        if (g_console.thread) pin_wait(&g_console.window_ready, nullptr, -1);
    }

    exit_routine_add(&g_console.teardown, console_teardown);
}
