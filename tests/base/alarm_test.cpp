#include <gtest/gtest.h>

#include <atomic>

#include "base/alarm.h"
#include "base/sync.h"
#include "base/tick.h"

namespace {

std::atomic<int> firings{0}; // across all alarms, for their order

// An alarm that records its firings: how many, the last one's place in the order, its thread.
struct TestAlarm {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin fired{};
    std::atomic<int> count{0}, place{0};
    std::atomic<DWORD> thread{0};

    ~TestAlarm() { alarm_cancel(&alarm); }
    void set(uint64_t due) {
        alarm_set(
            &alarm,
            [](Alarm* alarm) {
                auto* self = reinterpret_cast<TestAlarm*>(alarm);
                self->place = ++firings;
                self->thread = GetCurrentThreadId();
                ++self->count;
                pin_signal(&self->fired);
                alarm->callback = nullptr;
            },
            due);
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

} // namespace

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
    // A clock first read in its upper half starts there.
    TickExtender late{};
    EXPECT_EQ(0xC0000000u, read(0xC0000000u, &late));
    EXPECT_EQ(0x140000000u, read(0x40000000u, &late));
}
