#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/sync.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

// Runs pin_wait(first, second) on another thread, waits until it has registered with `fired`,
// calls `fire` and returns the wait's result (-1 if it never returned).
template <class Fire> int wait_elsewhere(Signalable* first, Signalable* second, Pin* fired,
                                         Fire fire) {
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = pin_wait(first, second, 10000); });
    bool registered = wait_until([&] {
        HoldGuard guard(&fired->hold);
        return fired->waiters != nullptr;
    });
    fire();
    waiter.join();
    return registered ? result.load() : -1;
}

} // namespace

TEST(PinWait, SignalledObjectsAndTimeOutsReturnWithoutAFiring) {
    Pin first{}, second{};
    pin_signal(&first);
    EXPECT_EQ(1, pin_wait(&first, &second, -1));
    pin_reset(&first);
    pin_signal(&second);
    EXPECT_EQ(0, pin_wait(&first, &second, -1));
    pin_reset(&second);

    uint64_t start = tick_now();
    EXPECT_EQ(0, pin_wait(&first, &second, 50));
    EXPECT_GE(tick_now() - start, 40u);
    // Nothing stays registered after a wait.
    EXPECT_EQ(nullptr, first.waiters);
    EXPECT_EQ(nullptr, second.waiters);
}

TEST(PinWait, SignalResetAndSecondObjectWakeAWaiter) {
    Pin first{}, second{};
    EXPECT_EQ(1, wait_elsewhere(&first, &second, &first, [&] { pin_signal(&first); }));
    pin_reset(&first);
    // A reset wakes the waiter too, and counts as the first object firing.
    EXPECT_EQ(1, wait_elsewhere(&first, nullptr, &first, [&] { pin_reset(&first); }));
    EXPECT_EQ(0, wait_elsewhere(&first, &second, &second, [&] { pin_signal(&second); }));
    EXPECT_EQ(nullptr, first.waiters);
}

namespace {

// A signalable with its own table whose firing is always under way when the waiter withdraws:
// removal reports the entry taken, and a thread fires it a little later.
struct LateSignal : Signalable {
    std::thread firing;
    std::atomic<bool> callback_returned{false};

    static int remove(Signalable* o, WaiterEntry* entry) {
        auto* self = static_cast<LateSignal*>(o);
        self->firing = std::thread([self, entry] {
            sleep_ms(30);
            entry->callback.load()(entry);
            self->callback_returned = true;
        });
        return 0;
    }
    static constexpr SignalableOps table = {
        [](Signalable*) {}, [](Signalable*) {}, [](Signalable*, WaiterEntry*) { return 1; },
        remove, [](Signalable*) { return 0; }};
    LateSignal() { ops = &table; }
};

} // namespace

TEST(PinWait, UsesTheObjectsTableAndWaitsForAFiringUnderWay) {
    LateSignal late;
    uint64_t start = tick_now();
    // The time runs out, but the firing that took the entry counts and is waited for.
    EXPECT_EQ(1, pin_wait(&late, nullptr, 5));
    EXPECT_GE(tick_now() - start, 20u);
    late.firing.join();
    EXPECT_TRUE(late.callback_returned.load());
}

TEST(Pin, CallbacksRunOldestRegistrationFirst) {
    struct Recorder {
        WaiterEntry entry;
        int id;
        std::vector<int>* log;
    };
    std::vector<int> log;
    Recorder recorders[3] = {{{}, 0, &log}, {{}, 1, &log}, {{}, 2, &log}};
    Pin pin{};
    for (Recorder& r : recorders) {
        r.entry.callback = [](WaiterEntry* e) {
            auto* self = reinterpret_cast<Recorder*>(e);
            self->log->push_back(self->id);
            e->callback = nullptr;
        };
        ASSERT_EQ(1, pin_add_waiter(&pin, &r.entry));
    }
    EXPECT_EQ(1, pin_remove_waiter(&pin, &recorders[1].entry));
    EXPECT_EQ(0, pin_remove_waiter(&pin, &recorders[1].entry));
    pin_signal(&pin);
    EXPECT_EQ((std::vector<int>{0, 2}), log);
    EXPECT_EQ(0, pin_remove_waiter(&pin, &recorders[0].entry));
    EXPECT_EQ(0, pin_add_waiter(&pin, &recorders[0].entry)); // signalled: not registered
}

TEST(Group, AllOfSignalsWithTheLastMemberAnyOfWithTheFirst) {
    Pin members[3] = {};
    GroupMember entries[3];
    Group all;
    group_init(&all, 3);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &all, &members[i]);
    pin_signal(&members[0]);
    pin_signal(&members[1]);
    EXPECT_EQ(0, pin_is_signalled(&all));
    EXPECT_EQ(1, wait_elsewhere(&all, nullptr, &all, [&] { pin_signal(&members[2]); }));
    group_cancel(&all);

    for (Pin& member : members) pin_reset(&member);
    Group any;
    group_init(&any, 1);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &any, &members[i]);
    pin_signal(&members[1]);
    EXPECT_EQ(1, pin_is_signalled(&any));
    group_cancel(&any);
    for (Pin& member : members) EXPECT_EQ(nullptr, member.waiters);

    // A member that is already signalled counts at once.
    group_init(&any, 1);
    group_add(&entries[0], &any, &members[1]);
    EXPECT_EQ(1, pin_wait(&any, nullptr, 0));
    group_cancel(&any);
}

TEST(EventBridge, SetsItsEventForWaitForMultipleObjects) {
    Pin pin{};
    HANDLE other = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EventBridge* bridge = event_bridge_take();
    ASSERT_NE(nullptr, bridge);
    HANDLE handles[2] = {other, bridge->event};

    event_bridge_arm(bridge, &pin);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, handles, FALSE, 0));
    std::thread signaller([&] {
        wait_until([&] {
            HoldGuard guard(&pin.hold);
            return pin.waiters != nullptr;
        });
        pin_signal(&pin);
    });
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(2, handles, FALSE, 10000));
    signaller.join();
    event_bridge_disarm(bridge, &pin);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(bridge->event, 0));

    // Armed on a signalled object, the event is set at once; disarm clears it.
    event_bridge_arm(bridge, &pin);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(2, handles, FALSE, 0));
    event_bridge_disarm(bridge, &pin);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(bridge->event, 0));

    // The thread's cache gives the same bridge back.
    event_bridge_give(bridge);
    EXPECT_EQ(bridge, event_bridge_take());
    event_bridge_give(bridge);
    CloseHandle(other);
}
