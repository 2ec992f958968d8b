// Holds, wait words, pins, groups, the event bridge, alarms, the tick, tracked threads and the
// process-exit work.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/alarm.h"
#include "base/fatal.h"
#include "base/sync.h"
#include "base/thread.h"
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

std::atomic<int> firings{0}; // across all alarms, for their order

// An alarm that records its firings: how many, the last one's place in the order, its thread.
struct TestAlarm {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin fired{};
    std::atomic<int> count{0}, place{0};
    std::atomic<DWORD> thread{0};

    ~TestAlarm() { alarm_cancel(&alarm); }
    void set(uint64_t due) { alarm_set(&alarm, on_fire, due); }
    static void on_fire(Alarm* alarm) {
        auto* self = reinterpret_cast<TestAlarm*>(alarm);
        self->place = ++firings;
        self->thread = GetCurrentThreadId();
        ++self->count;
        pin_signal(&self->fired);
        alarm->callback = nullptr;
    }
    // Waits for the next firing and for its callback to finish (an alarm may be armed again
    // only then); false if none came within `timeout_ms`.
    bool wait_fired(int32_t timeout_ms = 5000) {
        bool fired_in_time = pin_wait(&fired, nullptr, timeout_ms) == 1;
        if (fired_in_time) alarm_cancel(&alarm);
        pin_reset(&fired);
        return fired_in_time;
    }
};

const uint64_t hour = 3600 * 1000;

std::vector<int> routine_order;
std::atomic<int> threads_finished{0};
Pin release_threads{};

template <int Index> void exit_routine() {
    routine_order.push_back(Index);
    // The oldest routine (run last) lets the tracked threads finish; the exit work must then
    // wait for every one of them, still busy for a while after the release.
    if (Index == 0) pin_signal(&release_threads);
}

void tracked_thread(void*) {
    pin_wait(&release_threads, nullptr, 20000);
    sleep_ms(30);
    ++threads_finished;
}

} // namespace

TEST(WaitWord, RemembersAnEarlyWakeAndTimesOutWithoutOne) {
    WaitWord word;
    wait_word_wake(&word);
    EXPECT_EQ(1, wait_word_wait(&word, 5000));
    uint64_t start = tick_now();
    WaitWord idle;
    EXPECT_EQ(0, wait_word_wait(&idle, 50));
    EXPECT_GE(tick_now() - start, 40u);
    // Idle again after the time-out: a later wake is remembered for a later wait.
    wait_word_wake(&idle);
    EXPECT_EQ(1, wait_word_wait(&idle, 0));
}

TEST(WaitWord, WakeRacingWithTimeOutNeverStrandsTheWaker) {
    // Waits with time-outs of 0-2 ms against wakes landing around the same moment. Whatever the
    // interleaving, the waker must get through.
    for (int round = 0; round < 200; ++round) {
        struct Round {
            WaitWord word;
            std::atomic<bool> woke{false};
        };
        auto* r = new Round;
        std::thread waker([r, round] {
            for (int spin = 0; spin < (round % 7) * 500; ++spin) YieldProcessor();
            wait_word_wake(&r->word);
            r->woke = true;
        });
        wait_word_wait(&r->word, round % 3);
        if (!wait_until([&] { return r->woke.load(); })) {
            waker.detach(); // stuck in its release for good; leave it and its round behind
            FAIL() << "waker blocked, round " << round;
        }
        waker.join();
        delete r;
    }
}

TEST(Hold, QueuedThreadsGetTheHoldInArrivalOrder) {
    struct Queue {
        Hold hold;
        std::vector<int> order;
        std::atomic<int> done{0};
    };
    auto* q = new Queue; // left behind if a thread never gets the hold
    hold_acquire(&q->hold);
    std::vector<std::thread> threads;
    for (int id = 0; id < 3; ++id) {
        uintptr_t before = q->hold.state.load();
        threads.emplace_back([q, id] {
            hold_acquire(&q->hold);
            q->order.push_back(id);
            hold_release(&q->hold);
            ++q->done;
        });
        // Each thread has queued when the state word points to its waiter record.
        ASSERT_TRUE(wait_until([&] { return q->hold.state.load() != before; }));
    }
    hold_release(&q->hold);
    bool all_done = wait_until([&] { return q->done.load() == 3; });
    for (auto& t : threads) all_done ? t.join() : t.detach();
    ASSERT_TRUE(all_done) << "a queued thread never got the hold";
    EXPECT_EQ((std::vector<int>{0, 1, 2}), q->order);
    EXPECT_EQ(0u, q->hold.state.load());
    delete q;
}

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
    EXPECT_TRUE(!first.waiters && !second.waiters);

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
    EXPECT_EQ(1, pin_wait(&group, nullptr, 0));
    group_cancel(&group);
    for (Pin& member : members) EXPECT_EQ(nullptr, member.waiters);
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

