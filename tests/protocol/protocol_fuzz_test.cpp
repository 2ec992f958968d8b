// A bounded run of the protocol fuzzer: seeded sessions through both transports (the long run
// is bench_fuzz).
#include <gtest/gtest.h>

#include "protocol_fuzzer.h"

using namespace zun::test;

TEST(ProtocolFuzz, BoundedRun) {
    FuzzReport report = fuzz_protocol({.seed = 0x5EED, .messages = 100000});
    printf("[          ] %s\n", fuzz_summary(report).c_str());
    EXPECT_GE(report.messages, 100000u);
    // Every kind of ending and of invalid request has come up.
    EXPECT_GT(report.stream_messages, 0u);
    EXPECT_GT(report.fast_pipe_messages, 0u);
    EXPECT_GT(report.invalid_answered, 0u);
    EXPECT_GT(report.framing_errors, 0u);
    EXPECT_GT(report.garbage_sessions, 0u);
}
