// Holds, pins, groups and waiting: the runtime's own synchronisation, built on the keyed events
// of ntdll.
//
// - A Hold is a first-come first-served lock of two words. Uncontended it costs one
//   compare-and-exchange to take and one to release; contended, waiters queue on their own
//   stacks and the releaser hands the hold directly to the oldest one.
// - A Pin is a manual-reset signal whose waiters are callbacks (WaiterEntry). Signalling or
//   resetting a pin calls every registered callback once, on the signalling thread, outside the
//   pin's hold.
// - Everything that can be waited for is a Signalable: a pointer to a table of five operations
//   (SignalableOps). A null table means "this is a Pin", so a zero-initialised Pin is ready.
// - pin_wait waits for one signalable, optionally a second one that cancels the wait, and a
//   time-out; it blocks on a WaitWord, the single parking primitive of the runtime.
// - A Group counts member firings down and becomes signalled at zero (any-of with count 1,
//   all-of with the number of members).
// - An EventBridge sets an event handle when a signalable fires, so that a signalable can be
//   waited for together with kernel handles (WaitForMultipleObjects).
//
// All of these are plain structs that are valid when zero-initialised (`Pin pin{};`), so they
// can be statics, members or stack objects without any set-up call and own no kernel object.
// Only event_bridge_take can fail. If the process cannot get its sync state (out of memory),
// holds degrade to recording their owner and waits poll.
#pragma once

#include <atomic>
#include <cstdint>

#include <windows.h>

// ---------------------------------------------------------------------------------------------
// Wait words

// A one-shot parking place: 0 idle, -1 a waiter is blocked, anything else signalled. A wake
// that comes before the wait is remembered. The key (which of the process's keyed events the
// word parks on) is derived from the word's address on first use.
struct WaitWord {
    std::atomic<int32_t> word{0};
    std::atomic<uint32_t> key{0};
};

// Waits until the word is woken. timeout_ms < 0 waits without end. Returns 1 when woken, 0 when
// the time ran out. On a time-out that races with a wake, the wake is still taken (its waker
// must not stay blocked) and the result is 0.
int wait_word_wait(WaitWord* word, int32_t timeout_ms);

// Wakes the word's waiter, or marks the word signalled if nobody waits yet. Blocks only until a
// blocked waiter has taken the wake.
void wait_word_wake(WaitWord* word);

// ---------------------------------------------------------------------------------------------
// Holds

// State 0 is free; a tagged thread id means held without waiters; otherwise the state points to
// the newest waiter record on a waiting thread's stack.
struct Hold {
    std::atomic<uint32_t> owner{0};
    std::atomic<uintptr_t> state{0};
};

void hold_acquire(Hold* hold);
void hold_release(Hold* hold);

// A hold its owner may take again; nested acquires only count.
struct RecursiveHold {
    Hold hold;
    uint32_t count = 0;
};

void hold_acquire_recursive(RecursiveHold* hold);
void hold_release_recursive(RecursiveHold* hold);

// Scoped ownership of a Hold.
class HoldGuard {
public:
    explicit HoldGuard(Hold* hold) : hold_(hold) { hold_acquire(hold_); }
    ~HoldGuard() { hold_release(hold_); }
    HoldGuard(const HoldGuard&) = delete;
    HoldGuard& operator=(const HoldGuard&) = delete;

private:
    Hold* hold_;
};

// The process's global lock. Subsystems create their process-wide state under it, once, with a
// flag (see run_once). It is a plain hold: never nest it with another hold, and never wait for
// anything while owning it.
Hold* global_hold();
void global_lock();
void global_unlock();

// Runs `init` once per process under the global lock; `done` is the flag that records it.
// Later calls cost one load.
template <class Init> void run_once(std::atomic<bool>& done, Init init) {
    if (done.load(std::memory_order_acquire)) return;
    global_lock();
    if (!done.load(std::memory_order_relaxed)) {
        init();
        done.store(true, std::memory_order_release);
    }
    global_unlock();
}

// ---------------------------------------------------------------------------------------------
// Waiter entries and the signalable interface

struct WaiterEntry;
using WaiterCallback = void (*)(WaiterEntry* entry);

// A registration with a signalable. The callback is called with the entry itself when the object
// fires (is signalled or reset) and must clear `callback` as its very last act: until then the
// entry is in use and its memory may not be reused. The links belong to the object.
struct WaiterEntry {
    std::atomic<WaiterCallback> callback{nullptr};
    WaiterEntry** link = nullptr; // the next-field that points here; null when not registered
    WaiterEntry* next = nullptr;
};

