// The registration step that makes the library findable: the class key's "zunapi" value names
// the module's own file, so that every client (inside the library or not) loads the same one.
#include <windows.h>

#include "base/format.h"
#include "base/product.h"
#include "base/text.h"
#include "base/upcase.h"
#include "factory/factory.h"

namespace {

constexpr uint32_t kRegistrationFailed = ERROR_GEN_FAILURE; // 31

// "SOFTWARE\Classes\KestiFileMount" of HKEY_LOCAL_MACHINE: the machine-wide half of
// HKEY_CLASSES_ROOT.
void class_key_path(wchar_t* out, size_t capacity) {
    text_format(out, capacity, L"SOFTWARE\\Classes\\%ls", product_class_key);
}

uint32_t library_location_register(void*) {
    const wchar_t* file = factory_module_file_name();
    if (!file) return kRegistrationFailed;
    wchar_t key_path[100];
    class_key_path(key_path, 100);
    HKEY key;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key_path, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
        return kRegistrationFailed;
    DWORD bytes = static_cast<DWORD>((text_length(file) + 1) * sizeof(wchar_t));
    LSTATUS status = RegSetValueExW(key, product_library_value, 0, REG_SZ,
                                    reinterpret_cast<const BYTE*>(file), bytes);
    RegCloseKey(key);
    return status == ERROR_SUCCESS ? 0 : kRegistrationFailed;
}

// Removes the value only when it names this module: another copy of the library that was
// registered later owns it.
uint32_t library_location_unregister(void*) {
    const wchar_t* file = factory_module_file_name();
    wchar_t key_path[100];
    class_key_path(key_path, 100);
    HKEY key;
    LSTATUS status =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, key_path, 0, KEY_QUERY_VALUE | KEY_SET_VALUE, &key);
    if (status == ERROR_FILE_NOT_FOUND) return 0;
    if (status != ERROR_SUCCESS) return kRegistrationFailed;

    uint32_t result = 0;
    wchar_t value[301] = {};
    DWORD type = 0;
    DWORD bytes = 300 * sizeof(wchar_t);
    status = RegQueryValueExW(key, product_library_value, nullptr, &type,
                              reinterpret_cast<BYTE*>(value), &bytes);
    // A longer value (ERROR_MORE_DATA) is no path this module could have been loaded by.
    if (status == ERROR_SUCCESS && (type == REG_SZ || type == REG_EXPAND_SZ) && file &&
        text_compare_nocase(value, file) == 0) {
        if (RegDeleteValueW(key, product_library_value) != ERROR_SUCCESS)
            result = kRegistrationFailed;
    }
    RegCloseKey(key);
    return result;
}

FACTORY_REGISTRATION_HOOK(library_location, library_location_register, library_location_unregister);

} // namespace
