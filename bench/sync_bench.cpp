// Holds, pins and alarms against the system's own primitives, measured in the same run.
//
//   hold pair (uncontended) against SRWLOCK and CRITICAL_SECTION pairs;
//   contended locking with 2, 4 and 8 threads on the same three locks;
//   a pin_wait/pin_signal ping-pong against a raw keyed-event ping-pong (the floor of the
//   mechanism pins park on), an event pair and a WaitOnAddress pair;
//   holds and pins both as shipped (a waiter watches its word briefly before parking) and with
//   parking alone, which is what the keyed-event floor measures;
//   alarm_set + alarm_cancel pairs against timer-queue timer create + delete.
//
// One line per figure, with the ratio to its baseline.

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <windows.h>
#include <winternl.h>

#include "base/alarm.h"
#include "base/sync.h"
#include "base/sync_state.h"
#include "base/tick.h"

namespace {

// A minimal timing helper: seconds from the performance counter.
double now_seconds() {
    static const double frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) / frequency;
}

// Nanoseconds per call of `body`, best of three runs of `count` calls.
template <class Body> double ns_per_call(long count, Body body) {
    double best = 1e300;
    for (int run = 0; run < 3; ++run) {
        double start = now_seconds();
        for (long i = 0; i < count; ++i) body();
        double elapsed = (now_seconds() - start) * 1e9 / static_cast<double>(count);
        if (elapsed < best) best = elapsed;
    }
    return best;
}

// ---------------------------------------------------------------------------------------------
// Locks

struct HoldLock {
    Hold hold;
    void lock() { hold_acquire(&hold); }
    void unlock() { hold_release(&hold); }
};

struct SrwLock {
    SRWLOCK srw = SRWLOCK_INIT;
    void lock() { AcquireSRWLockExclusive(&srw); }
    void unlock() { ReleaseSRWLockExclusive(&srw); }
};

struct CsLock {
    CRITICAL_SECTION cs;
    CsLock() { InitializeCriticalSection(&cs); }
    ~CsLock() { DeleteCriticalSection(&cs); }
    void lock() { EnterCriticalSection(&cs); }
    void unlock() { LeaveCriticalSection(&cs); }
};

template <class Lock> double uncontended_ns() {
    Lock lock;
    volatile long counter = 0;
    return ns_per_call(4000000, [&] {
        lock.lock();
        counter = counter + 1;
        lock.unlock();
    });
}

// Lock/unlock pairs per second with `threads` threads on one lock for `seconds`; the critical
// section is a few memory operations, as in the runtime's own use of holds.
template <class Lock> double contended_pairs_per_second(int threads, double seconds) {
    Lock lock;
    long long shared = 0;
    std::atomic<bool> go{false}, stop{false};
    std::atomic<long long> total{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            while (!go.load()) std::this_thread::yield();
            long long mine = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                lock.lock();
                shared = shared + 1;
                lock.unlock();
                ++mine;
            }
            total += mine;
        });
    double start = now_seconds();
    go = true;
    Sleep(static_cast<DWORD>(seconds * 1000));
    stop = true;
    for (auto& w : workers) w.join();
    return static_cast<double>(total.load()) / (now_seconds() - start);
}

// ---------------------------------------------------------------------------------------------
// Ping-pongs: two threads pass a turn back and forth; the figure is round trips per second.

using NtCreateKeyedEventFn = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, void*, ULONG);
using NtKeyedEventFn = NTSTATUS(NTAPI*)(HANDLE, const void*, BOOLEAN, const LARGE_INTEGER*);

// Runs `ping` on this thread and `pong` on another until `seconds` pass; `ping` returns false
// when told to stop, after releasing the other side.
template <class Ping, class Pong> double round_trips_per_second(double seconds, Ping ping,
                                                               Pong pong) {
    std::thread other(pong);
    long long rounds = 0;
    double start = now_seconds();
    double end = start + seconds;
    while (ping(now_seconds() < end)) ++rounds;
    double elapsed = now_seconds() - start;
    other.join();
    return static_cast<double>(rounds) / elapsed;
}

