// The factory exports: first as this test program's own copy of the library serves them (ids,
// arguments, first-call initialisation, registration hooks), then the real library loaded the
// way a client loads it, by path and through its exports only.
#include <gtest/gtest.h>

#include <zun/factory.h>
#include <zun/marshaller.h>

#include "base/test_support.h"
#include "base/thread.h"
#include "factory/factory.h"
#include "factory/module_client.h"
#include "usertext/program_run.h"

namespace {

int g_initializer_runs = 0;
FACTORY_MODULE_INITIALIZER(test_initializer, [] { ++g_initializer_runs; });

// Registration hooks run in reverse order of registration: `failing` first, then `recording`.
// Each logs "<hook><operation> " and the context it got.
std::string g_hook_log;
void* g_hook_context = nullptr;
template <char Hook, char Operation, uint32_t Result> uint32_t logging_hook(void* context) {
    g_hook_log += {Hook, Operation, ' '};
    g_hook_context = context;
    return Result;
}
FACTORY_REGISTRATION_HOOK(recording_hook, (logging_hook<'r', 'R', 0>), (logging_hook<'r', 'U', 0>));
FACTORY_REGISTRATION_HOOK(failing_hook, (logging_hook<'f', 'R', ERROR_ACCESS_DENIED>),
                          (logging_hook<'f', 'U', ERROR_ACCESS_DENIED>));

const std::wstring library_path = test_program_directory() + L"\\zunapi.dll";

bool library_loaded() {
    return GetModuleHandleW(library_path.c_str()) != nullptr;
}

HMODULE load_library() {
    return LoadLibraryExW(library_path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

template <class T> T entry(HMODULE module, const char* name) {
    return reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

} // namespace

TEST(Factory, InterfaceIdsAndArguments) {
    HMODULE self = GetModuleHandleW(nullptr);
    for (int version = 1; version <= 6; ++version) {
        std::string id = "ZunMarshaller" + std::to_string(version);
        void* table = nullptr;
        ASSERT_EQ(FactoryMainGetInterface2(&self, nullptr, id.c_str(), &table), 0u) << id;
        // Every version's table starts with Release and has IdentifyScriptHeader at slot 4:
        // data without a "#!" line give 11.
        auto* marshaller = static_cast<zun::MarshallerV2*>(table);
        EXPECT_EQ(marshaller->IdentifyScriptHeader("plain", 5, "memfs"), 11u) << id;
        EXPECT_EQ(factory_live_objects(), 1);
        marshaller->Release();
    }
    EXPECT_EQ(factory_live_objects(), 0);
    EXPECT_EQ(self, GetModuleHandleW(nullptr)); // the caller's handle came back

    // Ids compare exactly: no other version, case or prefix matches.
    void* const untouched = &self;
    for (const char* id : {"ZunApi8", "zunmarshaller6", "ZunMarshaller", "ZunMarshaller60", "",
                           static_cast<const char*>(nullptr)}) {
        void* out = untouched;
        EXPECT_EQ(FactoryMainGetInterface2(&self, nullptr, id, &out), 123u) << (id ? id : "null");
        EXPECT_EQ(out, nullptr);
    }
    void* out = untouched;
    EXPECT_EQ(FactoryMainGetInterface2(nullptr, nullptr, "ZunMarshaller6", &out), 87u);
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(FactoryMainGetInterface2(&self, nullptr, "ZunMarshaller6", nullptr), 87u);
    EXPECT_EQ(factory_live_objects(), 0);
}

TEST(Factory, RegistrationRunsEveryHookWithTheContext) {
    int context = 0;
    EXPECT_EQ(FactoryRegister1(nullptr, nullptr, &context, 2), 120u);
    EXPECT_EQ(FactoryRegister1(nullptr, nullptr, &context, -1), 120u);
    EXPECT_EQ(g_hook_log, "");
    // The library's own hook finds nothing of this program's to remove, so the result is the
    // failing hook's, and the hook after it still ran.
    EXPECT_EQ(FactoryRegister1(nullptr, nullptr, &context, kFactoryUnregister),
              static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(g_hook_log, "fU rU ");
    EXPECT_EQ(g_hook_context, &context);
}

// First-call initialisation happens once per process, so each case runs in a child process of
// its own: the role names the path that the first call passes.
TEST(FactoryFirstCall, Child) {
    std::string role = child_role();
    if (role.empty()) GTEST_SKIP() << "runs as a child of the FirstCall tests";
    const wchar_t* path = role == "absolute"   ? L"C:\\modules\\zunapi.dll"
                          : role == "unc"      ? L"\\\\server\\share\\zunapi.dll"
                          : role == "relative" ? L"modules\\zunapi.dll"
                                               : L"C:\\";
    bool recorded = role == "absolute" || role == "unc"; // only an absolute path of a file
    HMODULE self = GetModuleHandleW(nullptr);
    EXPECT_EQ(g_initializer_runs, 0);
    EXPECT_EQ(FactoryMainGetInterface2(&self, path, nullptr, nullptr), 87u);
    EXPECT_EQ(g_initializer_runs, 1);
    EXPECT_STREQ(factory_module_file_name(), recorded ? path : nullptr);
    // Later calls neither run the initialisers again nor record another name.
    EXPECT_EQ(FactoryRegister1(nullptr, L"D:\\other\\zunapi.dll", nullptr, 5), 120u);
    EXPECT_EQ(g_initializer_runs, 1);
    EXPECT_STREQ(factory_module_file_name(), recorded ? path : nullptr);
}

TEST(FactoryFirstCall, RecordsOnlyAnAbsoluteFilePath) {
    for (const char* role : {"absolute", "unc", "relative", "root"}) {
        ChildResult child = run_child("FactoryFirstCall.Child", role);
        EXPECT_TRUE(child.started && child.exit_code == 0) << role << "\n" << child.output;
    }
}

TEST(ModuleLifetime, AnInterfaceKeepsTheModuleUntilReleasedAndUnloaded) {
    ASSERT_FALSE(library_loaded());
    HMODULE module = load_library();
    ASSERT_NE(module, nullptr);
    auto get = entry<FactoryMainGetInterface2Function>(module, "FactoryMainGetInterface2");
    auto unload = entry<FactoryMainUnload2Function>(module, "FactoryMainUnload2");
    auto can_unload_now = entry<HRESULT(WINAPI*)()>(module, "DllCanUnloadNow");
    ASSERT_TRUE(get && unload && can_unload_now);
    EXPECT_NE(entry<const char*>(module, "factoryVersionString1"), nullptr);

    // A client: obtain a marshaller, let go of the module handle at once, use the marshaller.
    auto client = [&](const char* id) {
        HMODULE handle = load_library();
        void* table = nullptr;
        uint32_t error = get(&handle, library_path.c_str(), id, &table);
        if (handle) FreeLibrary(handle);
        auto* marshaller = static_cast<zun::MarshallerV2*>(table);
        bool works = !error && marshaller->IdentifyScriptHeader("plain", 5, "memfs") == 11;
        return works ? marshaller : nullptr;
    };
    zun::MarshallerV2* marshaller = client("ZunMarshaller6");
    ASSERT_NE(marshaller, nullptr);
    FreeLibrary(module);
    ASSERT_TRUE(library_loaded());
    // Meanwhile other clients come and go on four threads.
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                zun::MarshallerV2* other = client("ZunMarshaller3");
                other ? other->Release() : (void)++failures;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    module = nullptr;
    EXPECT_EQ(can_unload_now(), S_FALSE);
    unload(&module); // an object is alive: nothing happens
    ASSERT_TRUE(library_loaded());
    marshaller->Release();
    EXPECT_EQ(can_unload_now(), S_OK);
    ASSERT_TRUE(library_loaded()); // the self-reference stays until the unload
    unload(&module);               // frees the last reference: the code is unmapped on return
    EXPECT_FALSE(library_loaded());
}

// The library location hook writes the module's own path (recorded when it was loaded, not
// the one a caller passes) and removes it only while it still names this module.
TEST(ModuleLifetime, RegistrationWritesAndRemovesTheLibraryLocation) {
    SavedRegistryValue value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\KestiFileMount", L"zunapi");
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
    EXPECT_EQ(_wcsicmp(registered().c_str(), library_path.c_str()), 0);
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
    const wchar_t* key = L"ZunFactoryTestClass";
    auto set = [&](const wchar_t* name, DWORD type, const std::wstring& text) {
        RegSetKeyValueW(HKEY_CLASSES_ROOT, key, name, type, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    };
    SetEnvironmentVariableW(L"ZUN_TEST_BIN", test_program_directory().c_str());
    set(L"library", REG_EXPAND_SZ, L"%ZUN_TEST_BIN%\\zunapi.dll");
    set(L"missing", REG_SZ, test_program_directory() + L"\\no-such-module.dll");

    void* table = nullptr;
    static ClientModule missing = {key, L"missing"}, record = {key, L"library"};
    EXPECT_EQ(client_module_get_interface(&missing, "ZunMarshaller6", &table),
              static_cast<uint32_t>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(client_module_get_interface(&record, "ZunApi8", &table), 123u);
    for (const char* id : {"ZunMarshaller6", "ZunMarshaller1"}) {
        ASSERT_EQ(client_module_get_interface(&record, id, &table), 0u) << id;
        static_cast<zun::MarshallerV2*>(table)->Release();
    }
    EXPECT_TRUE(library_loaded()); // cached between requests
    RegDeleteTreeW(HKEY_CLASSES_ROOT, key);
    process_exit_work();
    EXPECT_FALSE(library_loaded());
}

TEST(ClientModule, CachedAndUnloadedAtExit) {
    ChildResult child = run_child("ClientModule.Child", "client");
    EXPECT_TRUE(child.started && child.exit_code == 0) << child.output;
}
