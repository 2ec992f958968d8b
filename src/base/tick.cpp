#include "base/tick.h"

#include "base/nt.h"

namespace {

using TickClock64 = ULONGLONG(WINAPI*)();

// GetTickCount64 arrived with Vista; look it up once and remember the answer. The sentinel
// distinguishes "not looked up yet" from "looked up, absent" (null).
const auto not_looked_up = reinterpret_cast<TickClock64>(1);
std::atomic<TickClock64> g_clock64{not_looked_up};

TickExtender g_extender;

TickClock64 clock64() {
    TickClock64 clock = g_clock64.load(std::memory_order_acquire);
    if (clock == not_looked_up) {
        clock = reinterpret_cast<TickClock64>(reinterpret_cast<void*>(
            GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetTickCount64")));
        g_clock64.store(clock, std::memory_order_release);
    }
    return clock;
}

} // namespace

uint64_t tick_extend(TickExtender* extender, TickClock32 clock) {
    for (;;) {
        uint64_t high = extender->high.load(std::memory_order_acquire);
        uint32_t reading = clock();
        if (((reading ^ high) & 0x80000000u) == 0) return (reading & 0x7FFFFFFFu) | high;
        // Bit 31 of the clock moved past the high part (a half-wrap every 24.8 days): advance the
        // high part by one step, unless another thread has done it since we looked, and read
        // again.
        hold_acquire(&extender->hold);
        if (extender->high.load(std::memory_order_relaxed) == high)
            extender->high.store(high + 0x80000000u, std::memory_order_release);
        hold_release(&extender->hold);
    }
}

uint64_t tick_now() {
    if (TickClock64 clock = clock64()) return clock();
    return tick_extend(&g_extender, GetTickCount);
}

void sleep_ms(int32_t ms) {
    // NtDelayExecution takes a relative time as a negative count of 100 ns. "Without end" is a
    // loop of the longest finite delays: the encodings of an infinite delay differ between
    // systems.
    LARGE_INTEGER interval;
    if (ms >= 0) {
        interval.QuadPart = -static_cast<int64_t>(ms) * 10000;
        NtDelayExecution(FALSE, &interval);
        return;
    }
    interval.QuadPart = -static_cast<int64_t>(0x7FFFFFFF) * 10000;
    for (;;) NtDelayExecution(FALSE, &interval);
}
