// Runs the front-end executables as real processes and collects what they print.
#pragma once

#include <atomic>
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
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        path_ = std::wstring(temp) + L"frontend_test_" + std::to_wstring(GetCurrentProcessId()) +
                L"_" + std::to_wstring(counter++);
        CreateDirectoryW(path_.c_str(), nullptr);
    }
    ~ScratchFolder() {
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((path_ + L"\\*").c_str(), &found);
        if (search != INVALID_HANDLE_VALUE) {
            do {
                if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                    DeleteFileW((path_ + L"\\" + found.cFileName).c_str());
            } while (FindNextFileW(search, &found));
            FindClose(search);
        }
        RemoveDirectoryW(path_.c_str());
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }
    const std::wstring& path() const { return path_; }

    // Copies a file of the bin folder here; returns the copy's path.
    std::wstring copy_from_bin(const std::wstring& name) const {
        CopyFileW((bin_directory() + L"\\" + name).c_str(), file(name).c_str(), FALSE);
        return file(name);
    }

    static void write(const std::wstring& path, const std::string& bytes) {
        HANDLE handle =
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD written = 0;
        WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(handle);
    }

    static std::string read(const std::wstring& path) {
        HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
        if (handle == INVALID_HANDLE_VALUE) return "<missing>";
        std::string bytes;
        char buffer[65536];
        DWORD got;
        while (ReadFile(handle, buffer, sizeof buffer, &got, nullptr) && got)
            bytes.append(buffer, got);
        CloseHandle(handle);
        return bytes;
    }

private:
    std::wstring path_;
};
