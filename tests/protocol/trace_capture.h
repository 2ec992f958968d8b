// The marshaller's trace channel, captured through the test trace library (bin\tracetest),
// which appends "<channel>: <text>" to the file ZUN_TRACE_FILE names.
#pragma once

#include <string>

#include <windows.h>

#include "base/trace_hook.h"

namespace zun::test {

class TraceCapture {
public:
    explicit TraceCapture(const wchar_t* name) {
        wchar_t path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring directory(path, wcsrchr(path, L'\\'));
        path_ = directory + L"\\trace_" + name + L".txt";
        DeleteFileW(path_.c_str());
        SetEnvironmentVariableW(L"ZUN_TRACE_FILE", path_.c_str());
        SetDllDirectoryW((directory + L"\\tracetest").c_str());
        channel = trace_channel_open(name);
        SetDllDirectoryW(nullptr);
    }
    ~TraceCapture() {
        SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);
        DeleteFileW(path_.c_str());
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // Everything printed to the channel so far.
    std::string text() const {
        std::string text;
        HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) return text;
        char buffer[4096];
        DWORD got;
        while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got)
            text.append(buffer, got);
        CloseHandle(file);
        return text;
    }

    TraceChannel channel = nullptr; // one reference, for the marshaller to take

private:
    std::wstring path_;
};

} // namespace zun::test
