#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "base/sync.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

// Waits on `first`/`second` on another thread; the result is readable once `done` is set.
struct BackgroundWait {
    std::atomic<int> result{-1};
    std::atomic<bool> done{false};
    std::thread thread;

    BackgroundWait(Signalable* first, Signalable* second) {
        thread = std::thread([=, this] {
            result = pin_wait(first, second, 10000);
            done = true;
        });
    }
    ~BackgroundWait() { thread.join(); }
};

bool has_waiter(Pin* pin) {
    return wait_until([&] {
        HoldGuard guard(&pin->hold);
        return pin->waiters != nullptr;
    });
}

} // namespace

TEST(PinWait, ReturnsAtOnceForSignalledObjects) {
    Pin first{}, second{};
    pin_signal(&first);
    EXPECT_EQ(1, pin_wait(&first, &second, -1));

    pin_reset(&first);
    pin_signal(&second);
    uint64_t start = tick_now();
    EXPECT_EQ(0, pin_wait(&first, &second, -1));
    EXPECT_LT(tick_now() - start, 1000u);
    // Nothing stays registered after a wait.
    EXPECT_EQ(nullptr, first.waiters);
}

TEST(PinWait, TimesOutWhenNothingFires) {
    Pin first{}, second{};
    uint64_t start = tick_now();
    EXPECT_EQ(0, pin_wait(&first, &second, 50));
    EXPECT_GE(tick_now() - start, 40u);
    EXPECT_EQ(nullptr, first.waiters);
    EXPECT_EQ(nullptr, second.waiters);
}

TEST(PinWait, SignalResetAndSecondObjectWakeAWaiter) {
    Pin first{}, second{};
    {
        BackgroundWait wait(&first, &second);
        ASSERT_TRUE(has_waiter(&first));
        pin_signal(&first);
        ASSERT_TRUE(wait_until([&] { return wait.done.load(); }));
        EXPECT_EQ(1, wait.result.load());
    }
    pin_reset(&first);
    {
        // A reset wakes the waiter too, and counts as the first object firing.
        BackgroundWait wait(&first, nullptr);
        ASSERT_TRUE(has_waiter(&first));
        pin_reset(&first);
        ASSERT_TRUE(wait_until([&] { return wait.done.load(); }));
        EXPECT_EQ(1, wait.result.load());
    }
    {
        BackgroundWait wait(&first, &second);
        ASSERT_TRUE(has_waiter(&second));
        pin_signal(&second);
        ASSERT_TRUE(wait_until([&] { return wait.done.load(); }));
        EXPECT_EQ(0, wait.result.load());
        EXPECT_EQ(nullptr, first.waiters);
    }
}

TEST(Pin, CallbacksRunOldestRegistrationFirst) {
    struct Recorder {
        WaiterEntry entry;
        int id;
        int* log;
        int* count;
    };
    int log[3] = {}, count = 0;
    Recorder recorders[3];
    Pin pin{};
    for (int i = 0; i < 3; ++i) {
        recorders[i].id = i;
        recorders[i].log = log;
        recorders[i].count = &count;
        recorders[i].entry.callback = [](WaiterEntry* e) {
            auto* r = reinterpret_cast<Recorder*>(e);
            r->log[(*r->count)++] = r->id;
            e->callback = nullptr;
        };
        ASSERT_EQ(1, pin_add_waiter(&pin, &recorders[i].entry));
    }
    // Removal of the middle entry keeps the others linked.
    EXPECT_EQ(1, pin_remove_waiter(&pin, &recorders[1].entry));
    EXPECT_EQ(0, pin_remove_waiter(&pin, &recorders[1].entry));
    pin_signal(&pin);
    ASSERT_EQ(2, count);
    EXPECT_EQ(0, log[0]);
    EXPECT_EQ(2, log[1]);
    EXPECT_EQ(0, pin_remove_waiter(&pin, &recorders[0].entry));
    EXPECT_EQ(0, pin_add_waiter(&pin, &recorders[0].entry)); // signalled: not registered
}

TEST(Group, AllOfSignalsAfterTheLastMember) {
    Pin members[3] = {};
    GroupMember entries[3];
    Group group;
    group_init(&group, 3);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &group, &members[i]);
    pin_signal(&members[0]);
    pin_signal(&members[1]);
    EXPECT_EQ(0, pin_is_signalled(&group));
    {
        BackgroundWait wait(&group, nullptr);
        ASSERT_TRUE(has_waiter(&group));
        pin_signal(&members[2]);
        ASSERT_TRUE(wait_until([&] { return wait.done.load(); }));
        EXPECT_EQ(1, wait.result.load());
    }
    group_cancel(&group);
    EXPECT_EQ(0, group.in_progress.load());
}

TEST(Group, AnyOfSignalsWithTheFirstMemberAndCancelWithdrawsTheRest) {
    Pin members[3] = {};
    GroupMember entries[3];
    Group group;
    group_init(&group, 1);
    for (int i = 0; i < 3; ++i) group_add(&entries[i], &group, &members[i]);
    EXPECT_EQ(0, pin_is_signalled(&group));
    pin_signal(&members[1]);
    EXPECT_EQ(1, pin_is_signalled(&group));
    group_cancel(&group);
    for (Pin& member : members) EXPECT_EQ(nullptr, member.waiters);

    // A member that is already signalled counts at once; the entries can be used again.
    group_init(&group, 1);
    group_add(&entries[0], &group, &members[1]);
    EXPECT_EQ(1, pin_wait(&group, nullptr, 0));
    group_cancel(&group);
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
        ASSERT_TRUE(has_waiter(&pin));
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

    // Armed and disarmed without a firing: nothing stays registered.
    pin_reset(&pin);
    event_bridge_arm(bridge, &pin);
    event_bridge_disarm(bridge, &pin);
    EXPECT_EQ(nullptr, pin.waiters);

    // The thread's cache gives the same bridge back.
    event_bridge_give(bridge);
    EventBridge* again = event_bridge_take();
    EXPECT_EQ(bridge, again);
    event_bridge_give(again);
    CloseHandle(other);
}
