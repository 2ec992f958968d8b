// The process signal pins: six process-wide signalables, indexed 0 to 5.
//
//   0  fixed clear: never fires; a wait on it lasts its full time-out
//   1  the shutdown pin: the process is asked to stop (console control event, window close,
//      end of session); long-running work and commands watch it
//   2-4 ordinary pins for the process's own use
//   5  fixed signalled: every wait on it ends at once
//
// Signalling or resetting pin 0 or 5 does nothing.
#pragma once

#include "base/sync.h"

// Indexes above 5 mean 5.
Signalable* process_signal_pin(unsigned index);

inline Signalable* shutdown_pin() {
    return process_signal_pin(1);
}
