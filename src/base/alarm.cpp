#include "base/alarm.h"

#include <cstdlib>

#include "base/fatal.h"
#include "base/nt.h"
#include "base/settle.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/tick.h"

// The armed alarms form a treap ordered by due tick: a binary search tree whose nodes also obey
// a heap order on random priorities, which keeps it balanced in expectation with only rotations.
// Alarms with equal due ticks keep their arming order (a new one goes to the right of its
// equals), so the earliest alarm is always the leftmost node. The tree, the hold and the pins
// are all zero-initialised statics: nothing needs building before the first alarm_set.

namespace {

struct AlarmList {
    Alarm* root = nullptr;
    Hold hold;                  // guards the tree and `random`
    Pin wake;                   // the alarm pin: the thread's earliest due tick may have changed
    Pin ended;                  // the alarm thread has left its loop
    std::atomic<bool> stopping{false};
    uint32_t random = 0x9E3779B9u;
};

AlarmList g_alarms;
std::atomic<bool> g_started{false};
ExitRoutine g_stop_routine;

uint32_t next_priority(AlarmList& list) {
    // xorshift32: any cheap sequence with unrelated neighbours will do.
    uint32_t x = list.random;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    list.random = x;
    return x;
}

void replace_child(AlarmList& list, Alarm* parent, Alarm* old_child, Alarm* new_child) {
    if (!parent)
        list.root = new_child;
    else if (parent->left == old_child)
        parent->left = new_child;
    else
        parent->right = new_child;
    if (new_child) new_child->parent = parent;
}

// Rotates `node` above its parent; in-order sequence is unchanged.
void rotate_up(AlarmList& list, Alarm* node) {
    Alarm* parent = node->parent;
    Alarm* grandparent = parent->parent;
    if (parent->left == node) {
        parent->left = node->right;
        if (node->right) node->right->parent = parent;
        node->right = parent;
    } else {
        parent->right = node->left;
        if (node->left) node->left->parent = parent;
        node->left = parent;
    }
    replace_child(list, grandparent, parent, node);
    parent->parent = node;
}

void tree_insert(AlarmList& list, Alarm* alarm) {
    alarm->left = alarm->right = nullptr;
    alarm->priority = next_priority(list);
    Alarm* parent = nullptr;
    Alarm** slot = &list.root;
    while (*slot) {
        parent = *slot;
        slot = alarm->due < parent->due ? &parent->left : &parent->right;
    }
    *slot = alarm;
    alarm->parent = parent;
    while (alarm->parent && alarm->parent->priority < alarm->priority) rotate_up(list, alarm);
    alarm->queued = true;
}

void tree_remove(AlarmList& list, Alarm* alarm) {
    // Rotate the node down until it has at most one child, then splice it out.
    while (alarm->left && alarm->right)
        rotate_up(list, alarm->left->priority > alarm->right->priority ? alarm->left : alarm->right);
    replace_child(list, alarm->parent, alarm, alarm->left ? alarm->left : alarm->right);
    alarm->parent = alarm->left = alarm->right = nullptr;
    alarm->queued = false;
}

Alarm* tree_first(AlarmList& list) {
    Alarm* alarm = list.root;
    if (alarm)
        while (alarm->left) alarm = alarm->left;
    return alarm;
}

void alarm_thread(void*) {
    AlarmList& list = g_alarms;
    uint64_t now = 0;
    bool have_now = false;
    for (;;) {
        if (!have_now) {
            now = tick_now();
            have_now = true;
        }
        int64_t wait; // -1: without end
        hold_acquire(&list.hold);
        Alarm* alarm = tree_first(list);
        bool stopping = list.stopping.load(std::memory_order_acquire);
        if (!alarm) {
            if (stopping) {
                hold_release(&list.hold);
                break;
            }
            wait = -1;
        } else if (!stopping && now < alarm->due) {
            wait = static_cast<int64_t>(alarm->due - now);
        } else {
            // Due, or stopping (every remaining alarm fires): fire it outside the hold, then look
            // again with the same current tick, so that alarms due at the same tick fire in the
            // same round.
            tree_remove(list, alarm);
            AlarmCallback callback = alarm->callback.load(std::memory_order_acquire);
            hold_release(&list.hold);
            callback(alarm);
            continue;
        }
        hold_release(&list.hold);
        pin_wait(&list.wake, nullptr, wait > 0x7FFFFFFE ? -1 : static_cast<int32_t>(wait));
        // A signal that lands between the wait and this reset is not lost: its alarm is already
        // in the tree, and the next round reads the clock afresh.
        pin_reset(&list.wake);
        have_now = false;
    }
    pin_signal(&list.ended);
}

// The stop routine (run by the process-exit work): every armed alarm fires, then the thread ends.
void alarm_stop() {
    g_alarms.stopping.store(true, std::memory_order_release);
    pin_signal(&g_alarms.wake);
}

// At runtime exit. Once ExitProcess has begun, the alarm thread has been terminated with every
// other thread and will never signal `ended`: do not wait for it then.
void alarm_shutdown() {
    alarm_stop();
    if (!RtlDllShutdownInProgress()) pin_wait(&g_alarms.ended, nullptr, -1);
}

void alarm_start() {
    run_once(g_started, [] {
        atexit(alarm_shutdown);
        if (!thread_start(alarm_thread, nullptr))
            fatal_assert("base\\ksalarm", __LINE__,
                         "Resource exhaustion initializing alarm thread.\n");
        exit_routine_add(&g_stop_routine, alarm_stop);
    });
}

} // namespace

void alarm_set(Alarm* alarm, AlarmCallback callback, uint64_t due) {
    alarm_start();
    AlarmList& list = g_alarms;
    bool earliest = false;
    hold_acquire(&list.hold);
    if (!alarm->queued) {
        alarm->callback.store(callback, std::memory_order_release);
        alarm->due = due;
        tree_insert(list, alarm);
        earliest = tree_first(list)->due >= due;
    } else if (alarm->due != due) {
        tree_remove(list, alarm);
        alarm->due = due;
        tree_insert(list, alarm);
        earliest = tree_first(list)->due >= due;
    }
    hold_release(&list.hold);
    // Only a new earliest alarm changes how long the thread must sleep.
    if (earliest) pin_signal(&list.wake);
}

void alarm_cancel(Alarm* alarm) {
    AlarmList& list = g_alarms;
    AlarmCallback callback = nullptr;
    hold_acquire(&list.hold);
    if (alarm->queued) {
        tree_remove(list, alarm);
        callback = alarm->callback.load(std::memory_order_acquire);
    }
    hold_release(&list.hold);
    if (callback) callback(alarm);
    // The callback may be running on the alarm thread right now: wait for it to finish.
    callback_settle(alarm->callback);
}
