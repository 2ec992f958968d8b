// The process environment of the front-ends: standard handles that always work, and the
// shutdown pin raised by console control events or, without a console, by a hidden window.
#pragma once

// Replaces each standard handle that is missing, invalid, or a console handle that no longer
// answers as a console, with the null device.
void std_handles_repair();

// Once per process: a console control handler for Ctrl+C, Ctrl+Break, close, logoff and
// shutdown, and, when the process has no console, a hidden window ("SignalWindow") whose close
// or end-of-session message does the same. Both signal the shutdown pin. The handler and the
// window go away in the process-exit work.
void console_signals_init();
