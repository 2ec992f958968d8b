#include <cstddef>

#include "base/settle.h"
#include "base/sync.h"

namespace {

// Everything a wait needs lives on the waiting thread's stack: the word it parks on, one entry
// per object, and the flag that lets only the first firing wake it.
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

void wake_once(PinWaitBlock* block) {
    int expected = 0;
    if (block->woken.compare_exchange_strong(expected, 1, std::memory_order_acq_rel))
        wait_word_wake(&block->word);
}

void first_fired(WaiterEntry* entry) {
    PinWaitBlock* block = block_of(entry, offsetof(PinWaitBlock, first));
    block->first_fired.store(1, std::memory_order_release);
    wake_once(block);
    entry->callback.store(nullptr, std::memory_order_release);
}

void second_fired(WaiterEntry* entry) {
    PinWaitBlock* block = block_of(entry, offsetof(PinWaitBlock, second));
    wake_once(block);
    entry->callback.store(nullptr, std::memory_order_release);
}

// Registers `entry`; an object that is already signalled fires the entry at once.
void register_entry(Signalable* object, WaiterEntry* entry, WaiterCallback callback) {
    entry->callback.store(callback, std::memory_order_relaxed);
    if (!signalable_add_waiter(object, entry)) callback(entry);
}

// Withdraws `entry`. If a firing took it first, its callback may still be running on the
// signalling thread; the block must outlive it.
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

    wait_word_wait(&block.word, timeout_ms < 0 ? -1 : timeout_ms);

    withdraw_entry(first, &block.first);
    if (with_second) withdraw_entry(second, &block.second);
    return block.first_fired.load(std::memory_order_acquire);
}
