// The small operations on a handle that sit beside the transfers.

#include "base/io.h"

uint32_t io_seek(HANDLE handle, int64_t offset, uint32_t origin, uint64_t* position) {
    LARGE_INTEGER distance, moved;
    distance.QuadPart = offset;
    if (!SetFilePointerEx(handle, distance, &moved, origin)) return GetLastError();
    if (position) *position = static_cast<uint64_t>(moved.QuadPart);
    return 0;
}

uint32_t io_set_end(HANDLE handle) {
    return SetEndOfFile(handle) ? 0 : GetLastError();
}

uint32_t io_close(HANDLE handle) {
    return CloseHandle(handle) ? 0 : GetLastError();
}

uint32_t handle_duplicate(HANDLE handle, HANDLE* duplicate) {
    *duplicate = INVALID_HANDLE_VALUE;
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr) return ERROR_INVALID_HANDLE;
    HANDLE process = GetCurrentProcess();
    if (!DuplicateHandle(process, handle, process, duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        *duplicate = INVALID_HANDLE_VALUE;
        return GetLastError();
    }
    return 0;
}
