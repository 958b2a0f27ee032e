// OnInterrupt: the per-event entry, and pause/block of the dispatch.
#include "dispatch/dispatcher.h"

#include <atomic>

#include "dispatch/deferred_list.h"
#include "dispatch/flight_recorder.h"
#include "dispatch/stats.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "support/log.h"
#include "os/os.h"
#include "support/stopwatch.h"

namespace zor {

std::uint32_t Dispatcher::OnInterrupt(std::uint32_t sequence) {
    thread_.Note();

    const double now = ClockMs();
    const double interval = now - wakeTime_;
    wakeupStat_.Add(interval);
    if (interval != 0.0) irqFrequencyHz.store(1000.0 / interval, std::memory_order_relaxed);
    wakeTime_ = now;
    stats_.OnWake(interval, sequence);

    if (unsigned char* area = shm_.Area()) {
        std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(area))
            .store(sequence, std::memory_order_release);
    }

    if (paused.load(std::memory_order_acquire) != 0) {
        stats_.OnPaused();
        return 1;
    }
    // Announce the event, then look at the pause flag once more: a pause that
    // began in between either sees the event or is seen here (both seq_cst).
    thread_.EnterEvent();
    if (paused.load(std::memory_order_seq_cst) != 0) {
        thread_.LeaveEvent();
        stats_.OnPaused();
        return 1;
    }

    deferred_.Run();
    // Looked at before it is set: a locked instruction only when it changed.
    if (orderValid_.load(std::memory_order_acquire) == 0 &&
        orderValid_.exchange(1, std::memory_order_acq_rel) == 0) {
        RebuildOrder();
    }

    // One clock reading per boundary between calls: the reading that ends
    // one ISR's call starts the next one's, and the last one ends the event.
    double boundary = ClockMs();
    recorder_.Begin(sequence, now, dispatchCount_.load(std::memory_order_relaxed));
    recorder_.Deferred(boundary);
    CallIsrs(sequence, &boundary);
    recorder_.End(boundary);
    EndOfInterrupt(sequence, boundary);
    thread_.LeaveEvent();
    return 0;
}

// Called with the valid flag already set, so that an invalidation made
// while the order is being built forces another rebuild at the next event.
void Dispatcher::RebuildOrder() {
    const std::uint32_t high = slots_.HighWater();
    std::uint32_t n = 0;
    for (std::uint32_t s = 1; s < high; ++s) {
        const ModuleSlot& slot = slots_[s];
        if (slot.inUse.load(std::memory_order_acquire) == 0 ||
            slot.kind.load(std::memory_order_relaxed) != kKindIsr ||
            slot.entry.load(std::memory_order_relaxed) == nullptr) {
            continue;
        }
        const std::uint32_t prio = slot.priority.load(std::memory_order_relaxed);
        std::uint32_t p = 0;
        while (p < n && slots_[order_[p]].priority.load(std::memory_order_relaxed) <= prio) ++p;
        for (std::uint32_t j = n; j > p; --j) order_[j] = order_[j - 1];
        order_[p] = s;
        ++n;
    }
    dispatchCount_.store(n, std::memory_order_relaxed);
    stats_.PublishTable();
}

void Dispatcher::PauseISR(bool pause) {
    if (!pause) {
        paused.store(0, std::memory_order_release);
        return;
    }
    paused.store(1, std::memory_order_seq_cst);
    const std::uint32_t start = os::tick_ms();
    // One look only: an event in progress costs the full 2000 ms.
    if (!thread_.InEvent()) return;
    while (os::tick_ms() < start + 2000u) os::sleep_ms(1);
    log_.wPrintf(kLogFault, u"ZOR: PauseISR timed out!\n\r");
}

std::uint32_t Dispatcher::BlockISR(std::uint32_t handle, std::uint32_t block) {
    if (slots_.Check(handle) == 0) {
        log_.wPrintf(kLogError, u"ZOR: SERV_BlockISR: invalid DLL handle! (%ld)\n\r",
                       AsLong(handle));
        return 0;
    }
    ModuleSlot& s = slots_[handle];
    s.blocked.store(block, std::memory_order_release);
    stats_.OnBlocked(handle, block);
    if (block == 0 || processorCount.load(std::memory_order_relaxed) <= 1) return 0;
    // An ISR may block itself or another from inside the dispatch.
    if (IsDispatchThread()) return 0;
    for (int round = 0; round < 10; ++round) {
        if (s.busy.load(std::memory_order_acquire) == 0) return 0;
        os::sleep_ms(10);
    }
    log_.wPrintf(kLogError, u"ZOR: BlockISR timeout!\n");
    return 0;
}

std::int32_t Dispatcher::ISRBlocked(std::uint32_t handle) {
    if (slots_.Check(handle) == 0) {
        log_.wPrintf(kLogError, u"ZOR: SERV_ISRBlocked: invalid DLL handle! (%ld)\n\r",
                       AsLong(handle));
        return 0;
    }
    return static_cast<std::int32_t>(slots_[handle].blocked.load(std::memory_order_acquire));
}

}  // namespace zor
