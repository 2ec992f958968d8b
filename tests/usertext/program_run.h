// For tests that run programs as real processes: the run itself, a scratch folder to run them
// in, and registry values restored after a test. It brings the standard headers they use.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "base/test_support.h"

inline constexpr size_t npos = std::string::npos;

struct ProgramRun {
    DWORD exit_code = 0xDEAD; // also after a run that had to be ended
    std::string out;          // standard output and error, bytes as written
    // The exit code as a signed number, a blank and the output.
    std::string shown() const { return std::to_string(static_cast<int>(exit_code)) + " " + out; }
};

inline std::string narrow(const std::wstring& ascii) {
    return std::string(ascii.begin(), ascii.end());
}

// Runs `exe` in `directory`, with this process's environment less its KESTI_ variables plus
// `environment` ("NAME=value" each).
inline ProgramRun run_program(const std::wstring& exe, const std::wstring& arguments,
                              const std::wstring& directory = {},
                              const std::vector<std::wstring>& environment = {}) {
    ProgramRun result;
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
    STARTUPINFOW startup = {.cb = sizeof startup, .dwFlags = STARTF_USESTDHANDLES};
    startup.hStdOutput = startup.hStdError = write_end;
    PROCESS_INFORMATION process = {};
    std::wstring command = L"\"" + exe + L"\" " + arguments;
    CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                   block.data(), directory.empty() ? nullptr : directory.c_str(), &startup,
                   &process);
    CloseHandle(write_end);
    // Without a process every call below fails and the exit code stays as it was.
    std::thread reader = pipe_drain(read_end, &result.out);
    if (WaitForSingleObject(process.hProcess, 20000) != WAIT_OBJECT_0)
        TerminateProcess(process.hProcess, 0xDEAD);
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &result.exit_code);
    reader.join();
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    CloseHandle(read_end);
    return result;
}

// A copy of a program of the bin folder, with the `companions` it needs, in a temporary folder
// of its own, run there. Its text file is "<program>.usertext" beside the copy.
class ProgramCopy {
public:
    explicit ProgramCopy(const std::wstring& program, std::vector<std::wstring> companions = {})
        : name(program) {
        static std::atomic<unsigned> counter{0};
        folder_ =
            std::filesystem::temp_directory_path() /
            ("zun_test_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(counter++));
        std::filesystem::create_directories(folder_);
        companions.push_back(program);
        for (const std::wstring& file : companions)
            std::filesystem::copy_file(test_program_directory() + L"\\" + file, folder_ / file);
    }
    ~ProgramCopy() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    ProgramRun run(const std::wstring& arguments, std::vector<std::wstring> env = {}) const {
        return run_program(file(name), arguments, folder_.wstring(), env);
    }
    std::wstring file(const std::wstring& file) const { return (folder_ / file).wstring(); }
    void translate(const std::string& bytes) const {
        std::ofstream(folder_ / (name + L".usertext"), std::ios::binary) << bytes;
    }
    std::string read(const std::wstring& file) const {
        std::ifstream in(folder_ / file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    const std::wstring name;

private:
    std::filesystem::path folder_;
};

// A registry value, put back as it was (or removed) at the end of a test.
class SavedRegistryValue {
public:
    SavedRegistryValue(HKEY root, const wchar_t* key, const wchar_t* name)
        : root_(root), key_(key), name_(name) {}
    ~SavedRegistryValue() {
        had_ ? (void)RegSetKeyValueW(root_, key_, name_, type_, saved_, size_) : remove();
    }
    void set(const std::wstring& text) {
        RegSetKeyValueW(root_, key_, name_, REG_SZ, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }
    void remove() { RegDeleteKeyValueW(root_, key_, name_); }

private:
    HKEY root_;
    const wchar_t *key_, *name_;
    DWORD type_ = 0, size_ = 2048;
    BYTE saved_[2048];
    bool had_ =
        !RegGetValueW(root_, key_, name_, RRF_RT_ANY | RRF_NOEXPAND, &type_, saved_, &size_);
};
