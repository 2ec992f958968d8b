// Many threads on holds, pins and alarms at once for a bounded time, with the invariants checked
// as they go: one owner at a time, one callback per arming, every wake arriving.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/alarm.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

struct World {
    uint64_t deadline = tick_now() + 1500;
    Hold hold;
    std::atomic<int> inside{0};
    long long counter = 0; // changed only under the hold
    std::atomic<long long> increments{0}, alarms{0}, exchanges{0};
    std::atomic<int> violations{0}, lost_wakes{0}, finished{0};
    Pin ping{}, pong{}, never{}; // the ping-pong pair, and a pin that fires only at its end

    bool running() const { return tick_now() < deadline; }
};

struct CountingAlarm {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin fired{};
    std::atomic<int> calls{0};
};

// Hold sections, then one alarm due within 0-3 ms, either waited for or cancelled at once.
void hold_and_alarm_worker(World* w, unsigned seed) {
    CountingAlarm alarm;
    int armings = 0;
    while (w->running()) {
        for (int i = 0; i < 20; ++i) {
            hold_acquire(&w->hold);
            if (w->inside.fetch_add(1) != 0) ++w->violations;
            ++w->counter;
            w->inside.fetch_sub(1);
            hold_release(&w->hold);
            ++w->increments;
        }
        seed = seed * 1103515245 + 12345;
        pin_reset(&alarm.fired);
        auto fire = [](Alarm* a) {
            auto* self = reinterpret_cast<CountingAlarm*>(a);
            ++self->calls;
            pin_signal(&self->fired);
            a->callback = nullptr;
        };
        alarm_set(&alarm.alarm, fire, tick_now() + (seed >> 16) % 4);
        ++armings;
        if (!(seed & 0x100) && pin_wait(&alarm.fired, nullptr, 5000) != 1) ++w->lost_wakes;
        alarm_cancel(&alarm.alarm); // fires it here if still armed; waits for a firing under way
        if (alarm.calls.load() != armings) ++w->violations;
    }
    w->alarms += armings;
}

// Two threads hand a turn back and forth; every wait also watches `never`, so a missing wake
// shows as a time-out.
void ping_side(World* w) {
    while (w->running()) {
        pin_signal(&w->ping);
        if (pin_wait(&w->pong, &w->never, 5000) != 1) {
            ++w->lost_wakes;
            break;
        }
        pin_reset(&w->pong);
        ++w->exchanges;
    }
    pin_signal(&w->never);
}

void pong_side(World* w) {
    while (pin_wait(&w->ping, &w->never, 5000) == 1) {
        pin_reset(&w->ping);
        pin_signal(&w->pong);
    }
    if (!pin_is_signalled(&w->never)) ++w->lost_wakes;
}

} // namespace

TEST(SyncStress, HoldsPinsAndAlarmsUnderLoad) {
    auto* w = new World; // left behind if a thread never finishes: fail rather than hang
    std::vector<std::thread> threads;
    auto start = [&](auto body) {
        threads.emplace_back([w, body] {
            body();
            ++w->finished;
        });
    };
    for (unsigned i = 0; i < 6; ++i) start([w, i] { hold_and_alarm_worker(w, i * 7919); });
    start([w] { ping_side(w); });
    start([w] { pong_side(w); });

    bool all_finished =
        wait_until([&] { return w->finished.load() == static_cast<int>(threads.size()); }, 30000);
    for (auto& t : threads) all_finished ? t.join() : t.detach();
    ASSERT_TRUE(all_finished) << "a thread is stuck";
    EXPECT_EQ(0, w->violations.load());
    EXPECT_EQ(w->increments.load(), w->counter);
    EXPECT_EQ(0, w->lost_wakes.load());
    EXPECT_GT(w->alarms.load(), 0);
    EXPECT_GT(w->exchanges.load(), 0);
    EXPECT_EQ(0u, w->hold.state.load());
    delete w;
}
