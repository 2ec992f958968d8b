// The module side of the factory: the three lists that static initialisers fill before the
// first call, the live-object count that keeps the module loaded, and the module's own file.
//
// A list entry is a static record; its registration pushes it at the head of its list, so a
// list runs in reverse order of registration. Nothing is ever removed or freed. Register from
// namespace scope with the macros below:
//
//     FACTORY_INTERFACE(my_interface, "ZunSomething1", something_get);
//     FACTORY_MODULE_INITIALIZER(my_initializer, prepare_something);
//     FACTORY_REGISTRATION_HOOK(my_hook, something_register, something_unregister);
#pragma once

#include <cstdint>

#include <windows.h>

#include "factory/live_objects.h"

// Runs once, in list order, on the first call of FactoryMainGetInterface2 or FactoryRegister1.
struct ModuleInitializer {
    ModuleInitializer* next;
    void (*function)();
};

// Serves one interface id: `get` fills *out and returns 0, or returns a Windows error code.
struct InterfaceProvider {
    InterfaceProvider* next;
    const char* id;
    uint32_t (*get)(void** out);
};

// One step of FactoryRegister1: its register or unregister function gets the caller's context.
struct RegistrationHook {
    RegistrationHook* next;
    uint32_t (*register_module)(void* context);
    uint32_t (*unregister_module)(void* context);
};

int factory_add_initializer(ModuleInitializer* entry);
int factory_add_provider(InterfaceProvider* entry);
int factory_add_hook(RegistrationHook* entry);

#define FACTORY_MODULE_INITIALIZER(name, function)                                                 \
    static ModuleInitializer name##_entry = {nullptr, function};                                   \
    [[maybe_unused]] static const int name##_registered = factory_add_initializer(&name##_entry)
#define FACTORY_INTERFACE(name, id, get)                                                           \
    static InterfaceProvider name##_entry = {nullptr, id, get};                                    \
    [[maybe_unused]] static const int name##_registered = factory_add_provider(&name##_entry)
#define FACTORY_REGISTRATION_HOOK(name, register_module, unregister_module)                        \
    static RegistrationHook name##_entry = {nullptr, register_module, unregister_module};          \
    [[maybe_unused]] static const int name##_registered = factory_add_hook(&name##_entry)

// The module's own path: recorded when the module is loaded into a process (the library's
// process attach), else by the first call that passes an absolute path. Null until recorded.
const wchar_t* factory_module_file_name();

// Records `path` as the module's file unless one is recorded already. Only an absolute path
// ("X:\..." or "\\server\share\...") that ends in a file name is taken; returns whether this
// call recorded it.
bool factory_record_module_file_name(const wchar_t* path);
