// The guarded timed call: every call into a module goes through CallModule,
// which times it, reports slow calls on the dispatch thread, feeds the
// slot's statistics and survives faults of the module.
//
// A slot whose entry is null is not called: it is reported exactly like a
// fault of a call through null (the exception message with the slot's name
// and the host's own module file), result 0, nothing counted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "dispatch/watchdog.h"

namespace zor {

class DispatchThread;
class Logger;
class SharedMemory;
class SlotTable;
class StatsArea;

class Caller {
public:
    static constexpr std::uint32_t kThreadContexts = 10;
    static constexpr std::uint32_t kFlagTdl = 1;
    // Set by the dispatch loop's calls: their figures are counted at the
    // end of the event.
    static constexpr std::uint32_t kFlagInEvent = 2;
    // The timing line of an ExecISRFunc / ExecRemoteFunc call reads at most
    // the argument words of the largest packet built on the dispatch thread,
    // however many bytes the block announces, and shows as many of them as
    // fit in one log entry.
    static constexpr std::uint32_t kMaxLoggedWords = (1200 - 8) / 4;

    Caller(Logger& log, SlotTable& slots, const SharedMemory& shm, StatsArea& stats,
           const DispatchThread& thread)
        : log_(log), slots_(slots), shm_(shm), stats_(stats), thread_(thread) {}

    // Calls above this many milliseconds are slow: logged on the dispatch thread.
    static constexpr double kSlowCallMs = 2.0;
    // How long unloading a module waits for calls still inside it.
    static constexpr std::uint32_t kUnloadWaitMs = 2000;

    // The caller has validated `slot`. A slot whose module is being unloaded
    // is not called: the result is 0 and *gone (when given) is set. With
    // `gone` given, a null entry of a slot not in use counts as gone too
    // instead of being reported as a fault.
    // With `boundary` (the dispatch loop) the call starts at *boundary instead
    // of a reading of its own, and *boundary receives the reading that ends
    // it, so that consecutive calls share one clock reading; a slow or
    // faulting call reads the clock again after its report, which the next
    // call does not pay for.
    std::uint32_t CallModule(std::uint32_t slot, std::uint32_t code, std::uint64_t arg,
                             std::uint32_t flags = 0, std::uint32_t context = 0,
                             bool* gone = nullptr, double* boundary = nullptr);
    // Unloading a slot's module: lets no new call in, clears the entry and
    // waits up to `waitMs` for the calls in flight on other threads (the
    // calling thread's own calls into the slot are not waited for). False
    // when calls are still inside the module then.
    bool CloseSlot(std::uint32_t slot, std::uint32_t waitMs);
    void ReportCall(std::uint32_t slot, double elapsed, std::uint32_t code,
                    std::uint64_t arg, std::uint32_t flags);

    std::size_t BlockBytes(std::uint32_t flags, std::uint64_t arg) const;
    void AddThreadContext(std::uint32_t threadId, std::uint32_t context);
    void RemoveThreadContext(std::uint32_t threadId);
    std::uint32_t GetThreadContext(std::uint32_t threadId);

    // "?? (n)" for unnamed codes below 21, "" for 21 and above.
    static const char16_t* FunctionCodeName(std::uint32_t code);
    // The call the dispatch thread is in, for the watchdog.
    RunningCall& Running() { return running_; }
    const RunningCall& Running() const { return running_; }

    // The file name of the module of the last caught fault. Read it only
    // while no other call can fault.
    const char16_t* FaultModuleName() const { return faultModuleName_; }
    // How the dispatch loop's latest call ended: 0, or ZOR_TRACE_CALL_FAULT
    // (caught) or ZOR_TRACE_CALL_ABORTED (the watchdog). Dispatch thread only.
    std::uint32_t LastCallFlags() const { return lastCallFlags_; }
    // The dispatch loop's latest call: the reading that ended the module's
    // code, before any report of it (a fault's: the reading after its
    // report). Dispatch thread only.
    double LastCallEnd() const { return lastCallEnd_; }

private:
    struct Context {
        std::atomic<std::uint32_t> threadId{0};
        std::atomic<std::uint32_t> context{0};
    };
    void ReportFault(std::uint32_t slot, const void* address);
    void ReportAbort(std::uint32_t slot, std::uint32_t code);

    Logger& log_;
    SlotTable& slots_;
    const SharedMemory& shm_;
    StatsArea& stats_;
    const DispatchThread& thread_;
    Context contexts_[kThreadContexts];
    std::atomic<bool> faultNameBusy_{false};
    char16_t faultModuleName_[260] = {};
    RunningCall running_;
    std::uint32_t lastCallFlags_ = 0;
    double lastCallEnd_ = 0.0;
};

// File name (after the last backslash or slash) of the module containing
// `address` into buf, or "unknown". Shared by the fault report and the
// unknown-service report.
void ModuleNameOfAddress(const void* address, char16_t* buf, unsigned size);

}  // namespace zor
