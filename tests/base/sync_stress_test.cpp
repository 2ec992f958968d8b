// Many threads on holds, pins and alarms at once for a bounded time, with the invariants checked
// as they go: one owner at a time, one callback per arming, and every wake arriving.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/alarm.h"
#include "base/sync.h"
#include "base/tick.h"

namespace {

struct Shared {
    uint64_t deadline = 0;
    Hold hold;
    std::atomic<int> inside{0};
    long long counter = 0; // changed only under the hold
    std::atomic<long long> increments{0};
    std::atomic<int> exclusion_violations{0};
    std::atomic<int> lost_wakes{0};
    std::atomic<int> callback_mismatches{0};
    std::atomic<long long> alarms_armed{0};
};

struct CountingAlarm {
    Alarm alarm;
    Pin fired{};
    std::atomic<int> calls{0};

    static void on_fire(Alarm* alarm) {
        auto* self = reinterpret_cast<CountingAlarm*>(alarm);
        ++self->calls;
        pin_signal(&self->fired);
        alarm->callback = nullptr;
    }
};

void hold_and_alarm_worker(Shared* shared, unsigned seed) {
    CountingAlarm alarm;
    int armings = 0;
    while (tick_now() < shared->deadline) {
        for (int i = 0; i < 20; ++i) {
            hold_acquire(&shared->hold);
            if (shared->inside.fetch_add(1) != 0) ++shared->exclusion_violations;
            ++shared->counter;
            shared->inside.fetch_sub(1);
            hold_release(&shared->hold);
            ++shared->increments;
        }
        seed = seed * 1103515245 + 12345;
        pin_reset(&alarm.fired);
        alarm_set(&alarm.alarm, CountingAlarm::on_fire, tick_now() + (seed >> 16) % 4);
        ++armings;
        if (seed & 0x100) {
            alarm_cancel(&alarm.alarm); // fired either by the alarm thread or here
        } else if (pin_wait(&alarm.fired, nullptr, 5000) != 1) {
            ++shared->lost_wakes;
        }
        alarm_cancel(&alarm.alarm);
        if (alarm.calls.load() != armings) ++shared->callback_mismatches;
    }
    shared->alarms_armed += armings;
}

// Two threads hand a turn back and forth through two pins; each wait also watches a pin that
// never fires, and a missing wake shows as a time-out.
struct PingPong {
    Pin ping{}, pong{}, never{};
    std::atomic<long long> exchanges{0};
};

void ping_side(Shared* shared, PingPong* game) {
    while (tick_now() < shared->deadline) {
        pin_signal(&game->ping);
        if (pin_wait(&game->pong, &game->never, 5000) != 1) {
            ++shared->lost_wakes;
            break;
        }
        pin_reset(&game->pong);
        ++game->exchanges;
    }
    // Release the other side for good.
    pin_signal(&game->never);
}

void pong_side(Shared* shared, PingPong* game) {
    for (;;) {
        int result = pin_wait(&game->ping, &game->never, 5000);
        if (result != 1) {
            if (!pin_is_signalled(&game->never)) ++shared->lost_wakes;
            break;
        }
        pin_reset(&game->ping);
        pin_signal(&game->pong);
    }
}

} // namespace

TEST(SyncStress, HoldsPinsAndAlarmsUnderLoad) {
    Shared shared;
    shared.deadline = tick_now() + 1500;
    PingPong games[2];
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 6; ++i) threads.emplace_back(hold_and_alarm_worker, &shared, i * 7919);
    for (PingPong& game : games) {
        threads.emplace_back(ping_side, &shared, &game);
        threads.emplace_back(pong_side, &shared, &game);
    }
    for (auto& t : threads) t.join();

    EXPECT_EQ(0, shared.exclusion_violations.load());
    EXPECT_EQ(shared.increments.load(), shared.counter);
    EXPECT_EQ(0, shared.lost_wakes.load());
    EXPECT_EQ(0, shared.callback_mismatches.load());
    EXPECT_GT(shared.alarms_armed.load(), 0);
    for (PingPong& game : games) EXPECT_GT(game.exchanges.load(), 0);
    EXPECT_EQ(0u, shared.hold.state.load());
}