double keyed_event_ping_pong(double seconds) {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    auto create = reinterpret_cast<NtCreateKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCreateKeyedEvent")));
    auto wait = reinterpret_cast<NtKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtWaitForKeyedEvent")));
    auto release = reinterpret_cast<NtKeyedEventFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtReleaseKeyedEvent")));
    HANDLE event;
    create(&event, 0x000F0003, nullptr, 0);
    alignas(8) static int ping_key, pong_key;
    std::atomic<bool> stop{false};
    double rate = round_trips_per_second(
        seconds,
        [&](bool go_on) {
            if (!go_on) stop = true;
            release(event, &ping_key, FALSE, nullptr);
            if (!go_on) return false;
            wait(event, &pong_key, FALSE, nullptr);
            return true;
        },
        [&] {
            for (;;) {
                wait(event, &ping_key, FALSE, nullptr);
                if (stop.load()) return;
                release(event, &pong_key, FALSE, nullptr);
            }
        });
    CloseHandle(event);
    return rate;
}

double pin_ping_pong(double seconds) {
    Pin ping{}, pong{};
    std::atomic<bool> stop{false};
    return round_trips_per_second(
        seconds,
        [&](bool go_on) {
            if (!go_on) stop = true;
            pin_signal(&ping);
            if (!go_on) return false;
            pin_wait(&pong, nullptr, -1);
            pin_reset(&pong);
            return true;
        },
        [&] {
            for (;;) {
                pin_wait(&ping, nullptr, -1);
                pin_reset(&ping);
                if (stop.load()) return;
                pin_signal(&pong);
            }
        });
}

double event_ping_pong(double seconds) {
    HANDLE ping = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE pong = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    double rate = round_trips_per_second(
        seconds,
        [&](bool go_on) {
            if (!go_on) stop = true;
            SetEvent(ping);
            if (!go_on) return false;
            WaitForSingleObject(pong, INFINITE);
            return true;
        },
        [&] {
            for (;;) {
                WaitForSingleObject(ping, INFINITE);
                if (stop.load()) return;
                SetEvent(pong);
            }
        });
    CloseHandle(ping);
    CloseHandle(pong);
    return rate;
}

using WaitOnAddressFn = BOOL(WINAPI*)(volatile void*, void*, SIZE_T, DWORD);
using WakeByAddressFn = void(WINAPI*)(void*);

double wait_on_address_ping_pong(double seconds) {
    HMODULE kernelbase = GetModuleHandleW(L"kernelbase.dll");
    if (!kernelbase) kernelbase = LoadLibraryW(L"kernelbase.dll");
    auto wait_on = reinterpret_cast<WaitOnAddressFn>(
        reinterpret_cast<void*>(GetProcAddress(kernelbase, "WaitOnAddress")));
    auto wake = reinterpret_cast<WakeByAddressFn>(
        reinterpret_cast<void*>(GetProcAddress(kernelbase, "WakeByAddressSingle")));
    if (!wait_on || !wake) return 0;
    // The ball is 1 while the other side has the turn.
    static volatile LONG ball = 0;
    std::atomic<bool> stop{false};
    return round_trips_per_second(
        seconds,
        [&](bool go_on) {
            if (!go_on) stop = true;
            InterlockedExchange(&ball, 1);
            wake(const_cast<LONG*>(&ball));
            if (!go_on) return false;
            LONG one = 1;
            while (ball == 1) wait_on(&ball, &one, sizeof one, INFINITE);
            return true;
        },
        [&] {
            for (;;) {
                LONG zero = 0;
                while (ball == 0) wait_on(&ball, &zero, sizeof zero, INFINITE);
                if (stop.load()) return;
                InterlockedExchange(&ball, 0);
                wake(const_cast<LONG*>(&ball));
            }
        });
}

