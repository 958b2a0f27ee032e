// OnInterrupt: the per-event entry, and pause/block of the dispatch.
#include "dispatch/dispatcher.h"

#include <atomic>

#include "host/host.h"
#include "os/os.h"
#include "support/stopwatch.h"

namespace zor {

namespace {
// %ld reads a 32-bit long on the product's platform: print the same figures
// everywhere.
long AsLong(std::uint32_t v) { return static_cast<long>(static_cast<std::int32_t>(v)); }
}  // namespace

std::uint32_t Dispatcher::OnInterrupt(std::uint32_t sequence) {
    // The thread id is asked for only while none is recorded: on some
    // platforms it costs a system call.
    if (dispatchThreadId_.load(std::memory_order_relaxed) == 0) {
        dispatchThreadId_.store(os::current_thread_id(), std::memory_order_relaxed);
    }

    const double now = ClockMs();
    const double interval = now - wakeTime_;
    wakeupStat_.Add(interval);
    if (interval != 0.0) irqFrequencyHz.store(1000.0 / interval, std::memory_order_relaxed);
    wakeTime_ = now;
    h_.stats.OnWake(interval, sequence);

    if (unsigned char* area = h_.shm.Area()) {
        std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(area))
            .store(sequence, std::memory_order_release);
    }

    if (paused.load(std::memory_order_acquire) != 0) {
        h_.stats.OnPaused();
        return 1;
    }
    // Announce the event, then look at the pause flag once more: a pause that
    // began in between either sees InDispatch or is seen here (both seq_cst).
    inDispatch.store(1, std::memory_order_seq_cst);
    if (paused.load(std::memory_order_seq_cst) != 0) {
        inDispatch.store(0, std::memory_order_release);
        h_.stats.OnPaused();
        return 1;
    }

    DoTDL();
    if (orderValid_.exchange(1, std::memory_order_acq_rel) == 0) RebuildOrder();

    // One clock reading per boundary between calls: the reading that ends
    // one ISR's call starts the next one's, and the last one ends the event.
    double boundary = ClockMs();
    for (std::uint32_t i = 0; i < dispatchCount_.load(std::memory_order_relaxed); ++i) {
        ModuleSlot& s = h_.slots[order_[i]];
        if (s.blocked.load(std::memory_order_acquire) != 0) continue;
        s.busy.store(1, std::memory_order_release);
        h_.caller.CallModule(order_[i], ZOR_FN_INTERRUPT, sequence, 0, 0, nullptr, &boundary);
        s.busy.store(0, std::memory_order_release);
    }

    EndOfInterrupt(sequence, boundary);
    inDispatch.store(0, std::memory_order_release);
    return 0;
}

// Called with the valid flag already set, so that an invalidation made
// while the order is being built forces another rebuild at the next event.
void Dispatcher::RebuildOrder() {
    const std::uint32_t high = h_.slots.HighWater();
    std::uint32_t n = 0;
    for (std::uint32_t s = 1; s < high; ++s) {
        const ModuleSlot& slot = h_.slots[s];
        if (slot.inUse.load(std::memory_order_acquire) == 0 ||
            slot.kind.load(std::memory_order_relaxed) != kKindIsr ||
            slot.entry.load(std::memory_order_relaxed) == nullptr) {
            continue;
        }
        const std::uint32_t prio = slot.priority.load(std::memory_order_relaxed);
        std::uint32_t p = 0;
        while (p < n && h_.slots[order_[p]].priority.load(std::memory_order_relaxed) <= prio) ++p;
        for (std::uint32_t j = n; j > p; --j) order_[j] = order_[j - 1];
        order_[p] = s;
        ++n;
    }
    dispatchCount_.store(n, std::memory_order_relaxed);
    h_.stats.PublishTable();
}

bool Dispatcher::IsDispatchThread() const {
    return os::current_thread_id() == dispatchThreadId_.load(std::memory_order_relaxed);
}

void Dispatcher::PauseISR(bool pause) {
    if (!pause) {
        paused.store(0, std::memory_order_release);
        return;
    }
    paused.store(1, std::memory_order_seq_cst);
    const std::uint32_t start = os::tick_ms();
    // One look only: an event in progress costs the full 2000 ms.
    if (inDispatch.load(std::memory_order_seq_cst) == 0) return;
    while (os::tick_ms() < start + 2000u) os::sleep_ms(1);
    h_.log.wPrintf(kLogFault, u"ZOR: PauseISR timed out!\n\r");
}

std::uint32_t Dispatcher::BlockISR(std::uint32_t handle, std::uint32_t block) {
    if (h_.slots.Check(handle) == 0) {
        h_.log.wPrintf(kLogError, u"ZOR: SERV_BlockISR: invalid DLL handle! (%ld)\n\r",
                       AsLong(handle));
        return 0;
    }
    ModuleSlot& s = h_.slots[handle];
    s.blocked.store(block, std::memory_order_release);
    h_.stats.OnBlocked(handle, block);
    if (block == 0 || processorCount.load(std::memory_order_relaxed) <= 1) return 0;
    // An ISR may block itself or another from inside the dispatch.
    if (IsDispatchThread()) return 0;
    for (int round = 0; round < 10; ++round) {
        if (s.busy.load(std::memory_order_acquire) == 0) return 0;
        os::sleep_ms(10);
    }
    h_.log.wPrintf(kLogError, u"ZOR: BlockISR timeout!\n");
    return 0;
}

std::int32_t Dispatcher::ISRBlocked(std::uint32_t handle) {
    if (h_.slots.Check(handle) == 0) {
        h_.log.wPrintf(kLogError, u"ZOR: SERV_ISRBlocked: invalid DLL handle! (%ld)\n\r",
                       AsLong(handle));
        return 0;
    }
    return static_cast<std::int32_t>(h_.slots[handle].blocked.load(std::memory_order_acquire));
}

}  // namespace zor
