// The client side of the factory: how any part of the system reaches a module's interfaces.
// The module is found by a value of the class key under HKEY_CLASSES_ROOT ("zunapi" for the
// library itself, "formatter.<name>" for a formatter), loaded by path, asked for an interface
// id and, once every interface is released, unloaded through its FactoryMainUnload2.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <windows.h>

// Capacity of a module path read from the registry: at most 600 bytes of value data.
constexpr size_t module_path_capacity = 300;

// Reads the string value `value` of HKEY_CLASSES_ROOT\`key` into `path` (REG_EXPAND_SZ is
// expanded). 0, or the registry's error; 2 when the value is not a string, 234 when it does not
// fit.
uint32_t module_path_read(const wchar_t* key, const wchar_t* value, wchar_t* path, size_t capacity);

// Asks the loaded module behind *module for `id`. *module is the caller's handle variable: the
// module may take the reference over and give it back later (see zun/factory.h). `path` is the
// path the module was loaded by, or null. A module without the entry gives GetLastError's code.
uint32_t module_get_interface(HMODULE* module, const wchar_t* path, const char* id, void** out);

// Loads `path` and asks it for `id`. On success *module holds the reference to give back with
// module_unload once the interface is released; on failure it is null and nothing is held.
uint32_t module_open_interface(const wchar_t* path, const char* id, HMODULE* module, void** out);

// FactoryMainUnload2, then FreeLibrary of the handle if the variable still holds one.
void module_unload(HMODULE* module);

// A module that a client uses repeatedly: loaded on first use, kept for the process, unloaded
// by the process-exit work. A static record, valid when constant-initialised:
//
//     ClientModule g_api_module = {product_class_key, product_library_value};
struct ClientModule {
    const wchar_t* key;
    const wchar_t* value;
    std::atomic<bool> used{false};        // set by the first use, which registers the unload
    std::atomic<HMODULE> module{nullptr}; // the cached reference, when no request holds it
    ClientModule* next = nullptr;         // the records the process-exit work unloads
};

// Obtains `id` from the record's module, loading the module when none is cached. The module
// stays loaded until the process-exit work. Errors: those of module_path_read, loading (the
// loader's code) and the module's own.
uint32_t client_module_get_interface(ClientModule* record, const char* id, void** out);

// The library module as registered under the class key, for the mount API and its clients.
ClientModule* library_client_module();
