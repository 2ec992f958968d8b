// The class key's "zunapi" value (HKEY_LOCAL_MACHINE "SOFTWARE\Classes\KestiFileMount"), saved
// for the length of a test and restored after it.
#pragma once

#include <string>

#include <windows.h>

class SavedLibraryValue {
public:
    SavedLibraryValue() {
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\KestiFileMount", 0, nullptr, 0,
                        KEY_ALL_ACCESS, nullptr, &key_, nullptr);
        had_ = RegQueryValueExW(key_, L"zunapi", nullptr, &type_, reinterpret_cast<BYTE*>(saved_),
                                &bytes_) == ERROR_SUCCESS;
    }
    ~SavedLibraryValue() {
        if (had_)
            RegSetValueExW(key_, L"zunapi", 0, type_, reinterpret_cast<BYTE*>(saved_), bytes_);
        else
            remove();
        RegCloseKey(key_);
    }
    SavedLibraryValue(const SavedLibraryValue&) = delete;
    SavedLibraryValue& operator=(const SavedLibraryValue&) = delete;

    void set(const std::wstring& path) {
        RegSetValueExW(key_, L"zunapi", 0, REG_SZ, reinterpret_cast<const BYTE*>(path.c_str()),
                       static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    }
    void remove() { RegDeleteValueW(key_, L"zunapi"); }

private:
    HKEY key_ = nullptr;
    bool had_ = false;
    DWORD type_ = 0;
    DWORD bytes_ = 600;
    wchar_t saved_[301] = {};
};
