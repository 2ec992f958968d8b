// Fatal internal failures: conditions the runtime cannot continue after (a keyed event or the
// alarm thread that cannot be created).
#pragma once

// Writes "ASSERT: <file>:<line>" (with ` "<message>"` when there is a message) and a line end
// to standard output, then stops the process with a breakpoint trap.
[[noreturn]] void fatal_assert(const char* file, int line, const char* message);
