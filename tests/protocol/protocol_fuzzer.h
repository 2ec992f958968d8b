// The protocol fuzzer: seeded sessions of valid, invalid, mutated and garbage messages sent to a
// serving marshaller, on a byte stream or on the simulated fast pipe. It checks that every
// request with an id gets exactly one reply (none for id 0), that requests invalid by
// construction get code 4, that a framing error ends serving with 11 and nothing after it is
// answered, that serving never hangs, and that nothing is left behind. A failure prints what
// failed with the seed that reproduces it and ends the process.
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
    uint64_t messages = 0, stream_messages = 0, fast_pipe_messages = 0, sessions = 0;
    uint64_t replies = 0;
    uint64_t invalid_answered = 0; // invalid by construction, answered with 4
    uint64_t framing_errors = 0;   // sessions ended with 11 by a framing error
    uint64_t garbage_sessions = 0;
};

// Runs sessions until `messages` have been sent; returns only when every check passed.
FuzzReport fuzz_protocol(const FuzzOptions& options);
std::string fuzz_summary(const FuzzReport& report);

} // namespace zun::test
