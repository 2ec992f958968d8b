#include "factory/module_client.h"

#include <zun/factory.h>

#include "base/nt.h"
#include "base/product.h"
#include "base/sync.h"
#include "base/thread.h"

namespace {

// Every record that was used, unloaded together by one exit routine.
ClientModule* g_used_records = nullptr;
ExitRoutine g_unload_routine;
std::atomic<bool> g_unload_registered{false};

void unload_used_records() {
    // Once the process is past ExitProcess the modules are being detached in an order of the
    // loader's choosing; calling into one now could find it gone. They go with the process.
    if (RtlDllShutdownInProgress()) return;
    global_lock();
    ClientModule* records = g_used_records;
    global_unlock();
    for (ClientModule* record = records; record; record = record->next) {
        HMODULE module = record->module.exchange(nullptr, std::memory_order_acq_rel);
        if (module) module_unload(&module);
    }
}

void register_unload(ClientModule* record) {
    global_lock();
    record->next = g_used_records;
    g_used_records = record;
    global_unlock();
    if (!g_unload_registered.exchange(true, std::memory_order_acq_rel))
        exit_routine_add(&g_unload_routine, unload_used_records);
}

ClientModule g_library_module = {product_class_key, product_library_value};

} // namespace

uint32_t module_path_read(const wchar_t* key, const wchar_t* value, wchar_t* path,
                          size_t capacity) {
    if (capacity) path[0] = 0;
    HKEY handle;
    LSTATUS status = RegOpenKeyExW(HKEY_CLASSES_ROOT, key, 0, KEY_READ, &handle);
    if (status != ERROR_SUCCESS) return static_cast<uint32_t>(status);

    wchar_t data[module_path_capacity + 1] = {};
    DWORD type = 0;
    DWORD bytes = module_path_capacity * sizeof(wchar_t);
    status = RegQueryValueExW(handle, value, nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes);
    RegCloseKey(handle);
    if (status != ERROR_SUCCESS) return static_cast<uint32_t>(status);
    if (type != REG_SZ && type != REG_EXPAND_SZ) return ERROR_FILE_NOT_FOUND;
    // The data need not end in a terminator; `data` has one unit more than was read.
    data[bytes / sizeof(wchar_t)] = 0;

    if (type == REG_EXPAND_SZ) {
        DWORD needed = ExpandEnvironmentStringsW(data, path, static_cast<DWORD>(capacity));
        if (!needed) return GetLastError();
        if (needed > capacity) {
            if (capacity) path[0] = 0;
            return ERROR_MORE_DATA;
        }
        return 0;
    }
    size_t length = 0;
    while (data[length]) ++length;
    if (length >= capacity) return ERROR_MORE_DATA;
    for (size_t i = 0; i <= length; ++i) path[i] = data[i];
    return 0;
}

uint32_t module_get_interface(HMODULE* module, const wchar_t* path, const char* id, void** out) {
    *out = nullptr;
    auto get = reinterpret_cast<FactoryMainGetInterface2Function>(
        reinterpret_cast<void*>(GetProcAddress(*module, "FactoryMainGetInterface2")));
    if (!get) return GetLastError();
    return get(module, path, id, out);
}

uint32_t module_open_interface(const wchar_t* path, const char* id, HMODULE* module, void** out) {
    *out = nullptr;
    *module = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!*module) return GetLastError();
    uint32_t error = module_get_interface(module, path, id, out);
    if (error) module_unload(module);
    return error;
}

void module_unload(HMODULE* module) {
    if (!*module) return;
    auto unload = reinterpret_cast<FactoryMainUnload2Function>(
        reinterpret_cast<void*>(GetProcAddress(*module, "FactoryMainUnload2")));
    if (unload) unload(module);
    if (*module) FreeLibrary(*module);
    *module = nullptr;
}

uint32_t client_module_get_interface(ClientModule* record, const char* id, void** out) {
    *out = nullptr;
    if (!record->used.exchange(true, std::memory_order_acq_rel)) register_unload(record);

    // The cached reference is taken out for the request, so that no other thread unloads it
    // meanwhile; a thread that finds none loads its own.
    HMODULE module = record->module.exchange(nullptr, std::memory_order_acq_rel);
    uint32_t error = 0;
    wchar_t path[module_path_capacity];
    const wchar_t* loaded_by = nullptr;
    if (!module) {
        error = module_path_read(record->key, record->value, path, module_path_capacity);
        if (error) return error;
        module = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (!module) return GetLastError();
        loaded_by = path;
    }
    error = module_get_interface(&module, loaded_by, id, out);
    // The module may have taken the reference over (then it keeps itself loaded through the
    // interface, and the variable reads null). Cache what is left; another thread may have
    // cached a reference of its own meanwhile, and one of the two is enough.
    if (module) {
        HMODULE other = record->module.exchange(module, std::memory_order_acq_rel);
        if (other) FreeLibrary(other);
    }
    return error;
}

ClientModule* library_client_module() {
    return &g_library_module;
}
