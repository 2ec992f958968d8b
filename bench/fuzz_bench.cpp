// The long run of the protocol fuzzer. ZUN_FUZZ_MESSAGES sets the number of messages (2 million
// by default), ZUN_FUZZ_SEED the seed (by default one from the clock, printed so that a failure
// can be reproduced). A failure prints what failed and ends the process with exit code 3.
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "bench.h"
#include "protocol_fuzzer.h"

int main() {
    zun::test::FuzzOptions options;
    options.messages = 2000000;
    options.seed = GetTickCount64();
    if (const char* value = getenv("ZUN_FUZZ_MESSAGES"))
        options.messages = _strtoui64(value, nullptr, 0);
    if (const char* value = getenv("ZUN_FUZZ_SEED")) options.seed = _strtoui64(value, nullptr, 0);
    options.verbose = getenv("ZUN_FUZZ_VERBOSE") != nullptr;
    double start = bench::now_ns();
    zun::test::FuzzReport report = zun::test::fuzz_protocol(options);
    double seconds = (bench::now_ns() - start) / 1e9;
    printf("protocol fuzz, seed %llu: %s; passed in %.1f s (%.0f messages/s)\r\n",
           static_cast<unsigned long long>(options.seed), zun::test::fuzz_summary(report).c_str(),
           seconds, double(report.messages) / seconds);
    return 0;
}
