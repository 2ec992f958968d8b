// How a front-end executable finds the library: the module named by the "zunapi" value of the
// class key KestiFileMount (HKEY_CLASSES_ROOT), else zunapi.dll beside the executable. The
// executables carry nothing else: every text, switch and command lives in the library.
#pragma once

#include <windows.h>

namespace library_entry_detail {

// The registered library path, expanded; false when there is none.
inline bool registered_library(wchar_t* path, DWORD capacity) {
    HKEY key;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, L"KestiFileMount", 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    wchar_t data[301] = {};
    DWORD type = 0;
    DWORD bytes = 300 * sizeof(wchar_t);
    LSTATUS status =
        RegQueryValueExW(key, L"zunapi", nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ) || !data[0])
        return false;
    DWORD needed = ExpandEnvironmentStringsW(data, path, capacity);
    return needed && needed <= capacity;
}

// zunapi.dll in the executable's own folder.
inline bool neighbouring_library(wchar_t* path, DWORD capacity) {
    DWORD length = GetModuleFileNameW(nullptr, path, capacity);
    if (!length || length >= capacity) return false;
    while (length && path[length - 1] != L'\\' && path[length - 1] != L'/') --length;
    const wchar_t name[] = L"zunapi.dll";
    if (length + sizeof name / sizeof name[0] > capacity) return false;
    for (DWORD i = 0; i < sizeof name / sizeof name[0]; ++i) path[length + i] = name[i];
    return true;
}

inline HMODULE load(const wchar_t* path) {
    return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

} // namespace library_entry_detail

// The library's export `name`, or null with the loader's error in GetLastError. The library
// stays loaded for the rest of the process.
inline FARPROC library_entry(const char* name) {
    using namespace library_entry_detail;
    wchar_t path[MAX_PATH * 2];
    HMODULE library = nullptr;
    if (registered_library(path, MAX_PATH * 2)) library = load(path);
    if (!library && neighbouring_library(path, MAX_PATH * 2)) library = load(path);
    if (!library) return nullptr;
    return GetProcAddress(library, name);
}

// Without the library there is no text to show: the loader's error is the exit code.
using ConsoleEntry = int (*)(int argc, const wchar_t* const* argv);
using WindowEntry = int (*)(HINSTANCE instance, HINSTANCE previous, const wchar_t* command_line);

inline int run_console_entry(const char* name, int argc, wchar_t** argv) {
    auto entry = reinterpret_cast<ConsoleEntry>(reinterpret_cast<void*>(library_entry(name)));
    if (!entry) return static_cast<int>(GetLastError());
    return entry(argc, argv);
}

inline int run_window_entry(const char* name, HINSTANCE instance, HINSTANCE previous,
                            const wchar_t* command_line) {
    auto entry = reinterpret_cast<WindowEntry>(reinterpret_cast<void*>(library_entry(name)));
    if (!entry) return static_cast<int>(GetLastError());
    return entry(instance, previous, command_line);
}
