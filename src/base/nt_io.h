// The native file calls of the I/O layer. The import library of ntdll exports the older ones;
// the user-mode SDK headers do not declare them. The cancel calls that arrived with Vista are
// looked up by name, because the I/O layer must still load where they are missing.
#pragma once

#include <windows.h>
#include <winternl.h>

extern "C" {
NTSTATUS NTAPI NtReadFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE apc, PVOID apc_context,
                          PIO_STATUS_BLOCK status, PVOID buffer, ULONG length,
                          PLARGE_INTEGER offset, PULONG key);
NTSTATUS NTAPI NtWriteFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE apc, PVOID apc_context,
                           PIO_STATUS_BLOCK status, const void* buffer, ULONG length,
                           PLARGE_INTEGER offset, PULONG key);
NTSTATUS NTAPI NtCancelIoFile(HANDLE file, PIO_STATUS_BLOCK status);
NTSTATUS NTAPI NtWaitForMultipleObjects(ULONG count, const HANDLE* handles, int wait_any,
                                        BOOLEAN alertable, const LARGE_INTEGER* timeout);
}

// FILE_MODE_INFORMATION: the creation options of a file object that are still in force.
struct FileModeInfo {
    ULONG mode;
};
constexpr FILE_INFORMATION_CLASS file_mode_information = static_cast<FILE_INFORMATION_CLASS>(16);
constexpr FILE_INFORMATION_CLASS file_position_information =
    static_cast<FILE_INFORMATION_CLASS>(14);
constexpr FILE_INFORMATION_CLASS file_basic_information = static_cast<FILE_INFORMATION_CLASS>(4);

constexpr NTSTATUS nt_status_pending = 0x00000103;
constexpr NTSTATUS nt_status_not_found = static_cast<NTSTATUS>(0xC0000225);
constexpr NTSTATUS nt_status_invalid_handle = static_cast<NTSTATUS>(0xC0000008);
constexpr NTSTATUS nt_status_object_type_mismatch = static_cast<NTSTATUS>(0xC0000024);

using NtCancelIoFileExFn = NTSTATUS(NTAPI*)(HANDLE file, PIO_STATUS_BLOCK io,
                                            PIO_STATUS_BLOCK status);
using NtCancelSynchronousIoFileFn = NTSTATUS(NTAPI*)(HANDLE thread, PIO_STATUS_BLOCK io,
                                                     PIO_STATUS_BLOCK status);

struct NtCancelCalls {
    NtCancelIoFileExFn cancel_ex;                   // cancels one request of any thread
    NtCancelSynchronousIoFileFn cancel_synchronous; // cancels a thread's blocking request
};

// Looked up in ntdll once per process; either entry may be null.
const NtCancelCalls& nt_cancel_calls();
