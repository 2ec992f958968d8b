#include <cstddef>
#include <new>

#include "base/settle.h"
#include "base/sync_state.h"

// A bridge is 48 bytes: the waiter entry, the event, the registered mark and the cache link.
static_assert(sizeof(EventBridge) == 48);
static_assert(offsetof(EventBridge, entry) == 0);

namespace {

void bridge_fired(WaiterEntry* entry) {
    EventBridge* bridge = reinterpret_cast<EventBridge*>(entry);
    SetEvent(bridge->event);
    bridge->registered.store(0, std::memory_order_relaxed);
    entry->callback.store(nullptr, std::memory_order_release);
}

// Bridges are cached per thread, or nearly: a thread always uses the bucket its id hashes to,
// so a thread that waits again and again takes back the bridge (and event) it gave.
SyncBucket* bucket_of_current_thread(SyncState* state) {
    return &state->buckets[sync_hash(GetCurrentThreadId(), 0, 0) % sync_bucket_count];
}

} // namespace

EventBridge* event_bridge_take() {
    SyncState* state = sync_state();
    if (state) {
        SyncBucket* bucket = bucket_of_current_thread(state);
        hold_acquire(&bucket->hold);
        EventBridge* bridge = bucket->free;
        if (bridge) bucket->free = bridge->cache_next;
        hold_release(&bucket->hold);
        if (bridge) {
            bridge->cache_next = nullptr;
            return bridge;
        }
    }
    void* block = HeapAlloc(GetProcessHeap(), 0, sizeof(EventBridge));
    if (!block) return nullptr;
    // A notification (manual-reset) event: it stays set for every wait until disarm clears it.
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!event) {
        HeapFree(GetProcessHeap(), 0, block);
        return nullptr;
    }
    auto* bridge = new (block) EventBridge();
    bridge->event = event;
    return bridge;
}

void event_bridge_give(EventBridge* bridge) {
    SyncState* state = sync_state();
    if (!state) {
        CloseHandle(bridge->event);
        HeapFree(GetProcessHeap(), 0, bridge);
        return;
    }
    SyncBucket* bucket = bucket_of_current_thread(state);
    hold_acquire(&bucket->hold);
    bridge->cache_next = bucket->free;
    bucket->free = bridge;
    hold_release(&bucket->hold);
}

void event_bridge_arm(EventBridge* bridge, Signalable* object) {
    bridge->registered.store(1, std::memory_order_relaxed);
    bridge->entry.callback.store(bridge_fired, std::memory_order_release);
    if (!signalable_add_waiter(object, &bridge->entry)) {
        SetEvent(bridge->event);
        bridge->registered.store(0, std::memory_order_relaxed);
        bridge->entry.callback.store(nullptr, std::memory_order_release);
    }
}

void event_bridge_disarm(EventBridge* bridge, Signalable* object) {
    if (signalable_remove_waiter(object, &bridge->entry)) {
        bridge->registered.store(0, std::memory_order_relaxed);
        bridge->entry.callback.store(nullptr, std::memory_order_relaxed);
        return; // the callback never ran: the event is still clear
    }
    callback_settle(bridge->entry.callback);
    ResetEvent(bridge->event);
}

void event_bridge_cache_free(SyncState* state) {
    for (SyncBucket& bucket : state->buckets) {
        while (EventBridge* bridge = bucket.free) {
            bucket.free = bridge->cache_next;
            CloseHandle(bridge->event);
            HeapFree(GetProcessHeap(), 0, bridge);
        }
    }
}
