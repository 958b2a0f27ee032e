// The dispatch loop's ISR calls. One guard covers the whole loop rather than
// one per call: a fault (or the watchdog's abort) jumps back out of it, the
// call is reported, and the loop goes on with the next ISR under a new
// guard. What the loop must find again after such a jump lives in IsrRun,
// in memory, never only in registers.
//
// The calls are not counted in their slots: an unloading closes the slot
// and then waits for the event it saw to end (Caller::CloseSlot), so a slot
// found open here stays loaded until the event is over.
#include <atomic>

#include "dispatch/caller.h"
#include "dispatch/dispatcher.h"
#include "dispatch/flight_recorder.h"
#include "modules/slot_table.h"
#include "os/os.h"
#include "support/stopwatch.h"
#include "zor/zor_trace.h"

namespace zor {

struct Dispatcher::IsrRun {
    Dispatcher* self;
    std::uint32_t sequence;
    std::uint32_t count;
    std::uint32_t next;      // the next place in the order
    std::uint32_t slot;      // the call in progress
    double start;            // its start
    double boundary;         // the reading that ended the last call
    RunningCall::Saved outer;
};

void Dispatcher::RunIsrs(void* p) {
    IsrRun& r = *static_cast<IsrRun*>(p);
    Dispatcher& d = *r.self;
    RunningCall& running = d.caller_.Running();
    while (r.next < r.count) {
        const std::uint32_t slot = d.order_[r.next++];
        ModuleSlot& s = d.slots_[slot];
        if (s.blocked.load(std::memory_order_acquire) != 0 ||
            (s.calls.load(std::memory_order_seq_cst) & ModuleSlot::kClosing) != 0) {
            continue;
        }
        const ZorGetSetProc entry = s.entry.load(std::memory_order_seq_cst);
        r.slot = slot;
        r.start = r.boundary;
        s.busy.store(1, std::memory_order_release);
        if (entry == nullptr) {
            // Not yet set by a registration: reported as a call through null.
            d.caller_.ReportNullCall(slot);
            r.boundary = ClockMs();
            d.recorder_.Call(slot, r.start, r.boundary, 0);
            s.busy.store(0, std::memory_order_release);
            continue;
        }
        r.outer = running.Enter(slot, ZOR_FN_INTERRUPT, r.start);
        entry(ZOR_FN_INTERRUPT, r.sequence);
        const double end = ClockMs();
        running.Leave(r.outer);
        d.caller_.ReportCall(slot, end - r.start, ZOR_FN_INTERRUPT, r.sequence, Caller::kFlagInEvent);
        d.recorder_.Call(slot, r.start, end, 0);
        s.busy.store(0, std::memory_order_release);
        // A slow call's report is not the next call's time.
        r.boundary = end - r.start > Caller::kSlowCallMs ? ClockMs() : end;
    }
}

void Dispatcher::CallIsrs(std::uint32_t sequence, double* boundary) {
    IsrRun run{this, sequence, dispatchCount_.load(std::memory_order_relaxed), 0, 0, 0.0, *boundary, {}};
    os::Fault fault{};
    while (!os::guarded_run(RunIsrs, &run, &fault)) {
        caller_.Running().Leave(run.outer);
        caller_.InterruptFailed(run.slot, fault);
        run.boundary = ClockMs();
        recorder_.Call(run.slot, run.start, run.boundary,
                       fault.code == os::kFaultAborted ? ZOR_TRACE_CALL_ABORTED : ZOR_TRACE_CALL_FAULT);
        slots_[run.slot].busy.store(0, std::memory_order_release);
    }
    *boundary = run.boundary;
}

}  // namespace zor
