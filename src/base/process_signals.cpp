#include "base/process_signals.h"

namespace {

// The fixed pins have tables of their own. A fixed-clear pin accepts every waiter and never
// calls it, so withdrawing one always succeeds; a fixed-signalled pin accepts none.
void fixed_unchanged(Signalable*) {}
int fixed_clear_accepts(Signalable*, WaiterEntry*) { return 1; }
int fixed_clear_still_registered(Signalable*, WaiterEntry*) { return 1; }
int fixed_clear_signalled(Signalable*) { return 0; }
int fixed_set_accepts(Signalable*, WaiterEntry*) { return 0; }
int fixed_set_still_registered(Signalable*, WaiterEntry*) { return 0; }
int fixed_set_signalled(Signalable*) { return 1; }

const SignalableOps fixed_clear_ops = {fixed_unchanged, fixed_unchanged, fixed_clear_accepts,
                                       fixed_clear_still_registered, fixed_clear_signalled};
const SignalableOps fixed_set_ops = {fixed_unchanged, fixed_unchanged, fixed_set_accepts,
                                     fixed_set_still_registered, fixed_set_signalled};

// Zero-initialised pins need no creation step: "created on first use" costs nothing.
Signalable g_fixed_clear{&fixed_clear_ops};
Pin g_pins[4];
Signalable g_fixed_set{&fixed_set_ops};

} // namespace

Signalable* process_signal_pin(unsigned index) {
    if (index == 0) return &g_fixed_clear;
    if (index >= 5) return &g_fixed_set;
    return &g_pins[index - 1];
}
