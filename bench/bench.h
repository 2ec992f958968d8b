#pragma once
// A small timing harness shared by the benchmarks. Each figure is measured for the project and
// for its baseline in the same run and printed as one line:
//   <name>: ours <x> ns/op, baseline <y> ns/op, ratio <baseline/ours>x
// so that a noisy machine still gives a meaningful ratio.
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <stdarg.h>

#include "base/format.h"

namespace bench {

inline double now_ns() {
    static const double ns_per_tick = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return 1e9 / static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) * ns_per_tick;
}

// Keeps a result alive so that the compiler cannot drop the work that made it.
inline void keep(size_t value) {
    static volatile size_t sink;
    sink = sink + value;
}

// The iteration count of a round: doubled until a round lasts at least `round_ns`, so short
// operations are not drowned by the timer's resolution.
template <typename Op> size_t calibrate(Op& op, double round_ns) {
    size_t iterations = 1;
    for (;;) {
        double start = now_ns();
        for (size_t i = 0; i < iterations; ++i) op();
        if (now_ns() - start >= round_ns || iterations >= (size_t(1) << 40)) return iterations;
        iterations *= 2;
    }
}

template <typename Op> double round_ns_per_op(Op& op, size_t iterations) {
    double start = now_ns();
    for (size_t i = 0; i < iterations; ++i) op();
    return (now_ns() - start) / static_cast<double>(iterations);
}

// The best time per call of `op` over `rounds` rounds: the best round is the one least
// disturbed by the rest of the machine.
template <typename Op> double best_ns_per_op(Op&& op, int rounds = 9, double round_ns = 20e6) {
    size_t iterations = calibrate(op, round_ns);
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        double t = round_ns_per_op(op, iterations);
        if (t < best) best = t;
    }
    return best;
}

// Measures ours and the baseline in alternating rounds, so that both see the same machine,
// keeps the best round of each and prints the figure.
template <typename Ours, typename Baseline>
void compare(const char* name, Ours&& ours, Baseline&& baseline, int rounds = 9,
             double round_ns = 20e6);

// Fixed-point text of a non-negative value with the given number of decimals.
inline size_t decimal_text(char* out, size_t capacity, double value, unsigned decimals) {
    uint64_t scale = 1;
    for (unsigned i = 0; i < decimals; ++i) scale *= 10;
    uint64_t scaled = static_cast<uint64_t>(value * static_cast<double>(scale) + 0.5);
    if (decimals == 0) return utf8_format(out, capacity, "%I64u", scaled);
    return utf8_format(out, capacity, "%I64u.%0*I64u", scaled / scale, static_cast<int>(decimals),
                       scaled % scale);
}

// Prints one formatted line (UTF-8) to standard output.
inline void say(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    size_t n = utf8_vformat(line, sizeof line, format, args);
    va_end(args);
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line,
              static_cast<DWORD>(n < sizeof line ? n : sizeof line - 1), &written, nullptr);
}

inline void report(const char* name, double ours_ns, double baseline_ns) {
    char ours[32], baseline[32], ratio[32];
    decimal_text(ours, sizeof ours, ours_ns, 1);
    decimal_text(baseline, sizeof baseline, baseline_ns, 1);
    decimal_text(ratio, sizeof ratio, baseline_ns / ours_ns, 2);
    say("%s: ours %s ns/op, baseline %s ns/op, ratio %sx\r\n", name, ours, baseline, ratio);
}

template <typename Ours, typename Baseline>
void compare(const char* name, Ours&& ours, Baseline&& baseline, int rounds, double round_ns) {
    size_t ours_iterations = calibrate(ours, round_ns);
    size_t baseline_iterations = calibrate(baseline, round_ns);
    double ours_best = 1e300, baseline_best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        double t = round_ns_per_op(ours, ours_iterations);
        if (t < ours_best) ours_best = t;
        t = round_ns_per_op(baseline, baseline_iterations);
        if (t < baseline_best) baseline_best = t;
    }
    report(name, ours_best, baseline_best);
}

} // namespace bench
