// timer.irq on Linux: the bundled periodic interrupt source.
//
// One thread calls the host's interrupt entry once per period. It sleeps
// with clock_nanosleep on CLOCK_MONOTONIC to absolute deadlines
// (start + k * period), so waiting never accumulates drift and changes of
// the wall clock do not matter. The event's sequence number is the index of
// the latest deadline passed: a late wake-up delivers one event and skips
// the numbers of the deadlines it missed, like a hardware counter, instead
// of piling up events.
//
// A sleep lasts at most kPieceNs, so that a change or a stop is seen within
// that time even in a long period; a period starts at the moment it was set
// (not when the thread noticed), so the next event comes one new period
// after the change. A paused thread waits on a condition variable.
//
// GS_IRQ_QUERY    answers the period in microseconds (0 while paused).
// GS_IRQ_CONTROL  sets the period in microseconds and answers the previous
//                 one; 0 pauses events. A period below 250 us or above 10 s
//                 is refused with 0xFFFFFFFF and the period is kept. The
//                 sequence continues without a gap across changes and pauses.
// Initialize      answers 0, or 3 when the thread could not be started.
// GS_GET_THREAD   answers the event thread's kernel thread id.
// IRQ_Lateness    how late the thread woke for the event being delivered.
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "driver_entry.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kDefaultPeriodUs = ZOR_TIMER_DEFAULT_US;
constexpr std::uint32_t kFloorUs = ZOR_TIMER_FLOOR_US;
constexpr std::uint32_t kCeilingUs = ZOR_TIMER_CEILING_US;
constexpr std::uint32_t kRefused = ZOR_TIMER_REFUSED;
constexpr std::uint32_t kInitNoThread = 3;
constexpr std::int64_t kPieceNs = 10'000'000;

struct Timer {
    std::atomic<ZorInterruptProc> entry{nullptr};
    std::atomic<std::uint32_t> periodUs{kDefaultPeriodUs};
    std::atomic<std::uint32_t> generation{0};  // advanced by every change
    std::atomic<std::int64_t> changedAt{0};    // CLOCK_MONOTONIC ns of the latest change
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> deadline{0};    // the one the thread waited for
    std::atomic<std::int64_t> lateNs{0};       // how late the thread woke for it
    std::mutex mutex;  // with `wake`: a paused thread, the start handshake
    std::condition_variable wake;
    pthread_t thread{};
    bool running = false;
    std::uint32_t tid = 0;       // set by the thread before Start returns
    std::uint32_t sequence = 0;  // last number delivered; the thread's own
};

Timer g;

std::int64_t NowNs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

void SleepUntil(std::int64_t ns) {
    timespec t{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr);  // EINTR: the caller looks again
}

bool Changed(std::uint32_t generation) {
    return g.stop.load(std::memory_order_acquire) ||
           g.generation.load(std::memory_order_acquire) != generation;
}

// Runs one period setting until it changes: deadlines t0 + k * period.
void RunPeriod(std::uint32_t periodUs, std::uint32_t generation, std::int64_t t0) {
    const std::int64_t period = static_cast<std::int64_t>(periodUs) * 1000;
    std::uint64_t k = 0;  // index of the latest deadline delivered
    while (!Changed(generation)) {
        const std::int64_t target = t0 + static_cast<std::int64_t>(k + 1) * period;
        const std::int64_t now = NowNs();
        if (now < target) SleepUntil(target - now > kPieceNs ? now + kPieceNs : target);
        if (Changed(generation)) return;
        const std::int64_t woke = NowNs();
        const auto passed = static_cast<std::uint64_t>((woke - t0) / period);
        if (passed <= k) continue;  // a sleep piece, or a signal cut the sleep short
        g.deadline.store(static_cast<std::uint64_t>(target), std::memory_order_relaxed);
        g.lateNs.store(woke - target, std::memory_order_relaxed);
        g.sequence += static_cast<std::uint32_t>(passed - k);
        k = passed;
        if (ZorInterruptProc entry = g.entry.load(std::memory_order_acquire)) entry(g.sequence);
    }
}

void* EventThread(void*) {
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.tid = static_cast<std::uint32_t>(syscall(SYS_gettid));
    }
    g.wake.notify_all();
    while (!g.stop.load(std::memory_order_acquire)) {
        const std::uint32_t generation = g.generation.load(std::memory_order_acquire);
        const std::uint32_t period = g.periodUs.load(std::memory_order_acquire);
        if (period == 0) {
            std::unique_lock<std::mutex> lock(g.mutex);
            g.wake.wait(lock, [&] { return Changed(generation); });
            continue;
        }
        // A change noticed more than a period late starts from now: no gap.
        const std::int64_t now = NowNs();
        std::int64_t t0 = g.changedAt.load(std::memory_order_acquire);
        if (t0 == 0 || now - t0 >= static_cast<std::int64_t>(period) * 1000) t0 = now;
        RunPeriod(period, generation, t0);
    }
    return nullptr;
}

std::uint32_t Start() {
    std::unique_lock<std::mutex> lock(g.mutex);
    if (g.running) return ZOR_INIT_OK;
    g.stop.store(false, std::memory_order_release);
    g.changedAt.store(0, std::memory_order_release);
    g.tid = 0;
    if (pthread_create(&g.thread, nullptr, &EventThread, nullptr) != 0) return kInitNoThread;
    g.running = true;
    g.wake.wait(lock, [] { return g.tid != 0; });  // GS_GET_THREAD follows at once
    return ZOR_INIT_OK;
}

void Stop() {
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        if (!g.running) return;
        g.stop.store(true, std::memory_order_release);
    }
    g.wake.notify_all();
    pthread_join(g.thread, nullptr);  // within one sleep piece
    std::lock_guard<std::mutex> lock(g.mutex);
    g.running = false;
    g.tid = 0;
}

std::uint32_t Control(std::uint32_t periodUs) {
    if (periodUs != 0 && (periodUs < kFloorUs || periodUs > kCeilingUs)) return kRefused;
    std::uint32_t previous;
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.changedAt.store(NowNs(), std::memory_order_release);
        previous = g.periodUs.exchange(periodUs, std::memory_order_acq_rel);
        g.generation.fetch_add(1, std::memory_order_acq_rel);
    }
    g.wake.notify_all();
    return previous;
}

std::uint32_t ThreadId() {
    std::lock_guard<std::mutex> lock(g.mutex);
    return g.tid;
}

void SetEntry(ZorInterruptProc entry) { g.entry.store(entry, std::memory_order_release); }
std::uint32_t Period() { return g.periodUs.load(std::memory_order_acquire); }

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    static constexpr DriverParts kParts{Start, Stop, SetEntry, ThreadId, Period, Control};
    return DriverGetSet(kParts, code, arg);
}

// The CLOCK_MONOTONIC deadline (ns) the thread waited for before the event
// being delivered (the earliest one not delivered before: a late wake-up
// shows its whole lateness), for ISRs that measure their wake-up latency.
// Valid during the interrupt call.
ZOR_EXPORT uint64_t Timer_Deadline() { return g.deadline.load(std::memory_order_relaxed); }

// The wake-up lateness of the event being delivered (zor_module.h).
ZOR_EXPORT uint32_t IRQ_Lateness() {
    const std::int64_t ns = g.lateNs.load(std::memory_order_relaxed);
    return ns <= 0 ? 0u : ns >= 0xFFFFFFFE ? 0xFFFFFFFEu : static_cast<std::uint32_t>(ns);
}