struct Signalable;

// The operations of anything that can be waited for, in their fixed slot order.
struct SignalableOps {
    void (*signal)(Signalable* object);
    void (*reset)(Signalable* object);
    // 1 if the entry was registered; 0 if the object is already signalled (not registered).
    int (*add_waiter)(Signalable* object, WaiterEntry* entry);
    // 1 if the entry was still registered and is now removed; 0 if a signal already took it.
    int (*remove_waiter)(Signalable* object, WaiterEntry* entry);
    // The signalled flag, read without locking.
    int (*is_signalled)(Signalable* object);
};

// The head of every waitable object. A null table selects the pin's operations.
struct Signalable {
    const SignalableOps* ops = nullptr;
};

extern const SignalableOps pin_ops;

inline const SignalableOps* signalable_ops(Signalable* object) {
    return object->ops ? object->ops : &pin_ops;
}
inline void signalable_signal(Signalable* o) { signalable_ops(o)->signal(o); }
inline void signalable_reset(Signalable* o) { signalable_ops(o)->reset(o); }
inline int signalable_add_waiter(Signalable* o, WaiterEntry* e) {
    return signalable_ops(o)->add_waiter(o, e);
}
inline int signalable_remove_waiter(Signalable* o, WaiterEntry* e) {
    return signalable_ops(o)->remove_waiter(o, e);
}
inline int signalable_is_signalled(Signalable* o) { return signalable_ops(o)->is_signalled(o); }

// ---------------------------------------------------------------------------------------------
// Pins

// A manual-reset signal. Waiters are linked newest first and called oldest first.
struct Pin : Signalable {
    std::atomic<uint8_t> signalled{0};
    Hold hold;
    WaiterEntry* waiters = nullptr;
};

// Sets the flag and calls every registered callback (oldest registration first).
void pin_signal(Pin* pin);
// Clears the flag and, like pin_signal, calls every registered callback: a reset wakes every
// waiter, which then finds the state it waits for or not.
void pin_reset(Pin* pin);
int pin_add_waiter(Pin* pin, WaiterEntry* entry);
int pin_remove_waiter(Pin* pin, WaiterEntry* entry);
inline int pin_is_signalled(Pin* pin) { return pin->signalled.load(std::memory_order_acquire); }

// Waits until `first` fires (signal or reset), `second` (may be null) fires, or timeout_ms
// passes (-1: no time-out). Returns 1 if the first object fired, else 0. Objects that are
// already signalled fire at once.
int pin_wait(Signalable* first, Signalable* second, int32_t timeout_ms);

// ---------------------------------------------------------------------------------------------
// Count-down groups

struct Group;

// One member of a group: its registration with the member object.
struct GroupMember {
    WaiterEntry entry;
    Group* group = nullptr;
    Signalable* object = nullptr;
    GroupMember* next = nullptr;
};

// A pin that becomes signalled when `remaining` member firings have happened. Waiting on a group
// is waiting on its pin.
struct Group : Pin {
    GroupMember* members = nullptr;
    std::atomic<int32_t> remaining{0};
    std::atomic<int32_t> in_progress{0};
};

// Clears the group and sets the number of member firings that signal it (1: any of; the number
// of members: all of).
void group_init(Group* group, int32_t count);
// Adds a member; a member object that is already signalled counts as fired at once.
void group_add(GroupMember* member, Group* group, Signalable* object);
// Withdraws every member; returns when no member callback runs any more. Members may then be
// reused or freed.
void group_cancel(Group* group);

// ---------------------------------------------------------------------------------------------
// The OS-event bridge

// An entry that sets a notification event when a signalable fires.
struct EventBridge {
    WaiterEntry entry;
    HANDLE event = nullptr;
    std::atomic<uint32_t> registered{0};
    EventBridge* cache_next = nullptr;
};

// Takes a bridge (with its event, not set) from the calling thread's cache, or makes one;
// null when no memory or no event can be had.
EventBridge* event_bridge_take();
// Gives a disarmed bridge back to the cache.
void event_bridge_give(EventBridge* bridge);
// Registers the bridge with `object`; the event is set at once if the object is signalled.
void event_bridge_arm(EventBridge* bridge, Signalable* object);
// Withdraws the bridge from `object` and leaves its event clear, ready to be armed again.
void event_bridge_disarm(EventBridge* bridge, Signalable* object);
