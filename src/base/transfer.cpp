// The transfer loop and its native strategies. A transfer lives on its caller's stack; what may
// touch it from other threads (the cancel callback, the time-out alarm, an APC) is withdrawn or
// finished before the loop returns.

#include <algorithm>

#include "base/alarm.h"
#include "base/io.h"
#include "base/nt_io.h"
#include "base/settle.h"
#include "base/tick.h"
#include "base/transfer.h"

namespace {

constexpr NTSTATUS nt_status_cancelled = static_cast<NTSTATUS>(0xC0000120);
constexpr NTSTATUS nt_status_not_implemented = static_cast<NTSTATUS>(0xC0000002);

// End of data: a closed pipe, the end of a file or a full disk ends the transfer, successfully,
// with what was moved so far.
bool is_end_of_data(uint32_t error) {
    switch (error) {
    case ERROR_HANDLE_EOF:
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_BROKEN_PIPE:
    case ERROR_DISK_FULL:
    case ERROR_NO_DATA:
        return true;
    default:
        return false;
    }
}

uint32_t status_to_error(NTSTATUS status) {
    return status == 0 ? 0 : RtlNtStatusToDosError(status);
}

// Breaks the transfer's request off from whatever thread runs this. NtCancelIoFileEx finds the
// request by its status block in any thread; without it, a blocking request can still be
// cancelled through its thread with NtCancelSynchronousIoFile.
NTSTATUS cancel_from_any_thread(Transfer* transfer) {
    const NtCancelCalls& calls = nt_cancel_calls();
    IO_STATUS_BLOCK status_block;
    if (calls.cancel_ex)
        return calls.cancel_ex(transfer->handle, &transfer->status_block, &status_block);
    if (calls.cancel_synchronous && transfer->thread)
        return calls.cancel_synchronous(transfer->thread, &transfer->status_block, &status_block);
    return nt_status_not_implemented;
}

// Breaks the request off from the transfer's own thread: NtCancelIoFile cancels what the
// calling thread issued on the handle, which is all a transfer has outstanding.
void cancel_from_own_thread(Transfer* transfer) {
    transfer->cancelled.store(true, std::memory_order_release);
    IO_STATUS_BLOCK status_block;
    if (nt_cancel_calls().cancel_ex)
        nt_cancel_calls().cancel_ex(transfer->handle, &transfer->status_block, &status_block);
    else
        NtCancelIoFile(transfer->handle, &status_block);
}

// The cancel entry's callback, on the thread that signalled the cancel source. Any firing of
// the source counts, a reset as well as a signal: the entry is used up either way.
void cancel_fired(WaiterEntry* entry) {
    Transfer* transfer = reinterpret_cast<Transfer*>(entry);
    transfer->cancel_fired.store(true, std::memory_order_seq_cst);
    if (transfer->io_class == io_class_console) {
        console_read_break(transfer);
    } else {
        // A request on its way into the kernel cannot be found yet; keep trying until it can,
        // or until the call has come back. The window is a few instructions wide, so this
        // settles at once in practice.
        while (transfer->phase.load(std::memory_order_seq_cst) == transfer_issuing) {
            NTSTATUS status = cancel_from_any_thread(transfer);
            if (status != nt_status_not_found) break;
            SwitchToThread();
        }
    }
    entry->callback.store(nullptr, std::memory_order_release);
}

void NTAPI completion_routine(void* context, IO_STATUS_BLOCK*, ULONG) {
    static_cast<Transfer*>(context)->completed.store(true, std::memory_order_release);
}

NTSTATUS issue(Transfer* transfer, uint8_t* buffer, ULONG length) {
    bool async = transfer->io_class == io_class_asynchronous;
    PIO_APC_ROUTINE routine = async ? completion_routine : nullptr;
    void* context = async ? transfer : nullptr;
    PLARGE_INTEGER offset = transfer->positioned ? &transfer->position : nullptr;
    if (transfer->write)
        return NtWriteFile(transfer->handle, nullptr, routine, context, &transfer->status_block,
                           buffer, length, offset, nullptr);
    return NtReadFile(transfer->handle, nullptr, routine, context, &transfer->status_block, buffer,
                      length, offset, nullptr);
}

bool time_has_run_out(const Transfer* transfer) {
    return transfer->timed && tick_now() - transfer->start_tick >= transfer->timeout_ms;
}

// Waits for an issued request: for a synchronous handle while the call said pending, for an
// asynchronous one until its completion routine has run (it runs for every request the call
// accepted, completed at once or not). Returns the final status.
NTSTATUS native_wait(Transfer* transfer, NTSTATUS status) {
    bool async = transfer->io_class == io_class_asynchronous;
    if (async ? NT_ERROR(status) : status != nt_status_pending) return status;
    bool file_signalled = false;
    for (;;) {
        if (async ? transfer->completed.load(std::memory_order_acquire) : file_signalled) break;
        bool cancelled = transfer->cancelled.load(std::memory_order_acquire);
        if (!cancelled && (time_has_run_out(transfer) ||
                           (transfer->cancel && signalable_is_signalled(transfer->cancel)))) {
            cancel_from_own_thread(transfer);
            cancelled = true;
        }
        DWORD wait = INFINITE;
        if (!cancelled) {
            if (transfer->timed)
                wait = static_cast<DWORD>(transfer->start_tick + transfer->timeout_ms - tick_now());
            if (transfer->cancel && !transfer->bridge) wait = std::min<DWORD>(wait, 50);
        }
        if (!cancelled && transfer->cancel && transfer->bridge) {
            // The bridge's event is set when the cancel source fires; the next round then
            // finds it signalled and cancels.
            event_bridge_arm(transfer->bridge, transfer->cancel);
            HANDLE objects[2];
            DWORD count = 0;
            if (!async) objects[count++] = transfer->handle;
            objects[count++] = transfer->bridge->event;
            DWORD result = WaitForMultipleObjectsEx(count, objects, FALSE, wait, TRUE);
            event_bridge_disarm(transfer->bridge, transfer->cancel);
            if (!async && result == WAIT_OBJECT_0) file_signalled = true;
        } else if (!async) {
            // A synchronous file object is signalled when its request completes.
            if (WaitForSingleObjectEx(transfer->handle, wait, TRUE) == WAIT_OBJECT_0)
                file_signalled = true;
        } else {
            SleepEx(wait, TRUE);
        }
    }
    return transfer->status_block.Status;
}

uint32_t native_chunk(Transfer* transfer, uint8_t* buffer, DWORD length, DWORD* moved) {
    *moved = 0;
    transfer->phase.store(transfer_idle, std::memory_order_relaxed);
    transfer->completed.store(false, std::memory_order_relaxed);
    transfer->status_block.Status = 0;
    transfer->status_block.Information = 0;
    if (transfer->cancel && !transfer_cancel_register(transfer)) return ERROR_OPERATION_ABORTED;
    if (transfer->timed && !transfer->started) {
        transfer->start_tick = tick_now();
        transfer->started = true;
    }

    // Either the callback sees "issuing" and cancels the request, or this thread sees the
    // callback's mark and issues nothing (both sides use sequentially consistent order).
    transfer->phase.store(transfer_issuing, std::memory_order_seq_cst);
    bool issued = !transfer->cancel_fired.load(std::memory_order_seq_cst);
    NTSTATUS status = issued ? issue(transfer, buffer, length) : nt_status_cancelled;
    transfer->phase.store(transfer_issued, std::memory_order_seq_cst);
    if (transfer->cancel) transfer_cancel_remove(transfer);
    if (!issued) return ERROR_OPERATION_ABORTED;

    status = native_wait(transfer, status);
    if (!NT_ERROR(status)) *moved = static_cast<DWORD>(transfer->status_block.Information);
    return status_to_error(status);
}

uint32_t plain_chunk(Transfer* transfer, uint8_t* buffer, DWORD length, DWORD* moved) {
    BOOL done = transfer->write ? WriteFile(transfer->handle, buffer, length, moved, nullptr)
                                : ReadFile(transfer->handle, buffer, length, moved, nullptr);
    if (done) return 0;
    *moved = 0;
    return GetLastError();
}

uint32_t run_chunk(Transfer* transfer, uint8_t* buffer, DWORD length, DWORD* moved) {
    switch (transfer->io_class) {
    case io_class_console:
        return console_read(transfer, buffer, length, moved);
    case io_class_synchronous:
    case io_class_asynchronous:
        return native_chunk(transfer, buffer, length, moved);
    default:
        return plain_chunk(transfer, buffer, length, moved);
    }
}

// The time-out of one call: an alarm on the shared alarm thread that signals a private pin.
struct Deadline {
    Alarm alarm; // first: the callback finds the deadline from the alarm's address
    Pin expired{};
};

void deadline_fired(Alarm* alarm) {
    pin_signal(&reinterpret_cast<Deadline*>(alarm)->expired);
    alarm->callback.store(nullptr, std::memory_order_release);
}

struct PositionInformation {
    LARGE_INTEGER offset;
};

uint32_t transfer_run(bool write, HANDLE handle, uint8_t* kind, Signalable* cancel,
                      uint32_t timeout_ms, uint8_t* buffer, size_t length, size_t* count) {
    if (count) *count = 0;
    if (handle == INVALID_HANDLE_VALUE) return ERROR_INVALID_HANDLE;
    uint8_t local_kind = 0;
    if (!kind) kind = &local_kind;
    if (uint32_t error = io_kind(handle, kind)) return error;

    Transfer transfer;
    transfer.handle = handle;
    transfer.write = write;
    transfer.io_class = *kind & io_class_mask;
    if (write && transfer.io_class == io_class_console) transfer.io_class = io_class_plain;
    bool console = transfer.io_class == io_class_console;
    bool native =
        transfer.io_class == io_class_synchronous || transfer.io_class == io_class_asynchronous;
    if (!console && !native) transfer.io_class = io_class_plain;
    const NtCancelCalls& calls = nt_cancel_calls();

    // Only a strategy that can be broken off from another thread gets an alarm.
    bool has_timeout = timeout_ms < io_no_timeout;
    bool has_deadline = has_timeout && (console || (native && calls.cancel_ex));
    Deadline deadline;
    Group either;
    GroupMember members[2];
    Signalable* effective = cancel;
    if (has_deadline) {
        alarm_set(&deadline.alarm, deadline_fired, tick_now() + timeout_ms);
        if (cancel) {
            group_init(&either, 1);
            group_add(&members[0], &either, &deadline.expired);
            group_add(&members[1], &either, cancel);
            effective = &either;
        } else {
            effective = &deadline.expired;
        }
    }

    if (console || native) transfer.cancel = effective;
    if (native) {
        transfer.timed = has_timeout;
        transfer.timeout_ms = timeout_ms;
        if (effective) transfer.bridge = event_bridge_take();
        if (effective && !calls.cancel_ex && calls.cancel_synchronous &&
            transfer.io_class == io_class_synchronous)
            DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(),
                            &transfer.thread, THREAD_TERMINATE, FALSE, 0);
        // Disk files get explicit offsets: an asynchronous file object has no file pointer of
        // its own that the system would advance.
        if ((*kind & io_device_mask) == io_device_disk) {
            IO_STATUS_BLOCK status_block;
            PositionInformation position;
            if (NT_SUCCESS(NtQueryInformationFile(handle, &status_block, &position, sizeof position,
                                                  file_position_information))) {
                transfer.positioned = true;
                transfer.position = position.offset;
            }
        }
    }

