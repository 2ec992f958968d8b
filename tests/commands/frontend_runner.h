// Runs the front-end executables as real processes and collects what they print.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <windows.h>

struct FrontEndRun {
    DWORD exit_code = 0xDEAD; // also after a run that had to be ended
    std::string out;          // standard output, bytes as written
};

inline std::wstring bin_directory() {
    wchar_t path[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path, length);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

// `program` is a path, or a name of the bin folder ("zun" for bin\zun.exe). The arguments are
// appended to the quoted program path as they stand.
inline FrontEndRun run_frontend(const std::wstring& program, const std::wstring& arguments,
                                const std::wstring& directory = {}) {
    FrontEndRun result;
    std::wstring exe = program.find(L'\\') == std::wstring::npos
                           ? bin_directory() + L"\\" + program + L".exe"
                           : program;
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read_end, write_end;
    if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) return result;
    SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nullptr;
    startup.hStdOutput = write_end;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process = {};
    std::wstring command = L"\"" + exe + L"\"";
    if (!arguments.empty()) command += L" " + arguments;
    BOOL started =
        CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                       directory.empty() ? nullptr : directory.c_str(), &startup, &process);
    CloseHandle(write_end);
    if (started) {
        // Drain meanwhile, so that a long help never blocks on a full pipe.
        std::thread reader([&] {
            char buffer[4096];
            DWORD got;
            while (ReadFile(read_end, buffer, sizeof buffer, &got, nullptr) && got)
                result.out.append(buffer, got);
        });
        if (WaitForSingleObject(process.hProcess, 20000) != WAIT_OBJECT_0)
            TerminateProcess(process.hProcess, 0xDEAD);
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &result.exit_code);
        reader.join();
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(read_end);
    return result;
}

// A folder of its own in the temporary folder, removed with its files.
class ScratchFolder {
public:
    ScratchFolder() {
        static std::atomic<unsigned> counter{0};
        path_ = std::filesystem::temp_directory_path() /
                ("frontend_test_" + std::to_string(GetCurrentProcessId()) + "_" +
                 std::to_string(counter++));
        std::filesystem::create_directories(path_);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::wstring file(const std::wstring& name) const { return (path_ / name).wstring(); }
    std::wstring path() const { return path_.wstring(); }

    // Copies a file of the bin folder here; returns the copy's path.
    std::wstring copy_from_bin(const std::wstring& name) const {
        std::filesystem::copy_file(bin_directory() + L"\\" + name, path_ / name);
        return file(name);
    }

    static void write(const std::wstring& path, const std::string& bytes) {
        std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
    }
    static std::string read(const std::wstring& path) {
        std::ifstream in(std::filesystem::path(path), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::filesystem::path path_;
};
