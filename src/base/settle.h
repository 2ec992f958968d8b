// Waiting for callbacks that other threads are running to finish.
#pragma once

#include <atomic>

#include <windows.h>

#include "base/tick.h"

// Returns once `done()` holds. What it waits for is a short callback already running on another
// thread, so the wait starts with pause and yield rounds, which cover the usual case of a signaller
// that has just woken us and has one store left to do; then it sleeps in steps of 10 ms.
template <class Done> void settle(Done done) {
    for (unsigned round = 0; !done(); ++round) {
        if (round < 64)
            YieldProcessor();
        else if (round < 1024)
            SwitchToThread(); // the callback's thread may be waiting for this processor
        else
            sleep_ms(10);
    }
}

// Returns once `field`, a callback field that its callback clears as its last act, is null.
template <class T> void callback_settle(const std::atomic<T>& field) {
    settle([&] { return !field.load(std::memory_order_acquire); });
}
