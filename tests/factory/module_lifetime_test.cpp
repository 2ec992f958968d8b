// The real library loaded into this process the way a client loads it: by path, through its
// exports only. A live interface keeps the module mapped after the client let go of it.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include <zun/factory.h>
#include <zun/marshaller.h>

#include "base/child_process.h"
#include "base/test_support.h"
#include "base/thread.h"
#include "factory/library_value.h"
#include "factory/module_client.h"

namespace {

std::wstring library_path() {
    return test_program_directory() + L"\\zunapi.dll";
}

bool library_loaded() {
    return GetModuleHandleW(library_path().c_str()) != nullptr;
}

HMODULE load_library() {
    return LoadLibraryExW(library_path().c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

template <class T> T entry(HMODULE module, const char* name) {
    return reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

} // namespace

TEST(ModuleLifetime, AnInterfaceKeepsTheModuleUntilReleasedAndUnloaded) {
    ASSERT_FALSE(library_loaded());
    HMODULE module = load_library();
    ASSERT_NE(module, nullptr);
    auto get = entry<FactoryMainGetInterface2Function>(module, "FactoryMainGetInterface2");
    auto unload = entry<FactoryMainUnload2Function>(module, "FactoryMainUnload2");
    auto can_unload_now = entry<HRESULT(WINAPI*)()>(module, "DllCanUnloadNow");
    ASSERT_TRUE(get && unload && can_unload_now);
    EXPECT_STREQ(entry<const char*>(module, "factoryVersionString1"),
                 "zun.1.0.0.165.x64.release - 2012.05.16");

    void* table = nullptr;
    ASSERT_EQ(get(&module, library_path().c_str(), "ZunMarshaller6", &table), 0u);
    auto* marshaller = static_cast<zun::Marshaller*>(table);

    // The client lets go of its own handle at once.
    if (module) FreeLibrary(module);
    module = nullptr;
    ASSERT_TRUE(library_loaded());
    EXPECT_EQ(marshaller->IdentifyScriptHeader("plain", 5, "memfs"), 11u);
    EXPECT_EQ(can_unload_now(), S_FALSE);
    unload(&module); // an object is alive: nothing happens
    ASSERT_TRUE(library_loaded());

    marshaller->Release();
    EXPECT_EQ(can_unload_now(), S_OK);
    ASSERT_TRUE(library_loaded()); // the self-reference stays until the unload
    // The unload frees the module's last reference, so its code is unmapped on the way back.
    unload(&module);
    EXPECT_FALSE(library_loaded());
}

TEST(ModuleLifetime, ConcurrentClientsLeaveNoReferenceBehind) {
    HMODULE first = load_library();
    ASSERT_NE(first, nullptr);
    auto get = entry<FactoryMainGetInterface2Function>(first, "FactoryMainGetInterface2");
    auto unload = entry<FactoryMainUnload2Function>(first, "FactoryMainUnload2");

    // Each round: a client loads the module, obtains a marshaller, frees its handle, uses the
    // marshaller and releases it.
    std::atomic<int> failures{0};
    auto client = [&] {
        for (int round = 0; round < 100; ++round) {
            HMODULE module = load_library();
            void* table = nullptr;
            uint32_t error = get(&module, library_path().c_str(), "ZunMarshaller3", &table);
            if (module) FreeLibrary(module);
            auto* marshaller = static_cast<zun::MarshallerV5*>(table);
            if (error || marshaller->IdentifyScriptHeader("x", 1, "memfs") != 11) ++failures;
            if (marshaller) marshaller->Release();
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(client);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    FreeLibrary(first);
    ASSERT_TRUE(library_loaded()); // held by its self-reference alone
    HMODULE none = nullptr;
    unload(&none);
    EXPECT_FALSE(library_loaded());
}

// The library location hook writes the module's own path (recorded when it was loaded, not
// the one a caller passes) and removes it only while it still names this module.
TEST(ModuleLifetime, RegistrationWritesAndRemovesTheLibraryLocation) {
    SavedLibraryValue value;
    HMODULE module = load_library();
    ASSERT_NE(module, nullptr);
    auto register_module = entry<FactoryRegister1Function>(module, "FactoryRegister1");
    auto registered = [] {
        wchar_t path[module_path_capacity];
        uint32_t error = module_path_read(L"KestiFileMount", L"zunapi", path, module_path_capacity);
        return error ? L"error " + std::to_wstring(error) : std::wstring(path);
    };

    EXPECT_EQ(register_module(nullptr, L"C:\\elsewhere\\zunapi.dll", nullptr, kFactoryRegister),
              0u);
    EXPECT_EQ(_wcsicmp(registered().c_str(), library_path().c_str()), 0);
    EXPECT_EQ(register_module(nullptr, nullptr, nullptr, kFactoryUnregister), 0u);
    EXPECT_EQ(registered(), L"error 2");

    value.set(L"C:\\other\\zunapi.dll"); // another library's registration is left alone
    EXPECT_EQ(register_module(nullptr, nullptr, nullptr, kFactoryUnregister), 0u);
    EXPECT_EQ(registered(), L"C:\\other\\zunapi.dll");

    FreeLibrary(module);
    EXPECT_FALSE(library_loaded());
}

// A client module cached in a record: found through the registry, kept between requests and
// unloaded by the process-exit work. In a child, because the exit work ends the runtime.
TEST(ClientModule, Child) {
    if (child_role() != "client") GTEST_SKIP() << "runs as a child of CachedAndUnloadedAtExit";
    const wchar_t* key_name = L"ZunFactoryTestClass";
    HKEY key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, key_name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &key, nullptr),
              ERROR_SUCCESS);
    auto set = [&](const wchar_t* name, DWORD type, const std::wstring& text) {
        RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                       static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    };
    SetEnvironmentVariableW(L"ZUN_TEST_BIN", test_program_directory().c_str());
    set(L"library", REG_EXPAND_SZ, L"%ZUN_TEST_BIN%\\zunapi.dll");
    set(L"missing", REG_SZ, test_program_directory() + L"\\no-such-module.dll");
    set(L"binary", REG_BINARY, L"zunapi.dll");
    RegCloseKey(key);

    void* table = nullptr;
    static ClientModule binary = {key_name, L"binary"};
    EXPECT_EQ(client_module_get_interface(&binary, "ZunMarshaller6", &table), 2u);
    static ClientModule missing = {key_name, L"missing"};
    EXPECT_EQ(client_module_get_interface(&missing, "ZunMarshaller6", &table),
              static_cast<uint32_t>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(table, nullptr);

    static ClientModule record = {key_name, L"library"};
    EXPECT_EQ(client_module_get_interface(&record, "ZunApi8", &table), 123u);
    for (const char* id : {"ZunMarshaller6", "ZunMarshaller1"}) {
        ASSERT_EQ(client_module_get_interface(&record, id, &table), 0u) << id;
        static_cast<zun::MarshallerV2*>(table)->Release();
    }
    EXPECT_TRUE(library_loaded()); // cached between requests
    RegDeleteTreeW(HKEY_CLASSES_ROOT, key_name);
    process_exit_work();
    EXPECT_FALSE(library_loaded());
}

TEST(ClientModule, CachedAndUnloadedAtExit) {
    ChildResult child = run_child("ClientModule.Child", "client");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(child.exit_code, 0u) << child.output;
}
