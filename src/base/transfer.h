// One read or write in progress: the state shared by the transfer loop and its strategies.
// Internal to the I/O layer.
#pragma once

#include <atomic>
#include <cstdint>

#include <windows.h>
#include <winternl.h>

#include "base/sync.h"

// Where a native call stands, for a cancel callback that may run on another thread at any time.
enum TransferPhase : int {
    transfer_idle = 0,
    transfer_issuing = 1, // the system call may be on its way in: a cancel may not find it yet
    transfer_issued = 2,  // the call has returned (pending or done)
};

struct Transfer {
    // First: the cancel callback finds its transfer from the entry's address.
    WaiterEntry cancel_entry;

    HANDLE handle = INVALID_HANDLE_VALUE;
    bool write = false;
    uint8_t io_class = 0;
    bool positioned = false;      // disk files: `position` is passed to every call
    LARGE_INTEGER position{};     // advanced after each chunk
    Signalable* cancel = nullptr; // the effective cancel source (caller's, time-out's or both)
    EventBridge* bridge = nullptr;
    uint32_t timeout_ms = 0;
    bool timed = false;
    bool started = false;
    uint64_t start_tick = 0;
    HANDLE thread = nullptr; // the transfer's thread, for NtCancelSynchronousIoFile

    IO_STATUS_BLOCK status_block{};
    std::atomic<int> phase{transfer_idle};
    std::atomic<bool> cancel_fired{false}; // the cancel callback has run
    std::atomic<bool> cancelled{false};    // the transfer broke its own I/O off
    std::atomic<bool> completed{false};    // the APC of an asynchronous call has run
};

// Registers the cancel entry with the cancel source. False when the source is already
// signalled: then nothing may be issued.
bool transfer_cancel_register(Transfer* transfer);
// Removes the cancel entry; if its callback is running, returns once it has finished.
void transfer_cancel_remove(Transfer* transfer);
// True once the transfer's cancel source has broken it off.
inline bool transfer_broken_off(const Transfer* transfer) {
    return transfer->cancel_fired.load(std::memory_order_acquire) ||
           transfer->cancelled.load(std::memory_order_acquire);
}

// The console strategy: a line read that an injected Enter breaks off.
uint32_t console_read(Transfer* transfer, uint8_t* buffer, DWORD length, DWORD* moved);
// Types an Enter into the console's input, so that a pending line read returns.
void console_read_break(Transfer* transfer);
