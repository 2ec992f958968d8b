#include <gtest/gtest.h>

#include <atomic>

#include "base/alarm.h"
#include "base/sync.h"
#include "base/tick.h"

namespace {

// An alarm that records its firings and signals a pin for each.
struct TestAlarm {
    Alarm alarm; // first: the callback finds the record from the alarm's address
    Pin fired{};
    std::atomic<int> count{0};
    std::atomic<DWORD> thread{0};
    std::atomic<int> sequence{0};
    std::atomic<int>* sequencer = nullptr;

    ~TestAlarm() { alarm_cancel(&alarm); }

    static void on_fire(Alarm* alarm) {
        auto* self = reinterpret_cast<TestAlarm*>(alarm);
        if (self->sequencer) self->sequence = ++*self->sequencer;
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

} // namespace

TEST(Alarm, AlarmsDueAtTheSameTickBothFireInArmingOrder) {
    std::atomic<int> sequencer{0};
    TestAlarm a, b;
    a.sequencer = b.sequencer = &sequencer;
    uint64_t due = tick_now() + 30;
    alarm_set(&a.alarm, TestAlarm::on_fire, due);
    alarm_set(&b.alarm, TestAlarm::on_fire, due);
    ASSERT_TRUE(a.wait_fired());
    ASSERT_TRUE(b.wait_fired());
    EXPECT_GE(tick_now(), due);
    EXPECT_EQ(1, a.sequence.load());
    EXPECT_EQ(2, b.sequence.load());
    // Both on the alarm thread.
    EXPECT_EQ(a.thread.load(), b.thread.load());
    EXPECT_NE(GetCurrentThreadId(), a.thread.load());
}

TEST(Alarm, ReArmingMovesTheAlarm) {
    TestAlarm a;
    // Moved earlier: the alarm thread must notice its new earliest alarm.
    alarm_set(&a.alarm, TestAlarm::on_fire, tick_now() + hour);
    alarm_set(&a.alarm, TestAlarm::on_fire, tick_now() + 20);
    ASSERT_TRUE(a.wait_fired());
    // Armed again after its firing, it fires again.
    alarm_set(&a.alarm, TestAlarm::on_fire, tick_now() + 20);
    ASSERT_TRUE(a.wait_fired());
    EXPECT_EQ(2, a.count.load());

    // Moved later, it does not fire at its first due tick.
    alarm_set(&a.alarm, TestAlarm::on_fire, tick_now() + 500);
    alarm_set(&a.alarm, TestAlarm::on_fire, tick_now() + hour);
    EXPECT_FALSE(a.wait_fired(600));
    EXPECT_EQ(2, a.count.load());
}

TEST(Alarm, CancelFiresAFarAlarmAtOnceOnTheCancellingThread) {
    TestAlarm a;
    uint64_t due = tick_now() + hour;
    alarm_set(&a.alarm, TestAlarm::on_fire, due);
    // The same due tick again leaves the arming as it was, callback included.
    alarm_set(&a.alarm, [](Alarm* alarm) { alarm->callback = nullptr; }, due);
    alarm_cancel(&a.alarm);
    EXPECT_EQ(1, a.count.load());
    EXPECT_EQ(GetCurrentThreadId(), a.thread.load());
    EXPECT_EQ(nullptr, a.alarm.callback.load());
    // Cancelling an idle alarm calls nothing.
    alarm_cancel(&a.alarm);
    EXPECT_EQ(1, a.count.load());
}

TEST(Tick, ExtendedClockKeepsRisingAcrossTheWrap) {
    static uint32_t fake_clock;
    TickExtender extender{};
    auto read = [](uint32_t value, TickExtender* ext) {
        fake_clock = value;
        return tick_extend(ext, [] { return static_cast<DWORD>(fake_clock); });
    };
    EXPECT_EQ(0x7FFFFFF0u, read(0x7FFFFFF0u, &extender));
    EXPECT_EQ(0x80000010u, read(0x80000010u, &extender));
    EXPECT_EQ(0xFFFFFFFFu, read(0xFFFFFFFFu, &extender));
    EXPECT_EQ(0x100000005u, read(0x00000005u, &extender));
    EXPECT_EQ(0x100000005u, read(0x00000005u, &extender));
    EXPECT_EQ(0x180000001u, read(0x80000001u, &extender));
    EXPECT_EQ(0x200000000u, read(0x00000000u, &extender));

    // A clock first read in its upper half starts there.
    TickExtender late{};
    EXPECT_EQ(0xC0000000u, read(0xC0000000u, &late));
    EXPECT_EQ(0x140000000u, read(0x40000000u, &late));

    uint64_t first = tick_now();
    EXPECT_GE(tick_now(), first);
}
