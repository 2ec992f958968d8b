#include "base/sync_state.h"

#include <cstdlib>
#include <new>

#include "base/fatal.h"
#include "base/vm.h"

std::atomic<SyncState*> g_sync_state{nullptr};

namespace {

// Set once the teardown has run: from then on the process is past its exit work, and holds and
// pins fall back to their degraded form instead of building a second state.
std::atomic<bool> g_torn_down{false};

using NtCreateKeyedEventFn = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, void*, ULONG);

// KEYEDEVENT_WAIT | KEYEDEVENT_WAKE | STANDARD_RIGHTS_REQUIRED.
constexpr ACCESS_MASK keyed_event_all_access = 0x000F0003;

void destroy(SyncState* state) {
    for (HANDLE event : state->keyed_events)
        if (event) CloseHandle(event);
    DeleteCriticalSection(&state->lock);
    state->~SyncState();
    vm_free(state, sizeof(SyncState));
}

// At process exit (the runtime library's exit list; for the DLL that is its process detach):
// finish the exit work, then give back the events and the block.
void teardown() {
    process_exit_work();
    g_torn_down.store(true, std::memory_order_release);
    SyncState* state = g_sync_state.exchange(nullptr, std::memory_order_acq_rel);
    if (!state) return;
    event_bridge_cache_free(state);
    destroy(state);
}

} // namespace

SyncState* sync_state_create() {
    if (g_torn_down.load(std::memory_order_acquire)) return nullptr;
    void* block = vm_alloc(sizeof(SyncState));
    if (!block) return nullptr;
    SyncState* state = new (block) SyncState();

    // Keyed events are not in the SDK's import library on every target: look them up by name.
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    auto create = reinterpret_cast<NtCreateKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCreateKeyedEvent")));
    state->wait_keyed = reinterpret_cast<NtWaitForKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtWaitForKeyedEvent")));
    state->release_keyed = reinterpret_cast<NtReleaseKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtReleaseKeyedEvent")));
    if (!create || !state->wait_keyed || !state->release_keyed)
        fatal_assert("base\\kssync", __LINE__, nullptr);
    for (HANDLE& event : state->keyed_events)
        if (!NT_SUCCESS(create(&event, keyed_event_all_access, nullptr, 0)))
            fatal_assert("base\\kssync", __LINE__, nullptr);
    InitializeCriticalSection(&state->lock);

    SyncState* published = nullptr;
    if (!g_sync_state.compare_exchange_strong(published, state, std::memory_order_acq_rel)) {
        destroy(state); // another thread won the race; use its state
        return published;
    }
    atexit(teardown);
    return state;
}
