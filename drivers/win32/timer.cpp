// timer.irq: the bundled periodic interrupt source for Windows.
//
// One thread calls the host's interrupt entry once per period. Deadlines are
// absolute on the performance counter (start + k * period), so waiting never
// accumulates drift, and each wait is armed relative to the next deadline so
// that changes of the wall clock do not matter. The event's sequence number
// is the index of the latest deadline passed: a late wake-up delivers one
// event and skips the numbers of the deadlines it missed, like a hardware
// counter, instead of piling up events.
//
// How the thread waits: a high-resolution waitable timer (a plain one at the
// 1 ms system timer resolution where the flag is not supported), or a plain
// thread sleep of 100 ns units. Before its first event the thread measures
// how late each of them wakes for a 500 us wait and keeps the closer one. On
// Windows that is the high-resolution timer; where timers are coarse but
// sleeps are fine-grained (Wine rounds timer waits up to whole
// milliseconds) it is the sleep. Timer_Method() tells which was chosen.
//
// GS_IRQ_QUERY    answers the period in microseconds (0 while paused).
// GS_IRQ_CONTROL  sets the period in microseconds and answers the previous
//                 one; 0 pauses events. A period below the floor (250 us,
//                 1000 us without a high-resolution timer) or above 10 s is
//                 refused with 0xFFFFFFFF and the period is kept. The next
//                 event comes one new period after the change; the sequence
//                 continues without a gap across changes and pauses.
// Initialize      answers 0, or 1 when no timer could be created, 3 when the
//                 thread could not be started.
// GS_GET_THREAD   answers the event thread's handle.
// IRQ_Lateness    how late the thread woke for the event being delivered.
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "driver_entry.h"
#include "zor/zor_module.h"

#ifndef CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
#define CREATE_WAITABLE_TIMER_HIGH_RESOLUTION 0x00000002
#endif

