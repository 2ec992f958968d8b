// Private pipe pairs. CreatePipe's anonymous pipes cannot be overlapped, so a pair is a named
// pipe with a name that is never used twice: the process id, the address of the process's pipe
// counter (different for every loaded copy of this code), the counter itself and the time.

#include <atomic>

#include "base/owned_handle.h"
#include "base/pipe.h"

namespace {

std::atomic<LONG> g_pipe_counter{0};

} // namespace

uint32_t pipe_create(bool duplex, bool overlapped, HANDLE* server, HANDLE* client) {
    *server = *client = INVALID_HANDLE_VALUE;
    LONG serial = g_pipe_counter.fetch_add(1, std::memory_order_relaxed) + 1;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    LONGLONG time = (static_cast<LONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    wchar_t name[128];
    wsprintfW(name, L"\\\\.\\Pipe\\AnonymousPipe.%i.%p.%i.%I64i", GetCurrentProcessId(),
              static_cast<void*>(&g_pipe_counter), serial, time);

    DWORD overlapped_flag = overlapped ? FILE_FLAG_OVERLAPPED : 0;
    // FILE_FLAG_FIRST_PIPE_INSTANCE: should the name exist after all, fail instead of joining
    // someone else's pipe.
    OwnedHandle server_end(CreateNamedPipeW(name,
                                            (duplex ? PIPE_ACCESS_DUPLEX : PIPE_ACCESS_INBOUND) |
                                                FILE_FLAG_FIRST_PIPE_INSTANCE | overlapped_flag,
                                            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 0,
                                            0, 30000, nullptr));
    if (!server_end.valid()) return GetLastError();
    OwnedHandle client_end(CreateFileW(name, duplex ? GENERIC_READ | GENERIC_WRITE : GENERIC_WRITE,
                                       0, nullptr, OPEN_EXISTING, overlapped_flag, nullptr));
    if (!client_end.valid()) return GetLastError();
    *server = server_end.release();
    *client = client_end.release();
    return 0;
}
