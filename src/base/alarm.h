// Alarms: a due tick and a callback, fired once by the process's alarm thread. Every time-out
// of the runtime is one; an alarm costs no kernel object.
//
// An alarm belongs to its user and is zero-initialised (`Alarm alarm{};`). Its callback runs
// exactly once per arming: when the alarm is due, when it is cancelled, or when the alarm
// thread stops at process exit. The callback runs without any lock held, must be short (all
// time-outs share the thread) and must clear `callback` as its very last act; arm the alarm
// again only after that. Once the process-exit work has stopped the alarm thread, an armed
// alarm fires only when it is cancelled.
#pragma once

#include <atomic>
#include <cstdint>

struct Alarm;
using AlarmCallback = void (*)(Alarm* alarm);

struct Alarm {
    std::atomic<AlarmCallback> callback{nullptr}; // non-null from arming until the callback ends
    Alarm* parent = nullptr;                      // links in the alarm tree
    Alarm* left = nullptr;
    Alarm* right = nullptr;
    uint64_t due = 0; // tick_now value at which it fires
    uint32_t priority = 0;
    bool queued = false; // in the tree (armed and not yet fired)
};

// Arms `alarm` to call `callback` at tick `due`. Re-arming an armed alarm with another due tick
// moves it; with the same due tick it changes nothing. Starts the alarm thread on first use.
void alarm_set(Alarm* alarm, AlarmCallback callback, uint64_t due);

// Disarms `alarm`: if it is still armed its callback runs at once, on the calling thread. Returns
// once the callback (wherever it runs) has finished.
void alarm_cancel(Alarm* alarm);
