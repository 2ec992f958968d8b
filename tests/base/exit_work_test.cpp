// Process-exit work stops the alarm thread for good, and a fatal assertion ends the process: both
// run in a child process of this executable, so the other tests keep a working runtime.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "base/alarm.h"
#include "base/fatal.h"
#include "base/thread.h"
#include "base/tick.h"
#include "test_support.h"

namespace {

std::vector<int> routine_order;
std::atomic<int> threads_finished{0}, alarms_fired{0};
Pin release_threads{};

template <int Index> void exit_routine() {
    routine_order.push_back(Index);
    // The oldest routine (run last) lets the tracked threads finish; the exit work must then
    // wait for every one of them, still busy for a while after the release.
    if (Index == 0) pin_signal(&release_threads);
}

} // namespace

TEST(ExitWorkChild, RunsRoutinesNewestFirstFiresAlarmsAndJoinsThreads) {
    if (child_role() != "exit_work") GTEST_SKIP() << "runs in a child process";
    static Alarm far_alarm;
    alarm_set(
        &far_alarm, [](Alarm* alarm) { ++alarms_fired, alarm->callback = nullptr; },
        tick_now() + 3600 * 1000);
    static ExitRoutine routines[3];
    exit_routine_add(&routines[0], exit_routine<0>);
    exit_routine_add(&routines[1], exit_routine<1>);
    exit_routine_add(&routines[2], exit_routine<2>);
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(1, thread_start(
                         [](void*) {
                             pin_wait(&release_threads, nullptr, 20000);
                             sleep_ms(30);
                             ++threads_finished;
                         },
                         nullptr));
    process_exit_work();
    EXPECT_EQ((std::vector<int>{2, 1, 0}), routine_order);
    EXPECT_EQ(6, threads_finished.load());
    EXPECT_EQ(1, alarms_fired.load());
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
    ASSERT_TRUE(child.started);
    EXPECT_EQ(0u, child.exit_code) << child.output;
    EXPECT_NE(std::string::npos, child.output.find("[  PASSED  ] 1 test")) << child.output;

    child = run_child("FatalChild.*", "fatal");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(static_cast<DWORD>(EXCEPTION_BREAKPOINT), child.exit_code);
    EXPECT_NE(std::string::npos,
              child.output.find(
                  "ASSERT: base\\ksalarm:7 \"Resource exhaustion initializing alarm thread.\n\"\n"))
        << child.output;
}

TEST(ThreadStart, ReapsEndedThreadsAsNewOnesStart) {
    // Many short threads: the list is reaped along the way and every function runs once.
    static std::atomic<int> runs{0};
    static Pin all_done{};
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(
            1, thread_start([](void*) { ++runs == 40 ? pin_signal(&all_done) : void(); }, nullptr));
    EXPECT_EQ(1, pin_wait(&all_done, nullptr, 10000));
    EXPECT_EQ(40, runs.load());
}
