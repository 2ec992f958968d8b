// Many threads on holds, pins and alarms at once for a bounded time, with the invariants checked
// as they go: one owner at a time, one callback per arming, every wake arriving, and no time-out
// reported before its time.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "base/alarm.h"
#include "base/sync.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

struct World {
    uint64_t deadline = tick_now() + 1500;
    Hold hold;
    std::atomic<int> inside{0};
    long long counter = 0; // changed only under the hold
    std::atomic<long long> increments{0}, alarms{0}, exchanges{0}, waits{0};
    std::atomic<int> violations{0}, lost_wakes{0}, early_time_outs{0};
    Pin ping{}, pong{}, never{}; // the ping-pong pair
    Pin flicker{}, quiet{};      // a pin that keeps firing against short time-outs
    std::atomic<int> finished{0};

    bool running() const { return tick_now() < deadline; }
};

struct CountingAlarm {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin fired{};
    std::atomic<int> calls{0};

    static void on_fire(Alarm* alarm) {
        auto* self = reinterpret_cast<CountingAlarm*>(alarm);
        ++self->calls;
        pin_signal(&self->fired);
        alarm->callback = nullptr;
    }
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
        alarm_set(&alarm.alarm, CountingAlarm::on_fire, tick_now() + (seed >> 16) % 4);
        ++armings;
        if (!(seed & 0x100) && pin_wait(&alarm.fired, nullptr, 5000) != 1) ++w->lost_wakes;
        alarm_cancel(&alarm.alarm); // fires it here if still armed; waits for a firing under way
        if (alarm.calls.load() != armings) ++w->violations;
    }
    w->alarms += armings;
}

// Two threads hand a turn back and forth; every wait also watches a pin that only fires at the
// end, so a missing wake shows as a time-out.
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

void flicker_signaller(World* w) {
    while (w->running()) {
        pin_signal(&w->flicker);
        pin_reset(&w->flicker);
        sleep_ms(1);
    }
}

// Waits that park while the pin is clear, so that their time-outs meet its firings. `quiet`
// never fires, so a result of 0 must come from the time running out.
void flicker_waiter(World* w, int timeout_ms) {
    using clock = std::chrono::steady_clock;
    while (w->running()) {
        while (pin_is_signalled(&w->flicker) && w->running()) SwitchToThread();
        auto start = clock::now();
        int result = pin_wait(&w->flicker, &w->quiet, timeout_ms);
        if (result == 0 && clock::now() - start < std::chrono::microseconds(timeout_ms * 500))
            ++w->early_time_outs;
        ++w->waits;
    }
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
    start([w] { flicker_signaller(w); });
    for (int timeout : {2, 3, 3}) start([w, timeout] { flicker_waiter(w, timeout); });

    bool all_finished =
        wait_until([&] { return w->finished.load() == static_cast<int>(threads.size()); }, 30000);
    for (auto& t : threads) all_finished ? t.join() : t.detach();
    ASSERT_TRUE(all_finished) << "a thread is stuck";

    EXPECT_EQ(0, w->violations.load());
    EXPECT_EQ(w->increments.load(), w->counter);
    EXPECT_EQ(0, w->lost_wakes.load());
    EXPECT_EQ(0, w->early_time_outs.load());
    EXPECT_GT(w->alarms.load(), 0);
    EXPECT_GT(w->exchanges.load(), 0);
    EXPECT_GT(w->waits.load(), 0);
    EXPECT_EQ(0u, w->hold.state.load());
    EXPECT_EQ(nullptr, w->flicker.waiters);
    delete w;
}
