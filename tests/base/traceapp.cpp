// A trace library for the tests: appends "<channel>: <text>" for every print, "released
// <channel>" when a channel's last reference goes and "closed" at the end, to the file named by
// ZUN_TRACE_FILE.
#include <atomic>
#include <string>

#include <windows.h>

#include "base/trace_library.h"

namespace {

struct Channel {
    std::wstring name;
    std::atomic<int> references{1};
};

void append(const std::wstring& text) {
    wchar_t path[MAX_PATH];
    if (!GetEnvironmentVariableW(L"ZUN_TRACE_FILE", path, MAX_PATH)) return;
    std::string utf8(text.size() * 3, '\0');
    utf8.resize(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                    utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr));
    HANDLE file =
        CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr);
    DWORD written;
    WriteFile(file, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
    CloseHandle(file);
}

class TestTraceLibrary final : public TraceLibrary {
public:
    void Close() override { append(L"closed\n"); }
    TraceChannel OpenChannel(const wchar_t* name) override { return new Channel{name}; }
    void Print(TraceChannel channel, const wchar_t* text, size_t length) override {
        append(static_cast<Channel*>(channel)->name + L": " + std::wstring(text, length));
    }
    void ReferenceChannel(TraceChannel channel) override {
        ++static_cast<Channel*>(channel)->references;
    }
    void ReleaseChannel(TraceChannel channel) override {
        auto* c = static_cast<Channel*>(channel);
        if (--c->references) return;
        append(L"released " + c->name + L"\n");
        delete c;
    }
} library;

} // namespace

extern "C" __declspec(dllexport) TraceLibrary* traceexports1() {
    return &library;
}
