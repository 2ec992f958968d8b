#include "base/process_signals.h"

namespace {

// The fixed pins have tables of their own. A fixed-clear pin accepts every waiter and never
// calls it, so withdrawing one always succeeds; a fixed-signalled pin accepts none.
void unchanged(Signalable*) {}

const SignalableOps fixed_clear_ops = {
    unchanged,
    unchanged,
    [](Signalable*, WaiterEntry*) { return 1; }, // accepted, never called
    [](Signalable*, WaiterEntry*) { return 1; }, // still registered
    [](Signalable*) { return 0; },
};
const SignalableOps fixed_set_ops = {
    unchanged,
    unchanged,
    [](Signalable*, WaiterEntry*) { return 0; }, // already signalled
    [](Signalable*, WaiterEntry*) { return 0; },
    [](Signalable*) { return 1; },
};

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
