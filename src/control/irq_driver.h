// The one IRQ driver: loading, registration, unregistration, priorities,
// and the forwarding of commands 6 and 7. Also the driver selection at
// start-up.
#pragma once

#include <atomic>
#include <cstdint>

#include "dispatch/caller.h"
#include "os/os.h"

namespace zor {

class CCritSec;
class CustomServices;
class Dispatcher;
class LockedNames;
class Logger;
class PageLocker;
class SlotTable;
class Watchdog;

// What the start-up search of "*.irq" files found (see driver_selection.h). The
// indexes are only "found" marks; kNotFound when the name was not seen.
// After a "Failed to load" line: the loader's reason on a line of its own
// (missing file, missing dependency, undefined symbol, wrong format).
void LogLoaderReason(Logger& log);

struct IrqSearch {
    static constexpr std::uint32_t kNotFound = 0xFFFFFFFF;
    std::uint32_t lastIndex = kNotFound;
    std::uint32_t fallbackIndex = kNotFound;
    std::uint32_t fileCount = 0;
};

class IrqDriver {
public:
    // A driver file name (after the directory) must stay below this many
    // units; longer names are refused before anything is loaded.
    static constexpr std::uint32_t kNameUnits = 20;

    IrqDriver(Logger& log, CCritSec& funcs, SlotTable& slots, Caller& caller,
              Dispatcher& dispatcher, Watchdog& watchdog, CustomServices& custom,
              PageLocker& sysLocker, LockedNames& lockedNames)
        : log_(log), funcs_(funcs), slots_(slots), caller_(caller), dispatcher_(dispatcher),
          watchdog_(watchdog), custom_(custom), sysLocker_(sysLocker), lockedNames_(lockedNames) {}

    std::uint32_t LoadIRQ(const char16_t* directory, const char16_t* fileName, bool strict);
    std::uint32_t RegisterIRQ(const char16_t* path, bool strict);
    void UnregisterIRQ(std::uint32_t waitMs = Caller::kUnloadWaitMs);
    void SetIrqPriority(std::uint32_t level);
    void ResetIrqPriority();
    // Commands 6 and 7 (and service 9): 1000 / 0 without a driver.
    std::uint32_t Query();
    std::uint32_t Control(std::uint32_t value);
    // True when CurrentIrqSlot names an in-use kind-1 slot with an entry.
    bool Loaded() const;
    // The loaded driver's name, "" without one.
    const char16_t* LoadedName() const;
    std::uint32_t CurrentIrqSlot() const { return currentSlot_.load(std::memory_order_acquire); }
    std::uint32_t PriorityLevel() const { return priorityLevel_; }
    // The last stage the driver's thread was raised to; kNoStage while the
    // system refused every stage (Linux without CAP_SYS_NICE) or no driver ran.
    static constexpr std::uint32_t kNoStage = 0xFFFFFFFF;
    std::uint32_t AppliedStage() const { return LoadedSlot() ? appliedStage_ : kNoStage; }

    // Filled by SelectAndLoadIrq.
    IrqSearch search;

private:
    // The current slot when it is in use and of kind 1 (entry not required).
    std::uint32_t RegisteredSlot() const;
    // The same with an entry: what Loaded() tests. 0 when none.
    std::uint32_t LoadedSlot() const;
    // Runs the priority stages from `stage` (0..2) upward with read-back.
    void RunPriorityRamp(std::uint32_t stage);
    void FailRegistration(std::uint32_t slot);
    // Closes the slot, waits up to `waitMs`, frees the locker and the library.
    void Release(std::uint32_t slot, std::uint32_t waitMs);

    Logger& log_;
    CCritSec& funcs_;
    SlotTable& slots_;
    Caller& caller_;
    Dispatcher& dispatcher_;
    Watchdog& watchdog_;
    CustomServices& custom_;
    PageLocker& sysLocker_;
    LockedNames& lockedNames_;
    std::atomic<std::uint32_t> currentSlot_{0};
    std::uint32_t priorityLevel_ = 0xFFFFFFFF;
    std::uint32_t appliedStage_ = kNoStage;
    os::Thread lastRaised_ = 0;
};

}  // namespace zor
