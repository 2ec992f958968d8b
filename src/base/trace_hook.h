// The trace hook: the system's trace calls, forwarded to the trace library when it is present
// and doing nothing when it is not.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "base/trace_library.h"

// A channel value with all bits set stands for the process's default channel, whatever it is
// at the time of the call.
inline TraceChannel const trace_default_channel = reinterpret_cast<TraceChannel>(~uintptr_t(0));

// True when the trace library is loaded. The first trace call of the process loads it.
bool trace_enabled();

// A channel named `name` (one reference), or null without the library.
TraceChannel trace_channel_open(const wchar_t* name);

// Makes `channel` the default channel; the hook takes its own reference and drops the one it
// held on the previous default.
void trace_channel_set_default(TraceChannel channel);

// Reference counting of channels. The default-channel value and null need none; both calls
// accept them and do nothing.
void trace_channel_reference(TraceChannel channel);
void trace_channel_release(TraceChannel channel);

// Formats with the system's formatter (UTF-16 format) and prints to the channel. A null
// channel, or no library, prints nothing.
void trace_print(TraceChannel channel, const wchar_t* format, ...);
void trace_vprint(TraceChannel channel, const wchar_t* format, va_list args);
