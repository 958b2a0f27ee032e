// The interrupt entry and everything that runs per event: wake-up
// accounting, the deferred list, the ISR calls in priority order, and the
// end-of-interrupt accounting. Also pause (registry changes) and block (one
// ISR). Nothing here allocates, locks or waits on I/O on the event path.
#pragma once

#include <atomic>
#include <cstdint>

#include "dispatch/dispatch_thread.h"
#include "support/statistic.h"

namespace zor {

class Caller;
class DeferredList;
class FlightRecorder;
class LockedNames;
class Logger;
class SharedMemory;
class SlotTable;
class StatsArea;

class Dispatcher {
public:
    Dispatcher(Logger& log, SlotTable& slots, SharedMemory& shm, StatsArea& stats, Caller& caller,
               DeferredList& deferred, DispatchThread& thread, LockedNames& lockedNames,
               FlightRecorder& recorder)
        : log_(log), slots_(slots), shm_(shm), stats_(stats), caller_(caller),
          deferred_(deferred), thread_(thread), lockedNames_(lockedNames), recorder_(recorder) {}

    // OnInterrupt: 0 after a full dispatch, 1 when paused.
    std::uint32_t OnInterrupt(std::uint32_t sequence);
    bool IsDispatchThread() const { return thread_.IsCurrent(); }
    void InvalidateDispatchOrder() { orderValid_.store(0, std::memory_order_release); }
    void ResetDispatchThread() { thread_.Reset(); }
    FlightRecorder& Recorder() { return recorder_; }

    void PauseISR(bool pause);
    std::uint32_t BlockISR(std::uint32_t handle, std::uint32_t block);
    std::int32_t ISRBlocked(std::uint32_t handle);

    // Statistics report (end of every dispatched event); `now` is the time at
    // which the event's work ended.
    void EndOfInterrupt(std::uint32_t sequence);
    void EndOfInterrupt(std::uint32_t sequence, double now);

    // State read by the dialog, the report and the tests.
    std::atomic<double> irqFrequencyHz{50.0};
    std::atomic<double> irqLoadPercent{0.0};
    std::atomic<std::uint32_t> paused{0};
    bool InDispatch() const { return thread_.InEvent(); }
    std::atomic<std::uint32_t> processorCount{0};  // 0 until the tables are prepared
    std::uint32_t DispatchCount() const { return dispatchCount_.load(std::memory_order_relaxed); }
    std::uint32_t DispatchOrder(std::uint32_t i) const { return order_[i]; }
    std::uint32_t EventCounter() const { return eventCounter_; }
    std::uint32_t DispatchThreadId() const { return thread_.Id(); }

    // Used by the tests that play the dispatch thread.
    void SetWakeTimeForTest(double t) { wakeTime_ = t; }
    void SetEventCounterForTest(std::uint32_t n) { eventCounter_ = n; }

private:
    struct IsrRun;
    void RebuildOrder();
    // The ISR calls of one event, from *boundary on; *boundary receives the
    // reading that ends the last one.
    void CallIsrs(std::uint32_t sequence, double* boundary);
    static void RunIsrs(void* run);

    Logger& log_;
    SlotTable& slots_;
    SharedMemory& shm_;
    StatsArea& stats_;
    Caller& caller_;
    DeferredList& deferred_;
    DispatchThread& thread_;
    LockedNames& lockedNames_;
    FlightRecorder& recorder_;
    std::uint32_t order_[100] = {};
    std::atomic<std::uint32_t> dispatchCount_{0};
    std::atomic<std::uint32_t> orderValid_{0};
    double wakeTime_ = 0.0;
    CStatistic wakeupStat_;
    CStatistic totalStat_;
    std::uint32_t eventCounter_ = 0;
    std::uint32_t lastSequence_ = 0;
};

}  // namespace zor
