// Tracked threads and process-exit work.
//
// Every thread the library starts goes through thread_start, so that the process-exit work can
// join them all. Front-ends call process_exit_work after their command: it runs the exit
// routines newest first (the alarm thread's stop is one of them) and then waits for every
// tracked thread. The sync state's own teardown at process exit runs it again; a second run
// finds nothing left to do.
#pragma once

using ThreadFunction = void (*)(void* argument);

// Starts `function(argument)` on a new tracked thread. Returns 1 if the thread runs, 0 if no
// memory or no thread could be had (then nothing runs).
int thread_start(ThreadFunction function, void* argument);

// An exit routine: owned by its registrant, usually a static.
struct ExitRoutine {
    ExitRoutine* next = nullptr;
    void (*function)() = nullptr;
};

// Registers `function` to run in the process-exit work. If the runtime has no sync state (out
// of memory) the function runs at once.
void exit_routine_add(ExitRoutine* routine, void (*function)());

// Runs and drops the exit routines one at a time, newest first, then joins and forgets every
// tracked thread. A thread that cannot be waited for gets a short grace period instead.
void process_exit_work();
