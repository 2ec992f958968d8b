// The contract with the optional trace library, "traceapp.dll". A tracing tool provides the
// library; when it sits where the program's DLLs are found, every trace line of the system
// goes to it. Without it, tracing costs one check per call.
//
// The library exports `traceexports1`, which returns its TraceLibrary (or null to decline).
// The table is COM-style: pure virtual operations in a fixed slot order, no destructor, plain
// types only, so that a library built with another compiler fits.
#pragma once

#include <cstddef>

// A channel is the library's own value; the system only passes it back. Null is no channel.
using TraceChannel = void*;

struct TraceLibrary {
    // Slot 0. Called once, at process exit, after the last trace call; the library is then
    // unloaded.
    virtual void Close() = 0;
    // Slot 1. A new channel named after a program or module, holding one reference; null when
    // the library declines.
    virtual TraceChannel OpenChannel(const wchar_t* name) = 0;
    // Slot 2. Formatted text for a channel: one or more whole lines, each ending in "\n".
    // `length` counts UTF-16 units; the text is also terminated.
    virtual void Print(TraceChannel channel, const wchar_t* text, size_t length) = 0;
    // Slots 3 and 4. Channels are shared by reference count; the last release closes one.
    virtual void ReferenceChannel(TraceChannel channel) = 0;
    virtual void ReleaseChannel(TraceChannel channel) = 0;
};

// The export: `extern "C" TraceLibrary* traceexports1(void)`.
using TraceExportsFunction = TraceLibrary* (*)();
