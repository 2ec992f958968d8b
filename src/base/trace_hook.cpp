#include "base/trace_hook.h"

#include <atomic>

#include <windows.h>

#include "base/format.h"
#include "base/sync.h"
#include "base/text.h"
#include "base/thread.h"

namespace {

enum LoadState : int { not_loaded = 0, loading = 1, loaded = 2 };

struct TraceHook {
    std::atomic<int> state{not_loaded};
    std::atomic<TraceLibrary*> library{nullptr};
    HMODULE module = nullptr;
    TraceChannel default_channel = nullptr; // under the hold
    Hold hold;
    ExitRoutine unload;
};

TraceHook g_trace;

void unload_library() {
    TraceLibrary* library = g_trace.library.exchange(nullptr, std::memory_order_acq_rel);
    if (!library) return;
    TraceChannel channel;
    {
        HoldGuard guard(&g_trace.hold);
        channel = g_trace.default_channel;
        g_trace.default_channel = nullptr;
    }
    if (channel) library->ReleaseChannel(channel);
    library->Close();
    FreeLibrary(g_trace.module);
    g_trace.module = nullptr;
}

// The library is looked for once per process. Loading happens outside every lock (the loader
// lock must never be taken under ours); the thread that wins the state publishes the result
// and the others see "loading" and go without tracing until it is done.
TraceLibrary* library() {
    int state = g_trace.state.load(std::memory_order_acquire);
    if (state == loaded) return g_trace.library.load(std::memory_order_acquire);
    if (state == loading) return nullptr;
    int expected = not_loaded;
    if (!g_trace.state.compare_exchange_strong(expected, loading, std::memory_order_acq_rel))
        return expected == loaded ? g_trace.library.load(std::memory_order_acquire) : nullptr;

    TraceLibrary* found = nullptr;
    HMODULE module = LoadLibraryW(L"traceapp.dll");
    if (module) {
        auto exports = reinterpret_cast<TraceExportsFunction>(
            reinterpret_cast<void*>(GetProcAddress(module, "traceexports1")));
        found = exports ? exports() : nullptr;
        if (!found) FreeLibrary(module);
    }
    if (found) {
        g_trace.module = module;
        g_trace.library.store(found, std::memory_order_release);
        exit_routine_add(&g_trace.unload, unload_library);
    }
    g_trace.state.store(loaded, std::memory_order_release);
    return found;
}

// The channel that `channel` stands for, with a reference the caller must release, or null.
TraceChannel resolve(TraceLibrary* lib, TraceChannel channel) {
    if (channel != trace_default_channel) return channel;
    HoldGuard guard(&g_trace.hold);
    if (g_trace.default_channel) lib->ReferenceChannel(g_trace.default_channel);
    return g_trace.default_channel;
}

} // namespace

bool trace_enabled() {
    return library() != nullptr;
}

TraceChannel trace_channel_open(const wchar_t* name) {
    TraceLibrary* lib = library();
    return lib ? lib->OpenChannel(name) : nullptr;
}

void trace_channel_set_default(TraceChannel channel) {
    TraceLibrary* lib = library();
    if (!lib || channel == trace_default_channel) return;
    if (channel) lib->ReferenceChannel(channel);
    TraceChannel previous;
    {
        HoldGuard guard(&g_trace.hold);
        previous = g_trace.default_channel;
        g_trace.default_channel = channel;
    }
    if (previous) lib->ReleaseChannel(previous);
}

void trace_channel_reference(TraceChannel channel) {
    TraceLibrary* lib = library();
    if (lib && channel && channel != trace_default_channel) lib->ReferenceChannel(channel);
}

void trace_channel_release(TraceChannel channel) {
    TraceLibrary* lib = library();
    if (lib && channel && channel != trace_default_channel) lib->ReleaseChannel(channel);
}

void trace_vprint(TraceChannel channel, const wchar_t* format, va_list args) {
    TraceLibrary* lib = channel ? library() : nullptr;
    if (!lib) return;
    TraceChannel target = resolve(lib, channel);
    if (!target) return;

    // Most lines fit the stack buffer; a longer one is formatted again into a heap block.
    wchar_t small[512];
    va_list again;
    va_copy(again, args);
    size_t length = text_vformat(small, sizeof small / sizeof small[0], format, args);
    if (length < sizeof small / sizeof small[0]) {
        lib->Print(target, small, length);
    } else if (wchar_t* large = text_vformat_alloc(format, again)) {
        lib->Print(target, large, length);
        text_free(large);
    }
    va_end(again);
    if (channel == trace_default_channel) lib->ReleaseChannel(target);
}

void trace_print(TraceChannel channel, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    trace_vprint(channel, format, args);
    va_end(args);
}
