#include <atomic>

#include "base/nt_io.h"

namespace {

NtCancelCalls look_up() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    NtCancelCalls calls;
    calls.cancel_ex = reinterpret_cast<NtCancelIoFileExFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCancelIoFileEx")));
    calls.cancel_synchronous = reinterpret_cast<NtCancelSynchronousIoFileFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCancelSynchronousIoFile")));
    return calls;
}

} // namespace

const NtCancelCalls& nt_cancel_calls() {
    // A function-local static: the compiler's guarded initialisation makes the lookup run once.
    static const NtCancelCalls calls = look_up();
    return calls;
}
