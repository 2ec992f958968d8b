#include "base/thread.h"

#include <new>

#include "base/sync_state.h"
#include "base/tick.h"

// Tracked threads live on the sync state's thread list from thread_start until they are reaped
// (by a later thread_start, once enough of them have ended) or joined by the process-exit work.
// A record's end mark is the value of the end counter when its function returned; the counter
// also measures the grace period given to a thread whose handle cannot be waited for.

namespace {

class StateLock {
public:
    explicit StateLock(SyncState* state) : state_(state) { EnterCriticalSection(&state_->lock); }
    ~StateLock() { LeaveCriticalSection(&state_->lock); }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

private:
    SyncState* state_;
};

ThreadRecord* new_record(ThreadFunction function, void* argument) {
    void* block = HeapAlloc(GetProcessHeap(), 0, sizeof(ThreadRecord));
    if (!block) return nullptr;
    auto* record = new (block) ThreadRecord();
    record->function = function;
    record->argument = argument;
    return record;
}

void free_record(ThreadRecord* record) {
    record->~ThreadRecord();
    HeapFree(GetProcessHeap(), 0, record);
}

DWORD WINAPI thread_main(void* parameter) {
    auto* record = static_cast<ThreadRecord*>(parameter);
    record->function(record->argument);
    // From here on the thread only has to leave. Running it at high priority keeps a joiner
    // (or a reaping thread_start) from waiting on a thread that is starved on its way out.
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    SyncState* state = g_sync_state.load(std::memory_order_acquire);
    StateLock lock(state);
    record->end_mark.store(state->end_counter.load(std::memory_order_relaxed),
                           std::memory_order_release);
    if (record->listed) ++state->ended_count;
    return 0;
}

// Waits for a record's thread, closes its handle and frees the record. While the thread runs
// the wait goes in 200 ms steps, so that a thread that ends (sets its mark) but cannot finish
// leaving is noticed; once it has ended the wait is without end. If the handle cannot be waited
// for at all, the thread gets a grace of five ticks of the end counter, 10 ms each.
void join_record(SyncState* state, ThreadRecord* record) {
    if (record->handle) {
        DWORD result;
        for (;;) {
            bool ended = record->end_mark.load(std::memory_order_acquire) != 0;
            result = WaitForSingleObject(record->handle, ended ? INFINITE : 200);
            if (result != WAIT_TIMEOUT) break;
        }
        if (result != WAIT_OBJECT_0) {
            uint32_t mark = record->end_mark.load(std::memory_order_acquire);
            while (static_cast<int32_t>(state->end_counter.load(std::memory_order_relaxed) -
                                        mark) < 5) {
                state->end_counter.fetch_add(1, std::memory_order_relaxed);
                sleep_ms(10);
            }
        }
        CloseHandle(record->handle);
    }
    free_record(record);
}

// Takes every ended record off the list (under the lock). A record without a handle is one whose
// starter has not stored the handle yet; it stays.
ThreadRecord* take_ended(SyncState* state) {
    ThreadRecord* taken = nullptr;
    for (ThreadRecord** link = &state->threads; *link;) {
        ThreadRecord* record = *link;
        if (record->handle && record->end_mark.load(std::memory_order_acquire)) {
            *link = record->next;
            record->listed = false;
            --state->thread_count;
            --state->ended_count;
            record->next = taken;
            taken = record;
        } else {
            link = &record->next;
        }
    }
    return taken;
}

// Unlinks the first record whose handle is stored (under the lock); null if there is none.
ThreadRecord* unlink_joinable(SyncState* state) {
    for (ThreadRecord** link = &state->threads; *link; link = &(*link)->next) {
        ThreadRecord* record = *link;
        if (!record->handle) continue;
        *link = record->next;
        record->listed = false;
        --state->thread_count;
        if (record->end_mark.load(std::memory_order_relaxed)) --state->ended_count;
        return record;
    }
    return nullptr;
}

DWORD WINAPI untracked_main(void* parameter) {
    auto* record = static_cast<ThreadRecord*>(parameter);
    ThreadFunction function = record->function;
    void* argument = record->argument;
    free_record(record);
    function(argument);
    return 0;
}

} // namespace

int thread_start(ThreadFunction function, void* argument) {
    SyncState* state = sync_state();
    ThreadRecord* record = new_record(function, argument);
    if (!record) return 0;
    if (!state) {
        // Nothing to track the thread with; run it untracked rather than not at all.
        HANDLE handle = CreateThread(nullptr, 0, untracked_main, record, 0, nullptr);
        if (!handle) {
            free_record(record);
            return 0;
        }
        CloseHandle(handle);
        return 1;
    }

    ThreadRecord* reap = nullptr;
    {
        StateLock lock(state);
        record->next = state->threads;
        record->listed = true;
        state->threads = record;
        ++state->thread_count;
        if (state->ended_count > state->thread_count / 2 + 2) reap = take_ended(state);
    }

    HANDLE handle = CreateThread(nullptr, 0, thread_main, record, 0, nullptr);
    {
        StateLock lock(state);
        if (handle) {
            record->handle = handle;
        } else {
            // No thread: the record has nothing to wait for, so it leaves the list at once.
            for (ThreadRecord** link = &state->threads; *link; link = &(*link)->next) {
                if (*link == record) {
                    *link = record->next;
                    --state->thread_count;
                    break;
                }
            }
        }
    }
    if (!handle) free_record(record);

    while (reap) {
        ThreadRecord* next = reap->next;
        join_record(state, reap);
        reap = next;
    }
    return handle ? 1 : 0;
}

void exit_routine_add(ExitRoutine* routine, void (*function)()) {
    routine->function = function;
    SyncState* state = sync_state();
    if (!state) {
        function();
        return;
    }
    StateLock lock(state);
    routine->next = state->exit_routines;
    state->exit_routines = routine;
}

void process_exit_work() {
    SyncState* state = g_sync_state.load(std::memory_order_acquire);
    if (!state) return; // nothing was ever registered or started

    // One routine at a time, each run outside the lock: a routine may register another or start
    // a thread.
    for (;;) {
        ExitRoutine* routine;
        {
            StateLock lock(state);
            routine = state->exit_routines;
            if (routine) state->exit_routines = routine->next;
        }
        if (!routine) break;
        routine->next = nullptr;
        routine->function();
    }

    for (;;) {
        ThreadRecord* record = nullptr;
        bool empty;
        {
            StateLock lock(state);
            record = unlink_joinable(state);
            empty = state->threads == nullptr;
        }
        if (record)
            join_record(state, record);
        else if (empty)
            break;
        else
            sleep_ms(1); // only records whose starters are between CreateThread and the handle
    }
}
