// The module's strings: its name, the text file beside it and its "usertext" resource; and the
// language identifier that the translation chooses by.
#include <windows.h>

#include "base/file_open.h"
#include "base/format.h"
#include "base/io.h"
#include "base/owned_handle.h"
#include "base/sync.h"
#include "base/text.h"
#include "base/thread.h"
#include "usertext/usertext_module.h"

namespace {

// A larger file is read up to here: a text file is small, and a damaged or hostile one must not
// take the process's memory.
constexpr size_t file_limit = 200000;

RecursiveHold g_hold;
UserTextModule g_module;
bool g_module_taken = false; // under g_hold
ExitRoutine g_module_exit;
bool g_registry_read = false; // under g_hold
wchar_t g_registry_language[100];

void release_module() {
    if (g_module.file) HeapFree(GetProcessHeap(), 0, g_module.file);
    g_module.file = nullptr;
    g_module.file_size = 0;
    text_free(g_module.name);
    g_module.name = nullptr;
}

// The module's resource of type "usertext" named "file", used in place: the module stays loaded
// as long as the process runs (it is the running executable).
void find_resource(const wchar_t* module) {
    HMODULE handle;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, module, &handle)) return;
    HRSRC resource = FindResourceW(handle, L"file", L"usertext");
    if (!resource) return;
    HGLOBAL loaded = LoadResource(handle, resource);
    const void* bytes = loaded ? LockResource(loaded) : nullptr;
    if (!bytes) return;
    g_module.resource = static_cast<const char*>(bytes);
    g_module.resource_size = SizeofResource(handle, resource);
}

void read_file(const wchar_t* path) {
    OwnedHandle file;
    if (file_open(file.out(), path, file_open_read) != 0) return;
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file.get(), &size) || size.QuadPart <= 0) return;
    size_t wanted = static_cast<uint64_t>(size.QuadPart) < file_limit
                        ? static_cast<size_t>(size.QuadPart)
                        : file_limit;
    auto* block = static_cast<char*>(HeapAlloc(GetProcessHeap(), 0, wanted));
    if (!block) return;
    size_t have = 0;
    while (have < wanted) {
        size_t count = 0;
        if (io_read(file.get(), block + have, wanted - have, &count) != 0) {
            have = 0; // a failed read leaves no text
            break;
        }
        if (count == 0) break; // the file became shorter meanwhile
        have += count;
    }
    if (have == 0) {
        HeapFree(GetProcessHeap(), 0, block);
        return;
    }
    g_module.file = block;
    g_module.file_size = have;
}

} // namespace

RecursiveHold* usertext_hold() {
    return &g_hold;
}

const UserTextModule* usertext_module() {
    return &g_module;
}

void usertext_set_module(const wchar_t* module, wchar_t* path, size_t capacity) {
    if (!module) module = L"";
    size_t needed = text_format(path, capacity, L"%s.usertext", module);
    bool path_fits = capacity && needed < capacity;

    hold_acquire_recursive(&g_hold);
    if (!g_module_taken) {
        g_module_taken = true;
        g_module.name = text_duplicate(module);
        find_resource(module);
        // A path cut short would name another file: such a module has no text file.
        if (path_fits) read_file(path);
        exit_routine_add(&g_module_exit, release_module);
        usertext_arm_load();
    }
    hold_release_recursive(&g_hold);
}

void usertext_language(wchar_t* out, size_t capacity) {
    // The environment wins whenever it is set; the registry value is read once and kept.
    wchar_t from_environment[100];
    DWORD length = GetEnvironmentVariableW(L"KESTI_LANGID", from_environment, 100);
    if (length > 0 && length < 100) {
        text_copy(out, capacity, from_environment);
        return;
    }

    hold_acquire_recursive(&g_hold);
    if (!g_registry_read) {
        g_registry_read = true;
        HKEY key;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, L"Control Panel\\International", 0, KEY_QUERY_VALUE,
                          &key) == ERROR_SUCCESS) {
            wchar_t value[100] = {};
            DWORD type = 0;
            DWORD size = sizeof value - sizeof(wchar_t); // at most 99 characters
            if (RegQueryValueExW(key, L"sLanguage", nullptr, &type, reinterpret_cast<BYTE*>(value),
                                 &size) == ERROR_SUCCESS &&
                (type == REG_SZ || type == REG_EXPAND_SZ))
                text_copy(g_registry_language, 100, value);
            RegCloseKey(key);
        }
    }
    hold_release_recursive(&g_hold);
    text_copy(out, capacity, g_registry_language[0] ? g_registry_language : L"ENU");
}
