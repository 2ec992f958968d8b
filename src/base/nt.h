// The few native (ntdll) calls the runtime makes directly. The import library of ntdll exports
// them; the user-mode SDK headers do not declare them.
#pragma once

#include <windows.h>
#include <winternl.h>

extern "C" {
NTSTATUS NTAPI NtAllocateVirtualMemory(HANDLE process, PVOID* base, ULONG_PTR zero_bits,
                                       PSIZE_T size, ULONG allocation_type, ULONG protect);
NTSTATUS NTAPI NtFreeVirtualMemory(HANDLE process, PVOID* base, PSIZE_T size, ULONG free_type);
NTSTATUS NTAPI NtDelayExecution(BOOLEAN alertable, const LARGE_INTEGER* interval);
BOOLEAN NTAPI RtlDllShutdownInProgress(void);
}

// winnt.h spells STATUS_TIMEOUT as a DWORD; native calls return it as an NTSTATUS.
constexpr NTSTATUS nt_status_timeout = 0x00000102;

// The current process as a handle for native calls.
inline HANDLE nt_current_process() { return reinterpret_cast<HANDLE>(-1); }
