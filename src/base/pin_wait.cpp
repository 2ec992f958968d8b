#include <cstddef>

#include "base/settle.h"
#include "base/sync_state.h"

// Everything a wait needs lives on the waiting thread's stack: the word it parks on, one entry
// per object, and the flag that lets only the first firing wake it.
//
// The callbacks clear their entry's field *before* they wake the word, so that a waiter woken by
// a signal finds its entry already complete and leaves without waiting for the signalling thread
// to come back from the kernel. That is safe because the wake is then the callback's last touch
// of the block (wait_word_wake's add; the keyed-event release that may follow uses the word's
// address only as a key), and a waiter never leaves while a wake it has not taken is still due:
// after a plain time-out it checks the flag and, if a callback has claimed the wake, takes it.

namespace {

struct PinWaitBlock {
    WaitWord word;
    std::atomic<int> first_fired{0};
    std::atomic<int> woken{0};
    WaiterEntry first;
    WaiterEntry second;
};

// The entries are members of the block: recover the block from an entry's address.
PinWaitBlock* block_of(WaiterEntry* entry, std::size_t offset) {
    return reinterpret_cast<PinWaitBlock*>(reinterpret_cast<char*>(entry) - offset);
}

void complete_and_wake(PinWaitBlock* block, WaiterEntry* entry) {
    int expected = 0;
    bool claimed = block->woken.compare_exchange_strong(expected, 1, std::memory_order_acq_rel);
    entry->callback.store(nullptr, std::memory_order_release);
    if (claimed) wait_word_wake(&block->word);
}

void first_fired(WaiterEntry* entry) {
    PinWaitBlock* block = block_of(entry, offsetof(PinWaitBlock, first));
    block->first_fired.store(1, std::memory_order_release);
    complete_and_wake(block, entry);
}

void second_fired(WaiterEntry* entry) {
    complete_and_wake(block_of(entry, offsetof(PinWaitBlock, second)), entry);
}

// Registers `entry`; an object that is already signalled fires the entry at once.
void register_entry(Signalable* object, WaiterEntry* entry, WaiterCallback callback) {
    entry->callback.store(callback, std::memory_order_relaxed);
    if (!signalable_add_waiter(object, entry)) callback(entry);
}

// Withdraws `entry`. If a firing took it first, its callback may still be running on the
// signalling thread.
void withdraw_entry(Signalable* object, WaiterEntry* entry) {
    if (!signalable_remove_waiter(object, entry)) callback_settle(entry->callback);
}

} // namespace

int pin_wait(Signalable* first, Signalable* second, int32_t timeout_ms) {
    PinWaitBlock block;
    register_entry(first, &block.first, first_fired);
    // An object that has fired already decides the result; the second need not be registered.
    bool with_second = second && !block.woken.load(std::memory_order_acquire);
    if (with_second) register_entry(second, &block.second, second_fired);

    int outcome = wait_word_wait_outcome(&block.word, timeout_ms < 0 ? -1 : timeout_ms);

    withdraw_entry(first, &block.first);
    if (with_second) withdraw_entry(second, &block.second);
    // Every callback that will ever run has now completed, so the flag is final. A firing that
    // came after a clean time-out has claimed the wake: take it before the block goes away.
    if (outcome == wait_timed_out && block.woken.load(std::memory_order_acquire))
        wait_word_wait(&block.word, -1);
    return block.first_fired.load(std::memory_order_acquire);
}
