#include "factory/self_reference.h"

#include <atomic>

#include <zun/factory.h>

#include "base/sync.h"
#include "factory/factory.h"

namespace {

// The factory lock guards the count and the self-reference. Module loading and freeing never
// run under it: they take the loader lock, which a DllMain may hold while it waits for us.
Hold g_lock;
std::atomic<int32_t> g_live{0};
std::atomic<HMODULE> g_self{nullptr};

using GetModuleHandleExWFunction = BOOL(WINAPI*)(DWORD, const wchar_t*, HMODULE*);

// GetModuleHandleExW is looked up rather than imported: systems before XP lack it, and the
// module must still load there and fall back to loading itself by name.
GetModuleHandleExWFunction get_module_handle_ex() {
    static std::atomic<bool> done{false};
    static GetModuleHandleExWFunction function = nullptr;
    run_once(done, [] {
        HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
        if (kernel32)
            function = reinterpret_cast<GetModuleHandleExWFunction>(
                reinterpret_cast<void*>(GetProcAddress(kernel32, "GetModuleHandleExW")));
    });
    return function;
}

// One more reference on the module whose handle is `module`: the handle again, or null.
HMODULE add_module_reference(HMODULE module) {
    if (GetModuleHandleExWFunction get = get_module_handle_ex()) {
        HMODULE again = nullptr;
        // A module handle is the module's base address, so it lies inside the module.
        if (get(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<const wchar_t*>(module),
                &again)) {
            if (again == module) return again;
            FreeLibrary(again);
        }
    }
    const wchar_t* file = factory_module_file_name();
    if (!file) {
        SetLastError(ERROR_NOT_FOUND);
        return nullptr;
    }
    HMODULE loaded = LoadLibraryExW(file, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (loaded == module) return loaded;
    // The file by that name is some other module: it is no reference on this one.
    if (loaded) FreeLibrary(loaded);
    SetLastError(ERROR_NOT_FOUND);
    return nullptr;
}

} // namespace

void factory_object_created() {
    HoldGuard guard(&g_lock);
    g_live.fetch_add(1, std::memory_order_acq_rel);
}

void factory_object_destroyed() {
    HoldGuard guard(&g_lock);
    g_live.fetch_sub(1, std::memory_order_acq_rel);
}

int32_t factory_live_objects() {
    HoldGuard guard(&g_lock);
    return g_live.load(std::memory_order_acquire);
}

void self_reference_take(HMODULE* caller) {
    HMODULE extra = nullptr;
    if (!g_self.load(std::memory_order_acquire) && *caller) extra = add_module_reference(*caller);
    {
        HoldGuard guard(&g_lock);
        g_live.fetch_add(1, std::memory_order_acq_rel);
        if (!g_self.load(std::memory_order_relaxed) && *caller) {
            g_self.store(*caller, std::memory_order_release);
            // Without a reference of its own the module borrows the caller's until the drop.
            if (!extra) *caller = nullptr;
            extra = nullptr;
        }
    }
    // Another request made the self-reference meanwhile.
    if (extra) FreeLibrary(extra);
}

void self_reference_drop(HMODULE* caller) {
    HMODULE taken = nullptr;
    {
        HoldGuard guard(&g_lock);
        if (g_live.fetch_sub(1, std::memory_order_acq_rel) == 1)
            taken = g_self.exchange(nullptr, std::memory_order_acq_rel);
    }
    if (!taken) return;
    // The caller still holds its own reference, so this is never the module's last one.
    if (*caller)
        FreeLibrary(taken);
    else
        *caller = taken; // the borrowed reference goes back; the caller's FreeLibrary balances it
}

// The locked half of FactoryMainUnload2: the self-reference when no object is alive, else null.
extern "C" HMODULE factory_unload_take() {
    HoldGuard guard(&g_lock);
    if (g_live.load(std::memory_order_acquire) != 0) return nullptr;
    return g_self.exchange(nullptr, std::memory_order_acq_rel);
}

// FactoryMainUnload2 may free the module's last reference, and FreeLibrary then unmaps the code
// it was called from. So the export does not call FreeLibrary and return: it jumps to it, and
// FreeLibrary returns straight to our caller (the way FreeLibraryAndExitThread exists for
// threads). The frame is gone by then, so nothing of ours runs after the unmap.
#if defined(__x86_64__)
asm(R"(
    .text
    .globl FactoryMainUnload2
    .def FactoryMainUnload2; .scl 2; .type 32; .endef
    .seh_proc FactoryMainUnload2
FactoryMainUnload2:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    call factory_unload_take
    testq %rax, %rax
    jz 1f
    movq %rax, %rcx
    addq $40, %rsp
    rex.W jmp *__imp_FreeLibrary(%rip)
1:
    addq $40, %rsp
    ret
    .seh_endproc
)");
#else
#error "FactoryMainUnload2 needs its tail jump to FreeLibrary written for this architecture"
#endif
