#include "base/io.h"
#include "base/nt_io.h"

namespace {

// The I/O class of a handle that is not a console: what the file object was opened for.
uint32_t io_class_of(HANDLE handle, uint8_t* io_class) {
    IO_STATUS_BLOCK status_block;
    FileModeInfo info = {};
    NTSTATUS status =
        NtQueryInformationFile(handle, &status_block, &info, sizeof info, file_mode_information);
    if (NT_SUCCESS(status)) {
        *io_class = info.mode & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)
                        ? io_class_synchronous
                        : io_class_asynchronous;
        return 0;
    }
    // Pseudo-handles that are not file objects (the console handles of Windows before 8, whose
    // low two bits are set) fail the query as invalid: only the Win32 calls can use them.
    if (status == nt_status_invalid_handle || status == nt_status_object_type_mismatch) {
        *io_class = io_class_plain;
        return 0;
    }
    return RtlNtStatusToDosError(status);
}

} // namespace

uint32_t io_kind(HANDLE handle, uint8_t* kind) {
    if (*kind) return 0;
    // GetFileType returns FILE_TYPE_UNKNOWN both for a failure and for a device of no known
    // type; only the last error tells them apart.
    SetLastError(0);
    uint8_t device;
    switch (GetFileType(handle)) {
    case FILE_TYPE_DISK:
        device = io_device_disk;
        break;
    case FILE_TYPE_PIPE:
        device = io_device_pipe;
        break;
    case FILE_TYPE_CHAR: {
        DWORD mode;
        if (GetConsoleMode(handle, &mode)) {
            // A console is never queried: its handles may not be file objects at all.
            *kind = io_device_console | io_class_console;
            return 0;
        }
        device = io_device_pipe;
        break;
    }
    default:
        if (DWORD error = GetLastError()) return error;
        device = io_device_other;
        break;
    }
    uint8_t io_class = 0;
    if (uint32_t error = io_class_of(handle, &io_class)) return error;
    *kind = device | io_class;
    return 0;
}
