// zun/factory.h: how a module hands out its interfaces, and how a client reaches them.
//
// Every module of the system (the library itself, and every formatter module that follows the
// same rules) exports FactoryMainGetInterface2, which hands out an interface by an ASCII id
// such as "ZunMarshaller6". A client never links against a module:
//
//   1. load it by path: LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
//   2. look up "FactoryMainGetInterface2" and call it with the address of the variable that
//      holds the module handle, the path, the id and an out pointer;
//   3. once every interface is released, look up "FactoryMainUnload2", call it with the same
//      variable's address, and FreeLibrary the handle if the variable is still non-null.
//
// The module keeps itself loaded for as long as an interface it handed out is alive, so the
// client may free its handle right after step 2. To do so, the call may take over the caller's
// handle (the variable then reads null) and give it back later; that is why the handle is
// passed by address.
#pragma once

#include <stdint.h>
#include <windows.h>

extern "C" {

// Hands out the interface `interface_id` in *interface_out: 0, or a Windows error code and
// null (123 for an id the module does not serve). A null module_handle or interface_out gives
// 87 and leaves *interface_out alone; such a call only initialises the module. module_file_name
// is the path the caller loaded the module by, or null.
using FactoryMainGetInterface2Function = uint32_t (*)(HMODULE* module_handle,
                                                      const wchar_t* module_file_name,
                                                      const char* interface_id,
                                                      void** interface_out);

// Lets the module drop the reference it holds on itself once no interface is alive. The
// argument is the client's handle variable; it is not changed.
using FactoryMainUnload2Function = void (*)(HMODULE* module_handle);

// System-wide registration (operation 0) or unregistration (operation 1) of the module; context
// is handed to each of the module's registration steps. 120 for any other operation.
using FactoryRegister1Function = uint32_t (*)(void* reserved, const wchar_t* module_file_name,
                                              void* context, int32_t operation);

constexpr int32_t kFactoryRegister = 0;
constexpr int32_t kFactoryUnregister = 1;

// The exports of the library module (zunapi.dll). factoryVersionString1 is data: the module's
// build identification, NUL-terminated ASCII.
uint32_t FactoryMainGetInterface2(HMODULE* module_handle, const wchar_t* module_file_name,
                                  const char* interface_id, void** interface_out);
void FactoryMainUnload2(HMODULE* module_handle);
uint32_t FactoryRegister1(void* reserved, const wchar_t* module_file_name, void* context,
                          int32_t operation);
extern const char factoryVersionString1[];

} // extern "C"
