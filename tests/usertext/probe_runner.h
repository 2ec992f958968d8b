// Runs the user text probe (usertext_probe.cpp) as a real process: a copy of it in a directory of
// its own, so that each test has its own text file beside the program.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <windows.h>

struct ProbeRun {
    DWORD exit_code = 0xDEAD;
    std::string out; // standard output, bytes as written
};

class ProbeDir {
public:
    explicit ProbeDir(const wchar_t* program = L"usertext_probe.exe") {
        static std::atomic<unsigned> counter{0};
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        dir_ = std::wstring(temp) + L"usertext_test_" + std::to_wstring(GetCurrentProcessId()) +
               L"_" + std::to_wstring(counter++);
        CreateDirectoryW(dir_.c_str(), nullptr);
        exe_ = dir_ + L"\\probe.exe";
        CopyFileW((program_directory() + L"\\" + program).c_str(), exe_.c_str(), FALSE);
    }

    ~ProbeDir() {
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((dir_ + L"\\*").c_str(), &found);
        if (search != INVALID_HANDLE_VALUE) {
            do {
                if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                    DeleteFileW((dir_ + L"\\" + found.cFileName).c_str());
            } while (FindNextFileW(search, &found));
            FindClose(search);
        }
        RemoveDirectoryW(dir_.c_str());
    }

    ProbeDir(const ProbeDir&) = delete;
    ProbeDir& operator=(const ProbeDir&) = delete;

    const std::wstring& exe() const { return exe_; }
    std::wstring path(const std::wstring& name) const { return dir_ + L"\\" + name; }
    std::wstring text_file() const { return exe_ + L".usertext"; }

    static void write(const std::wstring& path, const std::string& bytes) {
        HANDLE file =
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD written = 0;
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(file);
    }

    static std::string read(const std::wstring& path) {
        std::string bytes;
        HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) return "<missing>";
        char buffer[65536];
        DWORD got;
        while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got)
            bytes.append(buffer, got);
        CloseHandle(file);
        return bytes;
    }

    static bool exists(const std::wstring& path) {
        return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    // Runs the probe with the arguments; `environment` entries ("NAME=value") are added to this
    // process's environment without its KESTI_ variables.
    ProbeRun run(const std::wstring& arguments,
                 const std::vector<std::wstring>& environment = {}) const {
        ProbeRun result;
        std::wstring block;
        wchar_t* strings = GetEnvironmentStringsW();
        for (const wchar_t* p = strings; *p; p += wcslen(p) + 1)
            if (_wcsnicmp(p, L"KESTI_", 6) != 0) block.append(p).push_back(0);
        FreeEnvironmentStringsW(strings);
        for (const std::wstring& entry : environment) block.append(entry).push_back(0);
        block.push_back(0);

        SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
        HANDLE read_end, write_end;
        if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) return result;
        SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = nullptr;
        startup.hStdOutput = write_end;
        startup.hStdError = write_end;
        PROCESS_INFORMATION process = {};
        std::wstring command = L"\"" + exe_ + L"\" " + arguments;
        BOOL started = CreateProcessW(exe_.c_str(), command.data(), nullptr, nullptr, TRUE,
                                      CREATE_UNICODE_ENVIRONMENT, block.data(), dir_.c_str(),
                                      &startup, &process);
        CloseHandle(write_end);
        if (started) {
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

private:
    static std::wstring program_directory() {
        wchar_t path[MAX_PATH];
        DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring directory(path, length);
        return directory.substr(0, directory.find_last_of(L'\\'));
    }

    std::wstring dir_;
    std::wstring exe_;
};
