// The test child program (io_child.exe, beside the test executable), and private pipes to talk
// to it.
#pragma once

#include <string>

#include "base/io.h"
#include "base/pipe.h"
#include "test_support.h"

inline std::wstring io_child_path() {
    return test_program_directory() + L"\\io_child.exe";
}

inline StartedChild start_child(const std::wstring& arguments, DWORD flags,
                                const HANDLE* handles = nullptr) {
    return start_process(L"\"" + io_child_path() + L"\" " + arguments, flags, handles);
}

// A private pipe whose child end is inheritable; the parent keeps the other end.
struct ChildPipe {
    OwnedHandle parent_end;
    HANDLE child_end = nullptr; // closed by the launch record it is handed to

    explicit ChildPipe(bool child_writes) {
        HANDLE server, client;
        pipe_create(false, false, &server, &client);
        parent_end.reset(child_writes ? server : client);
        child_end = child_writes ? client : server;
        SetHandleInformation(child_end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
};

// What arrives until the writer has gone (or nothing has come for 20 s).
inline std::string read_all(HANDLE handle) {
    std::string data;
    char buffer[4096];
    size_t count;
    while (io_read_ex(handle, nullptr, nullptr, 20000, buffer, sizeof buffer, &count) == 0 && count)
        data.append(buffer, count);
    return data;
}
