// Process-exit work stops the alarm thread for good, and a fatal assertion ends the process: both
// run in a child process of this executable, so the other tests keep a working runtime.

#include <gtest/gtest.h>

#include <atomic>

#include "base/alarm.h"
#include "base/fatal.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

std::atomic<int> g_order[3];
std::atomic<int> g_routines_run{0};
std::atomic<int> g_threads_finished{0};
std::atomic<int> g_alarm_fired{0};
Pin g_release_threads{};

template <int Index> void exit_routine() {
    g_order[g_routines_run++] = Index;
    // The oldest routine (run last) lets the tracked threads finish; the exit work must then
    // wait for every one of them.
    if (Index == 0) pin_signal(&g_release_threads);
}

void tracked_thread(void*) {
    pin_wait(&g_release_threads, nullptr, 20000);
    // Still busy for a while after the release: only a real join waits for this.
    sleep_ms(30);
    ++g_threads_finished;
}

} // namespace

TEST(ExitWorkChild, RunsRoutinesNewestFirstFiresAlarmsAndJoinsThreads) {
    if (child_role() != "exit_work") GTEST_SKIP() << "runs in a child process";
    static Alarm far_alarm;
    alarm_set(&far_alarm,
              [](Alarm* alarm) {
                  ++g_alarm_fired;
                  alarm->callback = nullptr;
              },
              tick_now() + 3600 * 1000);

    static ExitRoutine routines[3];
    exit_routine_add(&routines[0], exit_routine<0>);
    exit_routine_add(&routines[1], exit_routine<1>);
    exit_routine_add(&routines[2], exit_routine<2>);
    const int thread_count = 6;
    for (int i = 0; i < thread_count; ++i) ASSERT_EQ(1, thread_start(tracked_thread, nullptr));

    process_exit_work();
    EXPECT_EQ(3, g_routines_run.load());
    EXPECT_EQ(2, g_order[0].load());
    EXPECT_EQ(1, g_order[1].load());
    EXPECT_EQ(0, g_order[2].load());
    EXPECT_EQ(thread_count, g_threads_finished.load());
    EXPECT_EQ(1, g_alarm_fired.load());

    // A second run finds nothing to do.
    process_exit_work();
    EXPECT_EQ(3, g_routines_run.load());
}

TEST(ExitWork, RunsInAChildProcess) {
    ChildResult child = run_child("ExitWorkChild.*", "exit_work");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(0u, child.exit_code) << child.output;
    EXPECT_NE(std::string::npos, child.output.find("[  PASSED  ] 1 test")) << child.output;
}

TEST(ThreadStart, ReapsEndedThreadsAsNewOnesStart) {
    // Many short threads: the list is reaped along the way and every function runs once.
    static std::atomic<int> runs{0};
    static Pin all_done{};
    const int count = 40;
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(1, thread_start(
                         [](void*) {
                             if (++runs == count) pin_signal(&all_done);
                         },
                         nullptr));
    EXPECT_EQ(1, pin_wait(&all_done, nullptr, 10000));
    EXPECT_EQ(count, runs.load());
}

TEST(FatalChild, QuotesTheMessage) {
    if (child_role() != "fatal") GTEST_SKIP() << "runs in a child process";
    // End with the exception's code rather than start a debugger.
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
    fflush(stdout);
    fatal_assert("base\\ksalarm", 7, "Resource exhaustion initializing alarm thread.\n");
}

TEST(Fatal, AssertLineGoesToStandardOutputAndTheProcessStops) {
    ChildResult child = run_child("FatalChild.*", "fatal");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(static_cast<DWORD>(EXCEPTION_BREAKPOINT), child.exit_code);
    EXPECT_NE(std::string::npos,
              child.output.find(
                  "ASSERT: base\\ksalarm:7 \"Resource exhaustion initializing alarm thread.\n\"\n"))
        << child.output;
}