// ---------------------------------------------------------------------------------------------
// Alarms

double alarm_pairs_per_second(double seconds) {
    Alarm alarm{};
    long long pairs = 0;
    double start = now_seconds();
    double end = start + seconds;
    while (now_seconds() < end) {
        for (int i = 0; i < 64; ++i) {
            alarm_set(&alarm, [](Alarm* a) { a->callback = nullptr; }, tick_now() + 3600 * 1000);
            alarm_cancel(&alarm);
        }
        pairs += 64;
    }
    return static_cast<double>(pairs) / (now_seconds() - start);
}

double timer_queue_pairs_per_second(double seconds) {
    HANDLE queue = CreateTimerQueue();
    long long pairs = 0;
    double start = now_seconds();
    double end = start + seconds;
    while (now_seconds() < end) {
        for (int i = 0; i < 64; ++i) {
            HANDLE timer;
            CreateTimerQueueTimer(&timer, queue, [](void*, BOOLEAN) {}, nullptr, 3600 * 1000, 0,
                                  0);
            DeleteTimerQueueTimer(queue, timer, INVALID_HANDLE_VALUE);
        }
        pairs += 64;
    }
    DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE);
    return static_cast<double>(pairs) / (now_seconds() - start);
}

} // namespace

int main() {
    setvbuf(stdout, nullptr, _IONBF, 0);

    double hold_ns = uncontended_ns<HoldLock>();
    double srw_ns = uncontended_ns<SrwLock>();
    double cs_ns = uncontended_ns<CsLock>();
    printf("sync: hold pair uncontended %.1f ns | SRWLOCK %.1f ns | CRITICAL_SECTION %.1f ns | "
           "hold/SRWLOCK %.2f, hold/CRITICAL_SECTION %.2f\n",
           hold_ns, srw_ns, cs_ns, hold_ns / srw_ns, hold_ns / cs_ns);

    for (int threads : {2, 4, 8}) {
        double hold = contended_pairs_per_second<HoldLock>(threads, 0.3);
        uint32_t spin = g_wait_word_spin.exchange(0);
        double parked = contended_pairs_per_second<HoldLock>(threads, 0.3);
        g_wait_word_spin = spin;
        double srw = contended_pairs_per_second<SrwLock>(threads, 0.3);
        double cs = contended_pairs_per_second<CsLock>(threads, 0.3);
        printf("sync: hold contended %d threads %.0f pairs/s (parking only %.0f) | SRWLOCK %.0f | "
               "CRITICAL_SECTION %.0f | hold/SRWLOCK %.3f, hold/CRITICAL_SECTION %.3f\n",
               threads, hold, parked, srw, cs, hold / srw, hold / cs);
    }

    double keyed = keyed_event_ping_pong(0.5);
    uint32_t spin = g_wait_word_spin.exchange(0);
    double pin_parked = pin_ping_pong(0.5);
    g_wait_word_spin = spin;
    double pin = pin_ping_pong(0.5);
    double event = event_ping_pong(0.5);
    double address = wait_on_address_ping_pong(0.5);
    printf("sync: pin ping-pong parking only %.0f round trips/s | raw keyed event %.0f | "
           "pin/keyed %.2f\n",
           pin_parked, keyed, pin_parked / keyed);
    printf("sync: pin ping-pong %.0f round trips/s | raw keyed event %.0f | event pair %.0f | "
           "WaitOnAddress %.0f | pin/keyed %.2f, pin/event %.2f, pin/WaitOnAddress %.2f\n",
           pin, keyed, event, address, pin / keyed, pin / event, address ? pin / address : 0.0);

    double alarms = alarm_pairs_per_second(0.3);
    double timers = timer_queue_pairs_per_second(0.3);
    printf("sync: alarm_set+alarm_cancel %.0f pairs/s | timer-queue create+delete %.0f | "
           "alarm/timer-queue %.2f\n",
           alarms, timers, alarms / timers);
    return 0;
}
