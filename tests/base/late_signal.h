// Signals a pin from the alarm thread after a delay: a cancel source that fires while a call
// is blocked (or, on a slow machine, before it starts; either way the call must end).
#pragma once

#include "base/alarm.h"
#include "base/sync.h"
#include "base/tick.h"

struct LateSignal {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin pin{};
    explicit LateSignal(uint32_t ms) { alarm_set(&alarm, fire, tick_now() + ms); }
    ~LateSignal() { alarm_cancel(&alarm); }
    static void fire(Alarm* alarm) {
        pin_signal(&reinterpret_cast<LateSignal*>(alarm)->pin);
        alarm->callback = nullptr;
    }
};