TEST(Alarm, AlarmsDueAtTheSameTickBothFireInArmingOrderOnTheAlarmThread) {
    TestAlarm a, b;
    uint64_t due = tick_now() + 30;
    a.set(due);
    b.set(due);
    ASSERT_TRUE(a.wait_fired());
    ASSERT_TRUE(b.wait_fired());
    EXPECT_GE(tick_now(), due);
    EXPECT_EQ(a.place + 1, b.place);
    EXPECT_EQ(a.thread.load(), b.thread.load());
    EXPECT_NE(GetCurrentThreadId(), a.thread.load());
}

TEST(Alarm, ReArmingMovesTheAlarmAndCancelFiresAFarOneAtOnce) {
    TestAlarm a;
    // Moved earlier: the alarm thread must notice its new earliest alarm.
    a.set(tick_now() + hour);
    a.set(tick_now() + 20);
    ASSERT_TRUE(a.wait_fired());
    // Armed again after its firing, it fires again.
    a.set(tick_now() + 20);
    ASSERT_TRUE(a.wait_fired());
    // Moved later, it does not fire at its first due tick.
    a.set(tick_now() + 500);
    a.set(tick_now() + hour);
    EXPECT_FALSE(a.wait_fired(600));
    EXPECT_EQ(2, a.count.load());

    // The same due tick again leaves the arming as it was, callback included; a cancel fires
    // the far alarm at once, on the cancelling thread.
    uint64_t due = tick_now() + hour;
    a.set(due);
    alarm_set(
        &a.alarm, [](Alarm* alarm) { alarm->callback = nullptr; }, due);
    alarm_cancel(&a.alarm);
    EXPECT_EQ(3, a.count.load());
    EXPECT_EQ(GetCurrentThreadId(), a.thread.load());
    EXPECT_EQ(nullptr, a.alarm.callback.load());
    alarm_cancel(&a.alarm); // an idle alarm: nothing to call
    EXPECT_EQ(3, a.count.load());
}

TEST(Tick, ExtendedClockKeepsRisingAcrossTheWrap) {
    static uint32_t fake_clock;
    auto read = [](uint32_t value, TickExtender* extender) {
        fake_clock = value;
        return tick_extend(extender, [] { return static_cast<DWORD>(fake_clock); });
    };
    TickExtender ext{};
    const uint32_t reads[] = {0x7FFFFFF0u, 0x80000010u, 0xFFFFFFFFu, 5, 5, 0x80000001u, 0};
    const uint64_t expected[] = {0x7FFFFFF0u,  0x80000010u,  0xFFFFFFFFu, 0x100000005u,
                                 0x100000005u, 0x180000001u, 0x200000000u};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(expected[i], read(reads[i], &ext)) << i;
}

TEST(ExitWorkChild, RunsRoutinesNewestFirstFiresAlarmsAndJoinsThreads) {
    if (child_role() != "exit_work") GTEST_SKIP() << "runs in a child process";
    static TestAlarm far_alarm;
    far_alarm.set(tick_now() + hour);
    static ExitRoutine routines[3];
    exit_routine_add(&routines[0], exit_routine<0>);
    exit_routine_add(&routines[1], exit_routine<1>);
    exit_routine_add(&routines[2], exit_routine<2>);
    for (int i = 0; i < 6; ++i) ASSERT_EQ(1, thread_start(tracked_thread, nullptr));
    process_exit_work();
    EXPECT_EQ((std::vector<int>{2, 1, 0}), routine_order);
    EXPECT_EQ(6, threads_finished.load());
    EXPECT_EQ(1, far_alarm.count.load());
    process_exit_work(); // a second run finds nothing to do
    EXPECT_EQ(3u, routine_order.size());
}

TEST(FatalChild, QuotesTheMessage) {
    if (child_role() != "fatal") GTEST_SKIP() << "runs in a child process";
    // End with the exception's code rather than start a debugger.
    SetUnhandledExceptionFilter(
        [](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
    fflush(stdout);
    fatal_assert("base\\ksalarm", 7, "Resource exhaustion initializing alarm thread.\n");
}

TEST(ExitWork, ExitWorkAndFatalAssertionRunInChildProcesses) {
    ChildResult child = run_child("ExitWorkChild.*", "exit_work");
    EXPECT_EQ(0u, child.exit_code) << child.output;
    EXPECT_NE(std::string::npos, child.output.find("[  PASSED  ] 1 test")) << child.output;

    child = run_child("FatalChild.*", "fatal");
    EXPECT_EQ(static_cast<DWORD>(EXCEPTION_BREAKPOINT), child.exit_code);
    EXPECT_NE(std::string::npos,
              child.output.find(
                  "ASSERT: base\\ksalarm:7 \"Resource exhaustion initializing alarm thread.\n\"\n"))
        << child.output;
}
