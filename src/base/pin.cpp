#include "base/sync.h"

namespace {

// Unlinks every entry (under the pin's hold) and returns them oldest first, linked by `next`.
// Entries are linked at the head, so this reverses the list.
WaiterEntry* detach_all(Pin* pin) {
    WaiterEntry* newest = pin->waiters;
    pin->waiters = nullptr;
    WaiterEntry* oldest_first = nullptr;
    while (newest) {
        WaiterEntry* next = newest->next;
        newest->link = nullptr;
        newest->next = oldest_first;
        oldest_first = newest;
        newest = next;
    }
    return oldest_first;
}

// Calls the detached callbacks, outside the hold. An entry belongs to its registrant again as
// soon as its callback clears the field, so `next` is read first.
void fire(WaiterEntry* entry) {
    while (entry) {
        WaiterEntry* next = entry->next;
        entry->callback.load(std::memory_order_acquire)(entry);
        entry = next;
    }
}

void set_and_fire(Pin* pin, uint8_t flag) {
    hold_acquire(&pin->hold);
    pin->signalled.store(flag, std::memory_order_release);
    WaiterEntry* entries = detach_all(pin);
    hold_release(&pin->hold);
    fire(entries);
}

} // namespace

void pin_signal(Pin* pin) { set_and_fire(pin, 1); }

void pin_reset(Pin* pin) { set_and_fire(pin, 0); }

int pin_add_waiter(Pin* pin, WaiterEntry* entry) {
    HoldGuard guard(&pin->hold);
    if (pin->signalled.load(std::memory_order_relaxed)) return 0;
    entry->next = pin->waiters;
    if (entry->next) entry->next->link = &entry->next;
    entry->link = &pin->waiters;
    pin->waiters = entry;
    return 1;
}

int pin_remove_waiter(Pin* pin, WaiterEntry* entry) {
    HoldGuard guard(&pin->hold);
    if (!entry->link) return 0;
    *entry->link = entry->next;
    if (entry->next) entry->next->link = entry->link;
    entry->link = nullptr;
    entry->next = nullptr;
    return 1;
}

const SignalableOps pin_ops = {
    [](Signalable* o) { pin_signal(static_cast<Pin*>(o)); },
    [](Signalable* o) { pin_reset(static_cast<Pin*>(o)); },
    [](Signalable* o, WaiterEntry* e) { return pin_add_waiter(static_cast<Pin*>(o), e); },
    [](Signalable* o, WaiterEntry* e) { return pin_remove_waiter(static_cast<Pin*>(o), e); },
    [](Signalable* o) { return pin_is_signalled(static_cast<Pin*>(o)); },
};
