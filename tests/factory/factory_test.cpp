// The factory exports as this test program's own copy of the library serves them: interface
// ids, argument checks, first-call initialisation and the registration hooks. The module's
// lifetime is tested with the real DLL (module_lifetime_test.cpp).
#include <gtest/gtest.h>

#include <string>

#include <zun/factory.h>
#include <zun/marshaller.h>

#include "base/test_support.h"
#include "factory/factory.h"

namespace {

int g_initializer_runs = 0;
void count_initializer_run() {
    ++g_initializer_runs;
}
FACTORY_MODULE_INITIALIZER(test_initializer, count_initializer_run);

// Registration hooks run in reverse order of registration: `failing` first, then `recording`.
// Each logs "<hook> <operation>" and the context it got.
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

void* const kUntouched = reinterpret_cast<void*>(0x5A5A);

} // namespace

TEST(Factory, MarshallerIdsGiveTheTableOfTheirVersion) {
    HMODULE self = GetModuleHandleW(nullptr);
    for (int version = 1; version <= 6; ++version) {
        std::string id = "ZunMarshaller" + std::to_string(version);
        void* table = nullptr;
        ASSERT_EQ(FactoryMainGetInterface2(&self, nullptr, id.c_str(), &table), 0u) << id;
        ASSERT_NE(table, nullptr);
        // Every table starts with Release and, at slot 4, IdentifyScriptHeader: data without a
        // "#!" line give 11 whatever the version.
        auto* marshaller = static_cast<zun::MarshallerV2*>(table);
        EXPECT_EQ(marshaller->IdentifyScriptHeader("plain", 5, "memfs"), 11u) << id;
        EXPECT_GE(factory_live_objects(), 1);
        marshaller->Release();
    }
    EXPECT_EQ(factory_live_objects(), 0);
    EXPECT_EQ(self, GetModuleHandleW(nullptr)); // the caller's handle came back
}

TEST(Factory, UnknownIdsAndMissingArguments) {
    HMODULE self = GetModuleHandleW(nullptr);
    // Ids compare exactly: no other version, case or prefix matches.
    for (const char* id : {"ZunApi8", "zunmarshaller6", "ZunMarshaller", "ZunMarshaller60", "",
                           static_cast<const char*>(nullptr)}) {
        void* out = kUntouched;
        EXPECT_EQ(FactoryMainGetInterface2(&self, nullptr, id, &out), 123u) << (id ? id : "null");
        EXPECT_EQ(out, nullptr);
    }
    void* out = kUntouched;
    EXPECT_EQ(FactoryMainGetInterface2(nullptr, nullptr, "ZunMarshaller6", &out), 87u);
    EXPECT_EQ(out, kUntouched);
    EXPECT_EQ(FactoryMainGetInterface2(&self, nullptr, "ZunMarshaller6", nullptr), 87u);
    EXPECT_EQ(factory_live_objects(), 0);
}

TEST(Factory, RegistrationRunsEveryHookWithTheContext) {
    int context = 0;
    EXPECT_EQ(FactoryRegister1(nullptr, nullptr, &context, 2), 120u);
    EXPECT_EQ(FactoryRegister1(nullptr, nullptr, &context, -1), 120u);
    EXPECT_EQ(g_hook_log, "");

    // Unregistering: the library's own hook finds nothing of this program's to remove, so the
    // result is the failing hook's, and the hook after it still ran.
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
    HMODULE self = GetModuleHandleW(nullptr);
    EXPECT_EQ(g_initializer_runs, 0);
    EXPECT_EQ(FactoryMainGetInterface2(&self, path, nullptr, nullptr), 87u);
    EXPECT_EQ(g_initializer_runs, 1);
    const wchar_t* recorded = factory_module_file_name();
    if (role == "absolute" || role == "unc") {
        ASSERT_NE(recorded, nullptr);
        EXPECT_STREQ(recorded, path);
    } else {
        EXPECT_EQ(recorded, nullptr); // no absolute path of a file
    }
    // Later calls neither run the initialisers again nor record another name.
    EXPECT_EQ(FactoryRegister1(nullptr, L"D:\\other\\zunapi.dll", nullptr, 5), 120u);
    EXPECT_EQ(g_initializer_runs, 1);
    if (role == "absolute") {
        EXPECT_STREQ(factory_module_file_name(), path);
    }
}

TEST(FactoryFirstCall, RecordsOnlyAnAbsoluteFilePath) {
    for (const char* role : {"absolute", "unc", "relative", "root"}) {
        ChildResult child = run_child("FactoryFirstCall.Child", role);
        ASSERT_TRUE(child.started);
        EXPECT_EQ(child.exit_code, 0u) << role << "\n" << child.output;
    }
}
