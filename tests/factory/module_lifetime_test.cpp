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
#include "factory/module_client.h"

namespace {

std::wstring library_path() {
    return test_program_directory() + L"\\zunapi.dll";
}

bool library_loaded() {
    return GetModuleHandleW(library_path().c_str()) != nullptr;
}

struct LibraryExports {
    FactoryMainGetInterface2Function get = nullptr;
    FactoryMainUnload2Function unload = nullptr;
    FactoryRegister1Function register_module = nullptr;
    HRESULT(WINAPI* can_unload_now)() = nullptr;
    const char* version = nullptr;
};

LibraryExports exports_of(HMODULE module) {
    LibraryExports e;
    auto entry = [&](const char* name) {
        return reinterpret_cast<void*>(GetProcAddress(module, name));
    };
    e.get = reinterpret_cast<FactoryMainGetInterface2Function>(entry("FactoryMainGetInterface2"));
    e.unload = reinterpret_cast<FactoryMainUnload2Function>(entry("FactoryMainUnload2"));
    e.register_module = reinterpret_cast<FactoryRegister1Function>(entry("FactoryRegister1"));
    e.can_unload_now = reinterpret_cast<HRESULT(WINAPI*)()>(entry("DllCanUnloadNow"));
    e.version = static_cast<const char*>(entry("factoryVersionString1"));
    return e;
}

HMODULE load_library() {
    return LoadLibraryExW(library_path().c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

} // namespace

TEST(ModuleLifetime, AnInterfaceKeepsTheModuleUntilReleasedAndUnloaded) {
    ASSERT_FALSE(library_loaded());
    HMODULE module = load_library();
    ASSERT_NE(module, nullptr);
    LibraryExports e = exports_of(module);
    ASSERT_TRUE(e.get && e.unload && e.register_module && e.can_unload_now && e.version);
    EXPECT_STREQ(e.version, "zun.1.0.0.165.x64.release - 2012.05.16");

    void* table = nullptr;
    std::wstring path = library_path();
    ASSERT_EQ(e.get(&module, path.c_str(), "ZunMarshaller6", &table), 0u);
    ASSERT_NE(table, nullptr);
    auto* marshaller = static_cast<zun::Marshaller*>(table);

    // The client lets go of its own handle at once.
    if (module) FreeLibrary(module);
    module = nullptr;
    ASSERT_TRUE(library_loaded());
    EXPECT_EQ(marshaller->IdentifyScriptHeader("plain", 5, "memfs"), 11u);
    EXPECT_EQ(e.can_unload_now(), S_FALSE);

    e.unload(&module); // an object is alive: nothing happens
    ASSERT_TRUE(library_loaded());

    marshaller->Release();
    EXPECT_EQ(e.can_unload_now(), S_OK);
    ASSERT_TRUE(library_loaded()); // the self-reference stays until the unload

    // The unload frees the module's last reference, so its code is unmapped on the way back.
    e.unload(&module);
    EXPECT_FALSE(library_loaded());
}

TEST(ModuleLifetime, ConcurrentClientsLeaveNoReferenceBehind) {
    HMODULE first = load_library();
    ASSERT_NE(first, nullptr);
    LibraryExports e = exports_of(first);
    std::wstring path = library_path();

    // Each round: a client loads the module, obtains a marshaller, frees its handle, uses the
    // marshaller and releases it; the module must stay mapped throughout.
    std::atomic<int> failures{0};
    auto client = [&] {
        for (int round = 0; round < 100; ++round) {
            HMODULE module = load_library();
            void* table = nullptr;
            if (!module || e.get(&module, path.c_str(), "ZunMarshaller3", &table) != 0) {
                ++failures;
                if (module) FreeLibrary(module);
                continue;
            }
            if (module) FreeLibrary(module);
            auto* marshaller = static_cast<zun::MarshallerV5*>(table);
            if (marshaller->IdentifyScriptHeader("x", 1, "memfs") != 11) ++failures;
            marshaller->Release();
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(client);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    FreeLibrary(first);
    ASSERT_TRUE(library_loaded()); // held by its self-reference alone
    HMODULE none = nullptr;
    e.unload(&none);
    EXPECT_FALSE(library_loaded());
}

// The library location hook writes the module's own path (recorded when it was loaded, not
// the one a caller passes) and removes it only while it still names this module.
TEST(ModuleLifetime, RegistrationWritesAndRemovesTheLibraryLocation) {
    const wchar_t* key_path = L"SOFTWARE\\Classes\\KestiFileMount";
    HKEY key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key_path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &key, nullptr),
              ERROR_SUCCESS);
    wchar_t saved[301] = {};
    DWORD saved_bytes = 600, saved_type = 0;
    bool had_value =
        RegQueryValueExW(key, L"zunapi", nullptr, &saved_type, reinterpret_cast<BYTE*>(saved),
                         &saved_bytes) == ERROR_SUCCESS;

    HMODULE module = load_library();
    ASSERT_NE(module, nullptr);
    LibraryExports e = exports_of(module);
    EXPECT_EQ(e.register_module(nullptr, L"C:\\elsewhere\\zunapi.dll", nullptr, kFactoryRegister),
              0u);
    wchar_t read[module_path_capacity];
    ASSERT_EQ(module_path_read(L"KestiFileMount", L"zunapi", read, module_path_capacity), 0u);
    EXPECT_EQ(_wcsicmp(read, library_path().c_str()), 0);

    // Another library's registration is left alone.
    const wchar_t other[] = L"C:\\other\\zunapi.dll";
    RegSetValueExW(key, L"zunapi", 0, REG_SZ, reinterpret_cast<const BYTE*>(other), sizeof other);
    EXPECT_EQ(e.register_module(nullptr, nullptr, nullptr, kFactoryUnregister), 0u);
    ASSERT_EQ(module_path_read(L"KestiFileMount", L"zunapi", read, module_path_capacity), 0u);
    EXPECT_STREQ(read, other);

    EXPECT_EQ(e.register_module(nullptr, nullptr, nullptr, kFactoryRegister), 0u);
    EXPECT_EQ(e.register_module(nullptr, nullptr, nullptr, kFactoryUnregister), 0u);
    EXPECT_EQ(module_path_read(L"KestiFileMount", L"zunapi", read, module_path_capacity),
              static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));

    if (had_value)
        RegSetValueExW(key, L"zunapi", 0, saved_type, reinterpret_cast<const BYTE*>(saved),
                       saved_bytes);
    RegCloseKey(key);
    HMODULE none = nullptr;
    e.unload(&none);
    FreeLibrary(module);
    EXPECT_FALSE(library_loaded());
}

// A client module cached in a record: found through the registry, kept between requests and
// unloaded by the process-exit work. In a child, because the exit work ends the runtime.
TEST(ClientModule, Child) {
    if (child_role() != "client")
        GTEST_SKIP() << "runs as a child of ClientModule.CachedAndUnloadedAtExit";
    const wchar_t* key_name = L"ZunFactoryTestClass";
    HKEY key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, key_name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &key, nullptr),
              ERROR_SUCCESS);
    auto set = [&](const wchar_t* name, DWORD type, const std::wstring& text) {
        RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                       static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    };
    // The folder through an environment variable: the value is expanded.
    SetEnvironmentVariableW(L"ZUN_TEST_BIN", test_program_directory().c_str());
    set(L"library", REG_EXPAND_SZ, L"%ZUN_TEST_BIN%\\zunapi.dll");
    set(L"missing", REG_SZ, test_program_directory() + L"\\no-such-module.dll");
    DWORD number = 1;
    RegSetValueExW(key, L"number", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                   sizeof number);
    RegCloseKey(key);

    void* table = nullptr;
    static ClientModule wrong_type = {key_name, L"number"};
    EXPECT_EQ(client_module_get_interface(&wrong_type, "ZunMarshaller6", &table), 2u);
    static ClientModule absent = {key_name, L"absent"};
    EXPECT_EQ(client_module_get_interface(&absent, "ZunMarshaller6", &table), 2u);
    static ClientModule missing = {key_name, L"missing"};
    EXPECT_EQ(client_module_get_interface(&missing, "ZunMarshaller6", &table),
              static_cast<uint32_t>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(table, nullptr);

    static ClientModule record = {key_name, L"library"};
    for (const char* id : {"ZunMarshaller6", "ZunMarshaller1", "ZunApi8"}) {
        uint32_t error = client_module_get_interface(&record, id, &table);
        if (std::string(id) == "ZunApi8") {
            EXPECT_EQ(error, 123u);
            continue;
        }
        ASSERT_EQ(error, 0u) << id;
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
