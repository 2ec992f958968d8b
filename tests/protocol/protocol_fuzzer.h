// The protocol fuzzer: seeded sessions of valid, invalid, mutated and garbage messages sent to a
// serving marshaller through both transports.
//
// Each session serves a formatter that accepts everything (completing most requests at once and
// some later, on another thread) through a marshaller of a random version, on a byte stream or
// on the simulated fast pipe, and checks what a driver may rely on:
// - every well-framed request with a request id gets exactly one reply with that id, and no
//   request with id 0 gets one;
// - a request that is invalid by construction (shorter than its minimum, an unknown operation,
//   read, write or control sizes out of bounds, a direct read the client's buffer cannot take)
//   is answered with code 4; a valid one with code 0; a mutated one with 0 or 4;
// - a framing error (a stream header with a bad size or the reply bit, a fast pipe transfer
//   that breaks the protocol) ends serving with 11, and nothing after it is answered;
// - garbage ends serving with 0, 11 or 109 once the client hangs up;
// - serving never hangs (every wait is bounded) and leaves nothing behind: request contexts,
//   writer threads, marshallers, fast pipe objects, transfers not completed exactly once.
// A failure ends the process after printing what failed and the seed that reproduces it.
#pragma once

#include <cstdint>
#include <string>

namespace zun::test {

struct FuzzOptions {
    uint64_t seed = 1;
    uint64_t messages = 10000; // at least this many, over both transports
    bool verbose = false;      // one line per session
};

struct FuzzReport {
    uint64_t messages = 0;
    uint64_t stream_messages = 0;
    uint64_t fast_pipe_messages = 0;
    uint64_t sessions = 0;
    uint64_t replies = 0;
    uint64_t invalid_answered = 0; // invalid by construction, answered with 4
    uint64_t framing_errors = 0;   // sessions ended with 11 by a framing error
    uint64_t garbage_sessions = 0;
};

// Runs sessions until `messages` have been sent. Returns only when every check passed.
FuzzReport fuzz_protocol(const FuzzOptions& options);

// One line summing up a report.
std::string fuzz_summary(const FuzzReport& report);

} // namespace zun::test
