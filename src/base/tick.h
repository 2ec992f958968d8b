// The runtime's millisecond clock and sleep.
#pragma once

#include <atomic>
#include <cstdint>

#include <windows.h>

#include "base/sync.h"

// Milliseconds since system start, 64 bits wide: GetTickCount64 where kernel32 has it, else the
// 32-bit GetTickCount extended by tick_extend.
uint64_t tick_now();

// Sleeps for `ms` milliseconds; a negative value sleeps without end.
void sleep_ms(int32_t ms);

// Extends a 32-bit millisecond clock to 64 bits. `high` is a multiple of 0x80000000 that moves
// forward when bit 31 of a reading differs from its own bit 31; a reading is
// (clock & 0x7FFFFFFF) | high. Correct as long as the clock is read at least once every 24.8
// days. Zero-initialised it starts at the clock's own value.
struct TickExtender {
    std::atomic<uint64_t> high{0};
    Hold hold;
};

using TickClock32 = DWORD(WINAPI*)();

uint64_t tick_extend(TickExtender* extender, TickClock32 clock);
