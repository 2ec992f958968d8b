#include "base/sync_state.h"

// A hold's state word is 0 (free), an owner token (held, nobody waiting) or the address of the
// newest waiter record. Owner tokens are thread ids shifted left with the low bit set, so they
// never collide with a record address (records are 8-aligned) whatever the stack addresses are.
// The records form a chain from the newest to the oldest waiter, and the oldest one's `previous`
// is the owner's token. Releasing hands the hold to the oldest waiter: first come, first served.

namespace {

struct alignas(8) HoldWaiter {
    uint32_t thread_id;
    std::atomic<uintptr_t> previous;
    WaitWord word;
};

inline uintptr_t owner_token(uint32_t thread_id) {
    return (static_cast<uintptr_t>(thread_id) << 1) | 1;
}

} // namespace

void hold_acquire(Hold* hold) {
    uint32_t self = GetCurrentThreadId();
    if (!sync_state()) {
        // No keyed events to wait on: the hold only records its owner.
        hold->owner.store(self, std::memory_order_relaxed);
        return;
    }
    uintptr_t token = owner_token(self);
    uintptr_t state = 0;
    if (!hold->state.compare_exchange_strong(state, token, std::memory_order_acquire)) {
        HoldWaiter waiter;
        waiter.thread_id = self;
        for (;;) {
            state = hold->state.load(std::memory_order_relaxed);
            if (state == 0) {
                if (hold->state.compare_exchange_weak(state, token, std::memory_order_acquire))
                    break;
                continue;
            }
            waiter.previous.store(state, std::memory_order_relaxed);
            if (hold->state.compare_exchange_weak(state, reinterpret_cast<uintptr_t>(&waiter),
                                                  std::memory_order_release)) {
                // The releaser unlinks us and hands the hold over before waking us.
                wait_word_wait(&waiter.word, -1);
                break;
            }
        }
    }
    hold->owner.store(self, std::memory_order_relaxed);
}

void hold_release(Hold* hold) {
    uintptr_t token = owner_token(hold->owner.load(std::memory_order_relaxed));
    hold->owner.store(0, std::memory_order_relaxed);
    uintptr_t state = token;
    if (hold->state.compare_exchange_strong(state, 0, std::memory_order_release)) return;
    if (state == 0) return; // degraded hold: nothing was ever queued

    for (;;) {
        // Find the oldest waiter: the record whose previous state is our own token. Records
        // behind the head change only under the owner, so the walk needs no retries; only the
        // head can move (new waiters push there).
        std::atomic<uintptr_t>* link = &hold->state;
        auto* oldest = reinterpret_cast<HoldWaiter*>(state);
        for (;;) {
            uintptr_t previous = oldest->previous.load(std::memory_order_acquire);
            if (previous == token) break;
            link = &oldest->previous;
            oldest = reinterpret_cast<HoldWaiter*>(previous);
        }
        uintptr_t successor = owner_token(oldest->thread_id);
        if (link == &hold->state) {
            if (!hold->state.compare_exchange_strong(state, successor, std::memory_order_acq_rel))
                continue; // a new waiter arrived: walk again from the new head
        } else {
            link->store(successor, std::memory_order_release);
        }
        wait_word_wake(&oldest->word);
        return;
    }
}

void hold_acquire_recursive(RecursiveHold* hold) {
    if (hold->hold.owner.load(std::memory_order_relaxed) == GetCurrentThreadId()) {
        ++hold->count;
        return;
    }
    hold_acquire(&hold->hold);
    hold->count = 1;
}

void hold_release_recursive(RecursiveHold* hold) {
    if (--hold->count == 0) hold_release(&hold->hold);
}
