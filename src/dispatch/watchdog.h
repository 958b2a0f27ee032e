// The dispatch watchdog: a module call on the dispatch thread that runs
// longer than the budget (WATCHDOGMS) is aborted the way a fault is
// recovered, and its module is blocked, so that one hanging module does not
// stall every device.
//
// The dispatch thread only publishes which call runs and since when
// (RunningCall: plain stores, no lock, no system call). The watchdog thread,
// started with the IRQ driver, looks every few milliseconds and aborts an
// overrunning call with os::guard_abort; the dispatch thread, back in
// CallModule, logs the abort, counts it and blocks the module. A call that
// does not come back (an uninterruptible wait in the kernel) is logged once
// and flagged in the statistics; the rest of the host goes on without it.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace zor {

class Caller;
class DispatchThread;
class Logger;
class SlotTable;
class StatsArea;

// The call the dispatch thread is in. `state` packs a generation (high 32
// bits, bumped by every change, so that an abort can tell the call it
// meant from a later one), the function code and the slot (0: none).
class RunningCall {
public:
    struct Saved {
        std::uint64_t state;
        double since;
    };
    struct View {
        std::uint64_t state;
        std::uint32_t slot;
        std::uint32_t code;
        double since;
    };

    // Dispatch thread: a call into `slot` begins at `since`; nested calls
    // (ExecISRFunc from inside an ISR) put the outer one back on Leave.
    Saved Enter(std::uint32_t slot, std::uint32_t code, double since) {
        const Saved saved{state_.load(std::memory_order_relaxed), since_.load(std::memory_order_relaxed)};
        since_.store(since, std::memory_order_relaxed);
        state_.store(Next(saved.state, code, slot), std::memory_order_release);
        return saved;
    }
    void Leave(const Saved& saved) {
        since_.store(saved.since, std::memory_order_relaxed);
        state_.store(Next(state_.load(std::memory_order_relaxed), (saved.state >> 16) & 0xFFFF,
                          saved.state & 0xFFFF),
                     std::memory_order_release);
    }
    // Any thread: a consistent view (false when it kept changing).
    bool Read(View* v) const;
    const std::atomic<std::uint64_t>* StateWord() const { return &state_; }

    // The budget in ms (0: no watchdog); read by the abort report.
    std::atomic<std::uint32_t> budgetMs{0};

private:
    static std::uint64_t Next(std::uint64_t state, std::uint64_t code, std::uint64_t slot) {
        return (((state >> 32) + 1) << 32) | (code << 16) | slot;
    }
    std::atomic<std::uint64_t> state_{0};
    std::atomic<double> since_{0.0};
};

class Watchdog {
public:
    // How long an aborted call may take to come back before it counts as
    // one that cannot be aborted.
    static constexpr std::uint32_t kComeBackMs = 100;
    // Without a budget, DispatchHealthy still calls a dispatch call this
    // long unhealthy.
    static constexpr std::uint32_t kHealthDefaultMs = 1000;

    Watchdog(Logger& log, Caller& caller, SlotTable& slots, StatsArea& stats,
             const DispatchThread& thread)
        : log_(log), caller_(caller), slots_(slots), stats_(stats), thread_(thread) {}
    ~Watchdog() { Stop(); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // WATCHDOGMS; 0 turns the watchdog off. Takes effect at the next Start.
    void SetBudget(std::uint32_t ms);
    std::uint32_t BudgetMs() const;
    // With the IRQ driver: the thread runs only with a budget.
    void Start();
    void Stop();
    bool Running() const { return thread_handle_ != 0; }

    // Cheap, any thread: false while a dispatch call has run past the budget
    // (or kHealthDefaultMs without one) or one could not be aborted. An idle
    // driver (no call running) is healthy.
    bool DispatchHealthy() const;
    // The slot whose call could not be aborted, 0 when none.
    std::uint32_t StuckSlot() const { return stuckSlot_.load(std::memory_order_acquire); }

    // One look (the thread's loop body; tests call it directly).
    void Check();

private:
    static std::uint32_t ThreadMain(void* self);
    void Abort(const RunningCall::View& v, std::uint32_t threadId);
    bool WaitForChange(std::uint64_t state, double until) const;
    void ReportStuck(const RunningCall::View& v);

    Logger& log_;
    Caller& caller_;
    SlotTable& slots_;
    StatsArea& stats_;
    const DispatchThread& thread_;
    os::Thread thread_handle_ = 0;
    std::atomic<bool> stop_{false};
    // Watchdog thread only.
    std::uint64_t handled_ = 0;  // the last state aborted or given up on
    std::uint64_t stuckState_ = 0;
    double lastRetry_ = 0;
    std::atomic<std::uint32_t> stuckSlot_{0};
};

}  // namespace zor
