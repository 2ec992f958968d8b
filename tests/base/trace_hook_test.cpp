// The trace hook with and without the trace library: a copy of the child program next to the
// test library traces into a file; the plain child, without a library, must run unharmed.
#include <gtest/gtest.h>

#include <string>

#include "base/process.h"
#include "child_process.h"

namespace {

DWORD run_trace(const std::wstring& program) {
    ProcessLaunch launch;
    const wchar_t* arguments[] = {program.c_str(), L"trace", nullptr};
    if (process_launch(&launch, arguments)) return 0xBAD;
    if (!process_wait(&launch, nullptr, 20000)) process_terminate(launch.process);
    process_wait(&launch, nullptr, 5000);
    return launch.exit_code;
}

} // namespace

TEST(TraceHook, LinesReachTheTraceLibraryWhenItIsPresentAndAreNoOpsWithout) {
    EXPECT_EQ(3u, run_trace(io_child_path()));

    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring directory = temp + (L"zun_trace_" + std::to_wstring(GetCurrentProcessId()));
    CreateDirectoryW(directory.c_str(), nullptr);
    std::wstring program = directory + L"\\io_child.exe", library = directory + L"\\traceapp.dll",
                 output = directory + L"\\trace.txt";
    ASSERT_TRUE(CopyFileW(io_child_path().c_str(), program.c_str(), FALSE));
    ASSERT_TRUE(CopyFileW((test_program_directory() + L"\\tracetest\\traceapp.dll").c_str(),
                          library.c_str(), FALSE));
    DeleteFileW(output.c_str());
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", output.c_str());
    EXPECT_EQ(0u, run_trace(program));
    SetEnvironmentVariableW(L"ZUN_TRACE_FILE", nullptr);

    OwnedHandle file(CreateFileW(output.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                 OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ("io_child: hello 42 world\nsecond: direct\nsecond: " + std::string(2000, 'x') +
                  "\nreleased second\nreleased io_child\nclosed\n",
              read_all(file.get()));
    file.reset();
    for (const std::wstring& path : {output, program, library}) DeleteFileW(path.c_str());
    RemoveDirectoryW(directory.c_str());
}
