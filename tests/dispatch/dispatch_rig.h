// The per-event path on its own: the objects OnInterrupt stands on, wired
// as the host wires them, with ISRs that are plain functions of the test.
// No registry, no module files, no running host.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "common/test_log.h"
#include "dispatch/caller.h"
#include "dispatch/deferred_list.h"
#include "dispatch/dispatcher.h"
#include "dispatch/flight_recorder.h"
#include "dispatch/stats.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "pagelock/page_locker.h"
#include "support/critsec.h"
#include "support/wstr.h"

namespace zor::test {

// What the fake ISRs saw: the rig number of each Interrupt call, in order.
inline std::vector<int>& FakeCalls() {
    static std::vector<int> calls;
    return calls;
}
inline std::atomic<int>& FakeFaulting() {
    static std::atomic<int> faulting{0};
    return faulting;
}

// Fake ISR number N: records its Interrupt calls; faults while it is the
// one FakeFaulting() names.
template <int N>
std::uint32_t FakeIsr(std::uint32_t code, std::uintptr_t) {
    if (code != ZOR_FN_INTERRUPT) return 0;
    FakeCalls().push_back(N);
    // An unmapped page (not null: the sanitizers would stop at null first).
    if (FakeFaulting().load() == N) *reinterpret_cast<volatile int*>(std::uintptr_t{16}) = N;
    return 0;
}

class DispatchRig {
public:
    DispatchRig() { FakeCalls().clear(); FakeFaulting().store(0); }
    ~DispatchRig() { FakeFaulting().store(0); }

    // A slot in use with the entry behind it, at priority 1: its number.
    std::uint32_t Add(ZorGetSetProc entry, const char16_t* name = u"fake") {
        const std::uint32_t s = slots.Alloc();
        ModuleSlot& slot = slots[s];
        slot.kind.store(kKindIsr);
        slot.number.store(s);
        wcopy(slot.name, 20, name);
        slot.entry.store(entry);
        slot.inUse.store(1);
        dispatcher.InvalidateDispatchOrder();
        return s;
    }
    void SetPriority(std::uint32_t slot, std::uint32_t priority) {
        slots[slot].priority.store(priority);
        dispatcher.InvalidateDispatchOrder();
    }
    // The fake ISRs called by one event, in order.
    std::vector<int> Fire(std::uint32_t sequence) {
        FakeCalls().clear();
        dispatcher.OnInterrupt(sequence);
        return FakeCalls();
    }

    TestLog testLog;
    Logger& log = testLog.log();
    CCritSec funcs;
    LockedNames lockedNames;
    SlotTable slots;
    SharedMemory shm{log, funcs, slots};
    DispatchThread thread;
    StatsArea stats{log, slots};
    Caller caller{log, slots, shm, stats, thread};
    DeferredList deferred{log, shm, slots, caller, stats};
    FlightRecorder recorder{log};
    Dispatcher dispatcher{log, slots, shm, stats, caller, deferred, thread, lockedNames, recorder};
};

}  // namespace zor::test
