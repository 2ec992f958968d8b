// The module's own file: the path the library was loaded from, recorded once. Interface
// requests need it to load the module again by name, the registration hook writes it to the
// registry, and the user text system reads the module's translation beside it.
#include <atomic>

#include <windows.h>

#include "base/path.h"
#include "base/text.h"
#include "factory/factory.h"
#include "usertext/usertext.h"

namespace {

std::atomic<wchar_t*> g_module_file{nullptr};

// "X:\name" or "\\server\share\name": a root that names a volume, and a file after it.
bool is_absolute_file_path(const wchar_t* path) {
    if (!path || !path[0]) return false;
    PathParts parts = path_parse(path);
    if (parts.error || !parts.rooted || parts.root_length == 0) return false;
    return path[parts.name_start] != 0;
}

// A module that is asked for interfaces reads its translation from beside its own file. A
// front-end has named its program first by then, and that choice stands.
void point_user_text_at_module() {
    const wchar_t* file = factory_module_file_name();
    if (!file) return;
    wchar_t path[usertext_path_capacity];
    usertext_set_module(file, path, usertext_path_capacity);
}

FACTORY_MODULE_INITIALIZER(user_text_module, point_user_text_at_module);

} // namespace

const wchar_t* factory_module_file_name() {
    return g_module_file.load(std::memory_order_acquire);
}

bool factory_record_module_file_name(const wchar_t* path) {
    if (g_module_file.load(std::memory_order_acquire) || !is_absolute_file_path(path)) return false;
    wchar_t* copy = text_duplicate(path);
    if (!copy) return false;
    wchar_t* expected = nullptr;
    if (g_module_file.compare_exchange_strong(expected, copy, std::memory_order_acq_rel))
        return true;
    text_free(copy);
    return false;
}

// Only the DLL's loader calls this; in a program that links the library's objects the module
// file stays unrecorded until an interface request names it.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
    // Thread notifications stay on: the static runtime frees thread-local data through them.
    if (reason == DLL_PROCESS_ATTACH) {
        // GetModuleFileNameW truncates silently: a full buffer means the path did not fit.
        wchar_t small[MAX_PATH];
        DWORD length = GetModuleFileNameW(instance, small, MAX_PATH);
        if (length && length < MAX_PATH) {
            factory_record_module_file_name(small);
        } else if (length) {
            constexpr DWORD long_capacity = 32768;
            wchar_t* path = text_allocate(long_capacity);
            if (path) {
                length = GetModuleFileNameW(instance, path, long_capacity);
                if (length && length < long_capacity) factory_record_module_file_name(path);
                text_free(path);
            }
        }
    }
    return TRUE;
}