namespace {

constexpr std::uint32_t kDefaultPeriodUs = ZOR_TIMER_DEFAULT_US;
constexpr std::uint32_t kFloorHighResUs = ZOR_TIMER_FLOOR_US;
constexpr std::uint32_t kFloorPlainUs = 1000;
constexpr std::uint32_t kCeilingUs = ZOR_TIMER_CEILING_US;
constexpr std::uint32_t kRefused = ZOR_TIMER_REFUSED;
constexpr std::uint32_t kInitNoTimer = 1;
constexpr std::uint32_t kInitNoThread = 3;
// Sleeps are cut into pieces so that a change or a stop is seen soon.
constexpr double kSleepPieceUs = 10000.0;
constexpr double kProbeWaitUs = 500.0;
constexpr int kProbes = 7;

enum Method : std::uint32_t { kHighResTimer = 0, kPlainTimer = 1, kThreadSleep = 2 };

using DelayFn = LONG(NTAPI*)(BOOLEAN alertable, PLARGE_INTEGER interval);

struct Timer {
    std::atomic<ZorInterruptProc> entry{nullptr};
    std::atomic<std::uint32_t> periodUs{kDefaultPeriodUs};
    std::atomic<std::uint32_t> generation{0};  // advanced by every change
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> method{kHighResTimer};
    std::atomic<std::int64_t> lateNs{0};  // how late the thread woke for the event delivered
    HANDLE timer = nullptr;
    HANDLE changed = nullptr;  // auto-reset: wakes a wait on a change or stop
    HANDLE thread = nullptr;
    bool highResolution = false;
    DelayFn delay = nullptr;
    double countsPerUs = 0.0;
    std::uint32_t sequence = 0;  // last number delivered; the thread's own
};

Timer g;

std::int64_t Counter() {
    LARGE_INTEGER c;
    QueryPerformanceCounter(&c);
    return c.QuadPart;
}

// Before the first start the floor is what a timer created now would allow.
std::uint32_t FloorUs() {
    if (!g.timer) {
        HANDLE t = CreateWaitableTimerExW(nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION,
                                          TIMER_ALL_ACCESS);
        g.highResolution = t != nullptr;
        if (t) CloseHandle(t);
    }
    return g.highResolution ? kFloorHighResUs : kFloorPlainUs;
}

bool Changed(std::uint32_t generation) {
    return g.stop.load(std::memory_order_acquire) ||
           g.generation.load(std::memory_order_acquire) != generation;
}

// One wait towards `target` (counter units) with the given method. May
// return early (a change, a sleep piece); the caller checks the time.
void WaitTowards(std::int64_t target, std::uint32_t method, bool wakeOnChange) {
    std::int64_t now = Counter();
    if (now >= target) return;
    double us = static_cast<double>(target - now) / g.countsPerUs;
    LARGE_INTEGER due;
    if (method == kThreadSleep) {
        due.QuadPart = -static_cast<std::int64_t>(std::min(us, kSleepPieceUs) * 10.0 + 1.0);
        g.delay(FALSE, &due);
        return;
    }
    due.QuadPart = -static_cast<std::int64_t>(us * 10.0 + 1.0);
    if (!SetWaitableTimer(g.timer, &due, 0, nullptr, nullptr, FALSE)) {
        Sleep(1);  // should not happen; never spin
        return;
    }
    HANDLE handles[2] = {g.timer, g.changed};
    WaitForMultipleObjects(wakeOnChange ? 2 : 1, handles, FALSE, INFINITE);
}

// Median lateness of a few short waits with one method, in microseconds.
double ProbeLateness(std::uint32_t method) {
    double late[kProbes];
    for (double& l : late) {
        std::int64_t target = Counter() + static_cast<std::int64_t>(kProbeWaitUs * g.countsPerUs);
        while (Counter() < target) WaitTowards(target, method, false);
        l = static_cast<double>(Counter() - target) / g.countsPerUs;
    }
    std::sort(late, late + kProbes);
    return late[kProbes / 2];
}

void ChooseMethod() {
    std::uint32_t timerMethod = g.highResolution ? kHighResTimer : kPlainTimer;
    std::uint32_t chosen = timerMethod;
    if (g.delay && ProbeLateness(kThreadSleep) < ProbeLateness(timerMethod)) chosen = kThreadSleep;
    g.method.store(chosen, std::memory_order_release);
}

// Runs one period setting until it changes: deadlines t0 + k * period.
void RunPeriod(std::uint32_t periodUs, std::uint32_t generation) {
    const std::uint32_t method = g.method.load(std::memory_order_acquire);
    const double countsPerPeriod = g.countsPerUs * periodUs;
    const std::int64_t t0 = Counter();
    std::uint64_t k = 0;  // index of the latest deadline delivered
    while (!Changed(generation)) {
        auto target = t0 + static_cast<std::int64_t>(static_cast<double>(k + 1) * countsPerPeriod);
        WaitTowards(target, method, true);
        if (Changed(generation)) return;
        const std::int64_t woke = Counter();
        auto passed = static_cast<std::uint64_t>(static_cast<double>(woke - t0) / countsPerPeriod);
        if (passed <= k) continue;  // early: a sleep piece or a spurious wake
        g.lateNs.store(static_cast<std::int64_t>(static_cast<double>(woke - target) * 1000.0 / g.countsPerUs),
                       std::memory_order_relaxed);
        g.sequence += static_cast<std::uint32_t>(passed - k);
        k = passed;
        if (ZorInterruptProc entry = g.entry.load(std::memory_order_acquire)) entry(g.sequence);
    }
}

DWORD WINAPI EventThread(void*) {
    ChooseMethod();
    while (!g.stop.load(std::memory_order_acquire)) {
        std::uint32_t generation = g.generation.load(std::memory_order_acquire);
        std::uint32_t period = g.periodUs.load(std::memory_order_acquire);
        if (period == 0) {
            if (!Changed(generation)) WaitForSingleObject(g.changed, INFINITE);
            continue;
        }
        RunPeriod(period, generation);
    }
    return 0;
}

HANDLE CreateTimer() {
    HANDLE t = CreateWaitableTimerExW(nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION,
                                      TIMER_ALL_ACCESS);
    g.highResolution = t != nullptr;
    if (t) return t;
    // Older systems: a plain timer at the finest system timer resolution.
    t = CreateWaitableTimerW(nullptr, FALSE, nullptr);
    if (t) timeBeginPeriod(1);
    return t;
}

void CloseAll() {
    if (g.thread) CloseHandle(g.thread);
    if (g.timer) {
        CloseHandle(g.timer);
        if (!g.highResolution) timeEndPeriod(1);
    }
    if (g.changed) CloseHandle(g.changed);
    g.thread = g.timer = g.changed = nullptr;
}

std::uint32_t Start() {
    if (g.thread) return ZOR_INIT_OK;
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    g.countsPerUs = static_cast<double>(f.QuadPart) / 1e6;
    g.delay = reinterpret_cast<DelayFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtDelayExecution")));
    g.stop.store(false);
    g.changed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    g.timer = g.changed ? CreateTimer() : nullptr;
    if (!g.timer) {
        CloseAll();
        return kInitNoTimer;
    }
    g.thread = CreateThread(nullptr, 0, &EventThread, nullptr, 0, nullptr);
    if (!g.thread) {
        CloseAll();
        return kInitNoThread;
    }
    return ZOR_INIT_OK;
}

void Stop() {
    if (!g.thread) return;
    g.stop.store(true, std::memory_order_release);
    SetEvent(g.changed);
    WaitForSingleObject(g.thread, 10000);
    CloseAll();
}

std::uint32_t Control(std::uint32_t periodUs) {
    if (periodUs != 0 && (periodUs < FloorUs() || periodUs > kCeilingUs)) return kRefused;
    std::uint32_t previous = g.periodUs.exchange(periodUs, std::memory_order_acq_rel);
    g.generation.fetch_add(1, std::memory_order_acq_rel);
    if (g.changed) SetEvent(g.changed);
    return previous;
}

void SetEntry(ZorInterruptProc entry) { g.entry.store(entry, std::memory_order_release); }
std::uint32_t ThreadHandle() { return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(g.thread)); }
std::uint32_t Period() { return g.periodUs.load(std::memory_order_acquire); }

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    static constexpr DriverParts kParts{Start, Stop, SetEntry, ThreadHandle, Period, Control};
    return DriverGetSet(kParts, code, arg);
}

// How the event thread waits: 0 high-resolution waitable timer, 1 plain
// waitable timer, 2 thread sleep. Meaningful once the first event came.
ZOR_EXPORT uint32_t Timer_Method() { return g.method.load(std::memory_order_acquire); }

// The wake-up lateness of the event being delivered (zor_module.h).
ZOR_EXPORT uint32_t IRQ_Lateness() {
    const std::int64_t ns = g.lateNs.load(std::memory_order_relaxed);
    return ns <= 0 ? 0u : ns >= 0xFFFFFFFE ? 0xFFFFFFFEu : static_cast<std::uint32_t>(ns);
}
