// The process's sync state: the keyed events every wait word parks on, the buckets of the
// event-bridge cache, and the bookkeeping of tracked threads and exit routines. Internal to the
// runtime; users see holds, pins, alarms and thread_start.
#pragma once

#include <atomic>
#include <cstdint>

#include <windows.h>
#include <winternl.h>

#include "base/sync.h"
#include "base/thread.h"

constexpr unsigned sync_keyed_event_count = 32;
constexpr unsigned sync_bucket_count = 32;

using NtWaitForKeyedEventFn = NTSTATUS(NTAPI*)(HANDLE, const void*, BOOLEAN, const LARGE_INTEGER*);
using NtReleaseKeyedEventFn = NTSTATUS(NTAPI*)(HANDLE, const void*, BOOLEAN,
                                               const LARGE_INTEGER*);

// A bucket of the per-thread bridge cache. One cache line each, so that threads hashed to
// different buckets do not share a line.
struct alignas(64) SyncBucket {
    Hold hold;
    EventBridge* free = nullptr;
};
static_assert(sizeof(SyncBucket) == 64);

// A thread started through thread_start.
struct ThreadRecord {
    ThreadRecord* next = nullptr;
    ThreadFunction function = nullptr;
    void* argument = nullptr;
    HANDLE handle = nullptr;              // stored by the starter under the lock
    std::atomic<uint32_t> end_mark{0};    // 0 while running; the end counter when it returned
    bool listed = false;                  // still on the thread list (under the lock)
};

struct alignas(64) SyncState {
    HANDLE keyed_events[sync_keyed_event_count] = {};
    NtWaitForKeyedEventFn wait_keyed = nullptr;
    NtReleaseKeyedEventFn release_keyed = nullptr;

    SyncBucket buckets[sync_bucket_count];

    // Thread list and exit routines (thread.cpp), under `lock`.
    CRITICAL_SECTION lock;
    ThreadRecord* threads = nullptr;
    uint32_t thread_count = 0;
    uint32_t ended_count = 0;
    std::atomic<uint32_t> end_counter{1}; // starts at 1: an end mark of 0 means "running"
    ExitRoutine* exit_routines = nullptr;
};

extern std::atomic<SyncState*> g_sync_state;

// wait_word_wait with the whole story of a time-out: a wait that timed out and then took a wake
// that was already under way reports wait_timed_out_wake_taken. A caller that knows a wake is
// coming after a plain wait_timed_out must still take it before the word's memory goes.
enum : int { wait_timed_out = 0, wait_woken = 1, wait_timed_out_wake_taken = 2 };
int wait_word_wait_outcome(WaitWord* word, int32_t timeout_ms);

// How many pause rounds wait_word_wait watches its word before it parks. Benchmarks set it to 0
// to measure parking alone.
extern std::atomic<uint32_t> g_wait_word_spin;

// Creates and publishes the sync state, or returns the one another thread published first.
// Null when it cannot be allocated, or after the process-exit teardown.
SyncState* sync_state_create();

// The sync state, created on first use.
inline SyncState* sync_state() {
    SyncState* state = g_sync_state.load(std::memory_order_acquire);
    return state ? state : sync_state_create();
}

// Bob Jenkins' lookup3 final mix; c is the result. Spreads addresses and thread ids over the
// keyed events and buckets.
inline uint32_t sync_hash(uint32_t a, uint32_t b, uint32_t c) {
    auto rot = [](uint32_t x, int k) { return (x << k) | (x >> (32 - k)); };
    c ^= b; c -= rot(b, 14);
    a ^= c; a -= rot(c, 11);
    b ^= a; b -= rot(a, 25);
    c ^= b; c -= rot(b, 16);
    a ^= c; a -= rot(c, 4);
    b ^= a; b -= rot(a, 14);
    c ^= b; c -= rot(b, 24);
    return c;
}

// Frees the bridge objects cached in the state's buckets (sync state teardown).
void event_bridge_cache_free(SyncState* state);
