// The trace hook with and without the trace library: a copy of the child program next to the
// test library traces into a file; the plain child, without a library, must run unharmed.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "base/process.h"
#include "child_process.h"

namespace {

DWORD run(const std::wstring& program, const wchar_t* mode) {
    ProcessLaunch launch;
    const wchar_t* arguments[] = {program.c_str(), mode, nullptr};
    if (process_launch(&launch, arguments)) return 0xBAD;
    if (!process_wait(&launch, nullptr, 20000)) {
        process_terminate(launch.process);
        return 0xDEAD;
    }
    return launch.exit_code;
}

std::string read_text(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              0, nullptr);
    std::string text;
    char buffer[8192];
    DWORD got;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got) text.append(buffer, got);
    CloseHandle(file);
    return text;
}

} // namespace

TEST(TraceHook, LinesReachTheTraceLibraryWhenItIsPresent) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring directory =
        std::wstring(temp) + L"zun_trace_" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(directory.c_str(), nullptr);
    std::wstring program = directory + L"\\io_child.exe";
    std::wstring library = directory + L"\\traceapp.dll";
    std::wstring output = directory + L"\\trace.txt";
    ASSERT_TRUE(CopyFileW(io_child_path().c_str(), program.c_str(), FALSE));
    ASSERT_TRUE(CopyFileW((test_program_directory() + L"\\tracetest\\traceapp.dll").c_str(),
                          library.c_str(), FALSE));
    DeleteFileW(output.c_str());

    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", output.c_str());
    DWORD code = run(program, L"trace");
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);
    EXPECT_EQ(0u, code);
    EXPECT_EQ("io_child: hello 42 world\n"
              "second: direct\n"
              "second: " +
                  std::string(2000, 'x') +
                  "\n"
                  "released second\n"
                  "released io_child\n"
                  "closed\n",
              read_text(output));

    DeleteFileW(output.c_str());
    DeleteFileW(program.c_str());
    DeleteFileW(library.c_str());
    RemoveDirectoryW(directory.c_str());
}

TEST(TraceHook, EveryCallIsANoOpWithoutTheLibrary) {
    EXPECT_EQ(3u, run(io_child_path(), L"trace"));
}