    uint32_t error = 0;
    size_t total = 0;
    while (total < length) {
        DWORD chunk = static_cast<DWORD>(std::min(length - total, io_chunk_size));
        DWORD moved = 0;
        uint32_t result = run_chunk(&transfer, buffer + total, chunk, &moved);
        if (is_end_of_data(result)) {
            result = 0;
            moved = 0;
        }
        total += moved;
        if (transfer.positioned) transfer.position.QuadPart += moved;
        if (result == ERROR_OPERATION_ABORTED) {
            bool expired = (has_deadline && pin_is_signalled(&deadline.expired)) ||
                           (transfer.started && time_has_run_out(&transfer));
            if (!transfer_broken_off(&transfer) && !expired) continue; // not ours: again
            if (expired && !(cancel && signalable_is_signalled(cancel))) result = ERROR_SEM_TIMEOUT;
        }
        if (result) {
            error = result;
            break;
        }
        if (moved < io_chunk_size) break;
    }

    if (has_deadline) {
        if (cancel) group_cancel(&either);
        alarm_cancel(&deadline.alarm);
    }
    if (transfer.bridge) event_bridge_give(transfer.bridge);
    if (transfer.thread) CloseHandle(transfer.thread);
    if (transfer.positioned && transfer.io_class == io_class_asynchronous) {
        IO_STATUS_BLOCK status_block;
        PositionInformation position = {transfer.position};
        NtSetInformationFile(handle, &status_block, &position, sizeof position,
                             file_position_information);
    }
    if (count) *count = total;
    return error;
}

} // namespace

