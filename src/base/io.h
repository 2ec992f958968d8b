// Handle I/O: one transfer routine for files, pipes and consoles, bounded by a time-out and
// broken off by a cancel signalable; and the small handle operations beside it.
//
// Every call returns a Windows error code (0 for success) and always stores its count. End of
// data (a closed pipe, the end of a file, a full disk) is not an error: the call succeeds with
// what was moved, possibly nothing. A transfer broken off by its cancel source gives 995
// (ERROR_OPERATION_ABORTED), one whose time-out ran out 121 (ERROR_SEM_TIMEOUT).
#pragma once

#include <cstddef>
#include <cstdint>

#include <windows.h>

#include "base/sync.h"

// The kind of a handle, one byte: a device type in the low three bits and an I/O class in bits
// 0x70. A caller keeps the byte beside its handle, zero until the first transfer fills it in.
constexpr uint8_t io_device_mask = 0x07;
constexpr uint8_t io_device_console = 1;
constexpr uint8_t io_device_disk = 2;
constexpr uint8_t io_device_pipe = 3; // or a character device that is not a console
constexpr uint8_t io_device_other = 4;

constexpr uint8_t io_class_mask = 0x70;
constexpr uint8_t io_class_plain = 0x10;        // blocking Win32 calls, no time-out or cancel
constexpr uint8_t io_class_console = 0x20;      // console line reads, broken off by an Enter
constexpr uint8_t io_class_synchronous = 0x30;  // native calls cancelled from another thread
constexpr uint8_t io_class_asynchronous = 0x40; // native calls completed by an APC

// A time-out of this many milliseconds or more means none.
constexpr uint32_t io_no_timeout = 0x7FFFFFFF;

// Transfers move at most this much per system call.
constexpr size_t io_chunk_size = 0x1000000;

// Fills in `*kind` unless it is already non-zero. On failure the kind stays 0.
uint32_t io_kind(HANDLE handle, uint8_t* kind);

// Blocking transfers without time-out or cancel.
uint32_t io_read(HANDLE handle, void* buffer, size_t length, size_t* count);
uint32_t io_write(HANDLE handle, const void* buffer, size_t length, size_t* count);

// `kind` and `cancel` may be null. A read returns what its first successful system call
// delivered; a write goes on until everything is written or a call moves less than a chunk.
uint32_t io_read_ex(HANDLE handle, uint8_t* kind, Signalable* cancel, uint32_t timeout_ms,
                    void* buffer, size_t length, size_t* count);
uint32_t io_write_ex(HANDLE handle, uint8_t* kind, Signalable* cancel, uint32_t timeout_ms,
                     const void* buffer, size_t length, size_t* count);

// Moves the file pointer (FILE_BEGIN, FILE_CURRENT, FILE_END); `position` (may be null)
// receives the new position.
uint32_t io_seek(HANDLE handle, int64_t offset, uint32_t origin, uint64_t* position = nullptr);
// Ends the file at its file pointer.
uint32_t io_set_end(HANDLE handle);
uint32_t io_close(HANDLE handle);

// A duplicate within this process with the same access, not inheritable. An invalid handle
// gives 6 (ERROR_INVALID_HANDLE) and the duplicate is INVALID_HANDLE_VALUE on any failure.
uint32_t handle_duplicate(HANDLE handle, HANDLE* duplicate);
