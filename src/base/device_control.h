// Device control calls: the one way the library talks to a driver through a handle.
//
// Every DeviceIoControl of the system goes through device_control, and the handles such calls
// are made on are duplicated and closed through device_duplicate and device_close. Production
// code reaches the real system calls; a test may install a DeviceHook that plays a driver
// behind handles of its own, seeing the same calls the driver would see.
#pragma once

#include <cstddef>
#include <cstdint>

#include <windows.h>

// One synchronous control call. Returns 0 or a Windows error code: 6 without a call for a
// handle of 0 or all ones, else the call's own error, or 31 when the system reports failure
// without one. `returned` (may be null) receives the bytes the driver wrote to `output`.
// The call waits for the driver to finish even on a handle opened for overlapped I/O, and other
// threads may issue calls on the same handle meanwhile.
uint32_t device_control(HANDLE handle, uint32_t code, const void* input, size_t input_size,
                        void* output, size_t output_size, size_t* returned);

// A duplicate of a device handle within this process (same access, not inheritable), and its
// closing. 6 for a handle of 0 or all ones.
uint32_t device_duplicate(HANDLE handle, HANDLE* copy);
void device_close(HANDLE handle);

// A driver played in-process, for tests. `control` answers a call when `handle` is one of the
// hook's and returns true; for any other handle it returns false and the real call is made.
// `duplicated` and `closing` tell the hook about copies of its handles (the real duplicate and
// close still happen), so that it knows them by value.
struct DeviceHook {
    virtual bool control(HANDLE handle, uint32_t code, const void* input, size_t input_size,
                         void* output, size_t output_size, size_t* returned, uint32_t* error) = 0;
    virtual void duplicated(HANDLE original, HANDLE copy) = 0;
    virtual void closing(HANDLE handle) = 0;
};

// Installs `hook` for the whole process (null removes it). The hook must outlive every call
// that may still reach it.
void device_hook_set(DeviceHook* hook);
