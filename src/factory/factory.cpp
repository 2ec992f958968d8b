// The factory exports: interfaces by id, the module's unload, its system-wide registration and
// its version string.
#include "factory/factory.h"

#include <atomic>

#include <zun/factory.h>

#include "base/product.h"
#include "base/sync.h"
#include "factory/self_reference.h"

namespace {

// Filled by static initialisers before any call; read-only afterwards.
ModuleInitializer* g_initializers = nullptr;
InterfaceProvider* g_providers = nullptr;
RegistrationHook* g_hooks = nullptr;

std::atomic<bool> g_initialised{false};

// Shared by FactoryMainGetInterface2 and FactoryRegister1. The initialisers run outside the
// global lock, on the thread that set the flag; a concurrent first call does not wait for them.
// The factory lock needs no clearing here: it is ready zero-initialised, and objects made
// without the factory (a marshaller built in-process) may be counting under it already.
void first_call(const wchar_t* module_file_name) {
    if (g_initialised.load(std::memory_order_acquire)) return;
    if (module_file_name && !factory_module_file_name())
        factory_record_module_file_name(module_file_name);
    bool won = false;
    global_lock();
    if (!g_initialised.load(std::memory_order_relaxed)) {
        g_initialised.store(true, std::memory_order_release);
        won = true;
    }
    global_unlock();
    if (!won) return;
    for (ModuleInitializer* entry = g_initializers; entry; entry = entry->next) entry->function();
}

// Ids compare exactly, byte by byte; a null id is the empty string.
bool id_equal(const char* a, const char* b) {
    if (!a) a = "";
    if (!b) b = "";
    while (*a && *a == *b) ++a, ++b;
    return *a == *b;
}

} // namespace

int factory_add_initializer(ModuleInitializer* entry) {
    entry->next = g_initializers;
    g_initializers = entry;
    return 1;
}

int factory_add_provider(InterfaceProvider* entry) {
    entry->next = g_providers;
    g_providers = entry;
    return 1;
}

int factory_add_hook(RegistrationHook* entry) {
    entry->next = g_hooks;
    g_hooks = entry;
    return 1;
}

extern "C" uint32_t FactoryMainGetInterface2(HMODULE* module_handle,
                                             const wchar_t* module_file_name,
                                             const char* interface_id, void** interface_out) {
    first_call(module_file_name);
    if (!module_handle || !interface_out) return ERROR_INVALID_PARAMETER;

    self_reference_take(module_handle);
    uint32_t result = ERROR_INVALID_NAME;
    for (InterfaceProvider* entry = g_providers; entry; entry = entry->next) {
        if (id_equal(interface_id, entry->id)) {
            result = entry->get(interface_out);
            break;
        }
    }
    if (result) *interface_out = nullptr;
    self_reference_drop(module_handle);
    return result;
}

extern "C" uint32_t FactoryRegister1(void* reserved, const wchar_t* module_file_name, void* context,
                                     int32_t operation) {
    first_call(module_file_name);
    if (operation != kFactoryRegister && operation != kFactoryUnregister)
        return ERROR_CALL_NOT_IMPLEMENTED; // 120
    // Every step runs whatever the others return, so that as much as possible is (un)done.
    uint32_t result = 0;
    for (RegistrationHook* hook = g_hooks; hook; hook = hook->next) {
        uint32_t error = operation == kFactoryRegister ? hook->register_module(context)
                                                       : hook->unregister_module(context);
        if (error) result = error;
    }
    return result;
}

extern "C" const char factoryVersionString1[] = ZUN_PRODUCT_BUILD_TAG;

// COM asks whether the module may be unloaded: only when no object it handed out is alive.
extern "C" HRESULT WINAPI DllCanUnloadNow() {
    return factory_live_objects() == 0 ? S_OK : S_FALSE;
}
