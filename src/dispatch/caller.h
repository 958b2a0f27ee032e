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
    // instead of being reported as a fault. (The dispatch loop calls its
    // ISRs itself, under one guard per event: Dispatcher::CallIsrs.)
    std::uint32_t CallModule(std::uint32_t slot, std::uint32_t code, std::uint64_t arg,
                             std::uint32_t flags = 0, std::uint32_t context = 0,
                             bool* gone = nullptr);
    // Unloading a slot's module: lets no new call in, clears the entry and
    // waits up to `waitMs` for the calls in flight on other threads and for
    // a dispatch event under way (the calling thread's own calls into the
    // slot are not waited for). False when calls are still inside the
    // module then.
    bool CloseSlot(std::uint32_t slot, std::uint32_t waitMs);
    void ReportCall(std::uint32_t slot, double elapsed, std::uint32_t code,
                    std::uint64_t arg, std::uint32_t flags);
    // A dispatch-loop call of `slot` that did not return: cut short by the
    // watchdog, or a fault.
    void InterruptFailed(std::uint32_t slot, const os::Fault& fault);
    // What a call through a null entry reports: the fault returns into the host.
    void ReportNullCall(std::uint32_t slot);

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
};

// File name (after the last backslash or slash) of the module containing
// `address` into buf, or "unknown". Shared by the fault report and the
// unknown-service report.
void ModuleNameOfAddress(const void* address, char16_t* buf, unsigned size);

}  // namespace zor
