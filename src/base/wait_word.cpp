#include "base/sync_state.h"
#include "base/nt.h"
#include "base/tick.h"

std::atomic<uint32_t> g_wait_word_spin{100};

namespace {

uint32_t key_of(WaitWord* w) {
    uint32_t key = w->key.load(std::memory_order_relaxed);
    if (!key) {
        auto address = reinterpret_cast<uintptr_t>(&w->word);
        key = sync_hash(static_cast<uint32_t>(address), static_cast<uint32_t>(address >> 32), 0) |
              0x80000000u;
        w->key.store(key, std::memory_order_relaxed);
    }
    return key;
}

// Parking. This is the only place where a thread blocks on a wait word and where one is
// released. A keyed event matches a wait and a release with the same key (the word's address)
// on the same event handle; a release blocks until a waiter takes it, which is why a wake only
// releases when the word says a waiter is (or is about to be) blocked.

NTSTATUS park(SyncState* state, WaitWord* w, uint32_t key, const LARGE_INTEGER* timeout) {
    HANDLE event = state->keyed_events[key % sync_keyed_event_count];
    return state->wait_keyed(event, &w->word, FALSE, timeout);
}

void unpark(SyncState* state, WaitWord* w, uint32_t key) {
    HANDLE event = state->keyed_events[key % sync_keyed_event_count];
    state->release_keyed(event, &w->word, FALSE, nullptr);
}

// Without a sync state there are no keyed events (and wakes release nothing): poll the word.
int poll(WaitWord* w, int32_t timeout_ms) {
    uint64_t start = tick_now();
    while (w->word.load(std::memory_order_acquire) == -1) {
        if (timeout_ms >= 0 && tick_now() - start >= static_cast<uint64_t>(timeout_ms)) {
            int32_t expected = -1;
            return w->word.compare_exchange_strong(expected, 0) ? wait_timed_out
                                                                : wait_timed_out_wake_taken;
        }
        sleep_ms(1);
    }
    return wait_woken;
}

} // namespace

int wait_word_wait(WaitWord* w, int32_t timeout_ms) {
    return wait_word_wait_outcome(w, timeout_ms) == wait_woken;
}

int wait_word_wait_outcome(WaitWord* w, int32_t timeout_ms) {
    // Most wakes of a hold hand-over or a pin ping-pong come within a few microseconds, and
    // parking costs a round trip through the kernel (under Wine, through the wineserver) on
    // both sides: watch the word for a moment before parking.
    if (timeout_ms != 0) {
        for (uint32_t round = g_wait_word_spin.load(std::memory_order_relaxed); round; --round) {
            if (w->word.load(std::memory_order_acquire) != 0) return wait_woken;
            YieldProcessor();
        }
    }
    int32_t expected = 0;
    if (!w->word.compare_exchange_strong(expected, -1, std::memory_order_acq_rel))
        return wait_woken; // woken before the wait
    SyncState* state = sync_state();
    if (!state) return poll(w, timeout_ms);
    uint32_t key = key_of(w);
    if (timeout_ms < 0) {
        park(state, w, key, nullptr);
        w->word.load(std::memory_order_acquire); // pairs with the waker's add
        return wait_woken;
    }
    LARGE_INTEGER relative;
    relative.QuadPart = -static_cast<int64_t>(timeout_ms) * 10000;
    if (park(state, w, key, &relative) != nt_status_timeout) {
        w->word.load(std::memory_order_acquire);
        return wait_woken;
    }
    expected = -1;
    if (w->word.compare_exchange_strong(expected, 0, std::memory_order_acq_rel))
        return wait_timed_out;
    // A waker got in between the time-out and our retreat and is now (or soon) blocked in its
    // release: take the release so that it can go on, but still report the time-out.
    park(state, w, key, nullptr);
    return wait_timed_out_wake_taken;
}

void wait_word_wake(WaitWord* w) {
    // The key is read before the add: once the add lands, a waiter that was not blocked may
    // return at once and the word's memory may be gone.
    uint32_t key = key_of(w);
    if (w->word.fetch_add(1, std::memory_order_acq_rel) != -1) return;
    if (SyncState* state = g_sync_state.load(std::memory_order_acquire)) unpark(state, w, key);
}