bool transfer_cancel_register(Transfer* transfer) {
    transfer->cancel_fired.store(false, std::memory_order_relaxed);
    transfer->cancel_entry.callback.store(cancel_fired, std::memory_order_release);
    if (signalable_add_waiter(transfer->cancel, &transfer->cancel_entry)) return true;
    transfer->cancel_entry.callback.store(nullptr, std::memory_order_relaxed);
    transfer->cancel_fired.store(true, std::memory_order_release);
    return false;
}

void transfer_cancel_remove(Transfer* transfer) {
    if (signalable_remove_waiter(transfer->cancel, &transfer->cancel_entry))
        transfer->cancel_entry.callback.store(nullptr, std::memory_order_relaxed);
    else
        callback_settle(transfer->cancel_entry.callback);
}

uint32_t io_read_ex(HANDLE handle, uint8_t* kind, Signalable* cancel, uint32_t timeout_ms,
                    void* buffer, size_t length, size_t* count) {
    return transfer_run(false, handle, kind, cancel, timeout_ms, static_cast<uint8_t*>(buffer),
                        length, count);
}

uint32_t io_write_ex(HANDLE handle, uint8_t* kind, Signalable* cancel, uint32_t timeout_ms,
                     const void* buffer, size_t length, size_t* count) {
    // The buffer is only ever passed to write calls.
    return transfer_run(true, handle, kind, cancel, timeout_ms,
                        static_cast<uint8_t*>(const_cast<void*>(buffer)), length, count);
}

uint32_t io_read(HANDLE handle, void* buffer, size_t length, size_t* count) {
    return io_read_ex(handle, nullptr, nullptr, io_no_timeout, buffer, length, count);
}

uint32_t io_write(HANDLE handle, const void* buffer, size_t length, size_t* count) {
    return io_write_ex(handle, nullptr, nullptr, io_no_timeout, buffer, length, count);
}
