#include "base/device_control.h"

#include <atomic>

#include "base/sync.h"

namespace {

std::atomic<DeviceHook*> g_hook{nullptr};

bool is_none(HANDLE handle) {
    return handle == nullptr || handle == INVALID_HANDLE_VALUE;
}

uint32_t last_error_or_failed() {
    DWORD error = GetLastError();
    return error ? error : ERROR_GEN_FAILURE;
}

} // namespace

void device_hook_set(DeviceHook* hook) {
    g_hook.store(hook, std::memory_order_release);
}

uint32_t device_control(HANDLE handle, uint32_t code, const void* input, size_t input_size,
                        void* output, size_t output_size, size_t* returned) {
    if (returned) *returned = 0;
    if (is_none(handle)) return ERROR_INVALID_HANDLE;
    if (DeviceHook* hook = g_hook.load(std::memory_order_acquire)) {
        uint32_t error = 0;
        size_t count = 0;
        if (hook->control(handle, code, input, input_size, output, output_size, &count, &error)) {
            if (returned) *returned = count;
            return error;
        }
    }

    // Without an OVERLAPPED, a call on a handle opened for overlapped I/O that the driver
    // leaves pending would be waited for on the file object itself, which every other
    // completion on the same handle also signals. An event of our own makes the wait exact on
    // either kind of handle; the calling thread's cached bridge lends one.
    EventBridge* bridge = event_bridge_take();
    if (!bridge) return ERROR_NOT_ENOUGH_MEMORY;
    OVERLAPPED overlapped{};
    overlapped.hEvent = bridge->event;
    DWORD count = 0;
    uint32_t error = 0;
    if (!DeviceIoControl(handle, code, const_cast<void*>(input), static_cast<DWORD>(input_size),
                         output, static_cast<DWORD>(output_size), &count, &overlapped)) {
        error = last_error_or_failed();
        if (error == ERROR_IO_PENDING) {
            error =
                GetOverlappedResult(handle, &overlapped, &count, TRUE) ? 0 : last_error_or_failed();
        }
    }
    // The completion set the event; the cache expects it clear.
    ResetEvent(bridge->event);
    event_bridge_give(bridge);
    if (returned) *returned = count;
    return error;
}

uint32_t device_duplicate(HANDLE handle, HANDLE* copy) {
    *copy = nullptr;
    if (is_none(handle)) return ERROR_INVALID_HANDLE;
    HANDLE process = GetCurrentProcess();
    if (!DuplicateHandle(process, handle, process, copy, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        *copy = nullptr;
        return last_error_or_failed();
    }
    if (DeviceHook* hook = g_hook.load(std::memory_order_acquire)) hook->duplicated(handle, *copy);
    return 0;
}

void device_close(HANDLE handle) {
    if (is_none(handle)) return;
    if (DeviceHook* hook = g_hook.load(std::memory_order_acquire)) hook->closing(handle);
    CloseHandle(handle);
}
