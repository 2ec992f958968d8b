#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "base/sync.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

// Runs pin_wait(first, second) on another thread, waits until it has registered with `fired`,
// calls `fire` and returns the wait's result (-1 if it never returned).
template <class Fire>
int wait_elsewhere(Signalable* first, Signalable* second, Pin* fired, Fire fire) {
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

// A signalable whose firing is always under way when the waiter withdraws: removal reports the
// entry taken, and a thread fires it a little later.
struct FiringUnderWay : Signalable {
    std::thread firing;
    std::atomic<bool> callback_returned{false};

    static int remove(Signalable* o, WaiterEntry* entry) {
        auto* self = static_cast<FiringUnderWay*>(o);
        self->firing = std::thread([self, entry] {
            sleep_ms(30);
            entry->callback.load()(entry);
            self->callback_returned = true;
        });
        return 0;
    }
    static constexpr SignalableOps table = {[](Signalable*) {}, [](Signalable*) {},
                                            [](Signalable*, WaiterEntry*) { return 1; }, remove,
                                            [](Signalable*) { return 0; }};
    FiringUnderWay() { ops = &table; }
};

} // namespace

TEST(PinWait, SignalResetSecondObjectAndTimeOut) {
    Pin first{}, second{};
    pin_signal(&first);
    EXPECT_EQ(1, pin_wait(&first, &second, -1)); // already signalled
    pin_reset(&first);
    uint64_t start = tick_now();
    EXPECT_EQ(0, pin_wait(&first, &second, 50));
    EXPECT_GE(tick_now() - start, 40u);

    EXPECT_EQ(1, wait_elsewhere(&first, &second, &first, [&] { pin_signal(&first); }));
    pin_reset(&first);
    // A reset wakes the waiter too, and counts as the first object firing.
    EXPECT_EQ(1, wait_elsewhere(&first, nullptr, &first, [&] { pin_reset(&first); }));
    EXPECT_EQ(0, wait_elsewhere(&first, &second, &second, [&] { pin_signal(&second); }));
    // Nothing stays registered after a wait.
    EXPECT_EQ(nullptr, first.waiters);
    EXPECT_EQ(nullptr, second.waiters);

    // The time runs out, but a firing that took the entry counts and is waited for.
    FiringUnderWay late;
    start = tick_now();
    EXPECT_EQ(1, pin_wait(&late, nullptr, 5));
    EXPECT_GE(tick_now() - start, 20u);
    late.firing.join();
    EXPECT_TRUE(late.callback_returned.load());
}

TEST(Group, AllOfSignalsWithTheLastMemberAnyOfWithTheFirst) {
    Pin members[3] = {};
    GroupMember entries[3];
    Group group;
    group_init(&group, 3);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &group, &members[i]);
    pin_signal(&members[0]);
    pin_signal(&members[1]);
    EXPECT_EQ(0, pin_is_signalled(&group));
    EXPECT_EQ(1, wait_elsewhere(&group, nullptr, &group, [&] { pin_signal(&members[2]); }));
    group_cancel(&group);

    for (Pin& member : members) pin_reset(&member);
    group_init(&group, 1);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &group, &members[i]);
    pin_signal(&members[1]);
    EXPECT_EQ(1, pin_is_signalled(&group));
    group_cancel(&group);
    for (Pin& member : members) EXPECT_EQ(nullptr, member.waiters);
    // A member that is already signalled counts at once.
    group_init(&group, 1);
    group_add(&entries[0], &group, &members[1]);
    EXPECT_EQ(1, pin_wait(&group, nullptr, 0));
    group_cancel(&group);
}

TEST(EventBridge, SetsItsEventForWaitForMultipleObjects) {
    Pin pin{};
    OwnedHandle other(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EventBridge* bridge = event_bridge_take();
    ASSERT_NE(nullptr, bridge);
    HANDLE handles[2] = {other.get(), bridge->event};
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
    // Armed on a signalled object, the event is set at once.
    event_bridge_arm(bridge, &pin);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(2, handles, FALSE, 0));
    event_bridge_disarm(bridge, &pin);
    // The thread's cache gives the same bridge back.
    event_bridge_give(bridge);
    EXPECT_EQ(bridge, event_bridge_take());
    event_bridge_give(bridge);
}
