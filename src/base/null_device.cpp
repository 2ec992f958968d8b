#include "base/pipe.h"

uint32_t null_open(HANDLE* handle) {
    *handle = CreateFileW(L"\\\\.\\NUL", FILE_READ_DATA | FILE_WRITE_DATA,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, 0, nullptr);
    return *handle == INVALID_HANDLE_VALUE ? GetLastError() : 0;
}
