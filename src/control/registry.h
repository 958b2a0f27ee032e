// ISR module registration and unregistration on behalf of clients, the
// lookups of commands 13 and 14, the pending-start pass, and the
// preparation and shutdown of the module tables.
//
// The host prepares the tables at start-up (its own image recorded in the
// system page locker, processor count stored so that SERV_BlockISR really
// waits on multi-processor machines) and unloads every module at exit.
#pragma once

#include <cstdint>

#include "dispatch/caller.h"
#include "os/peer.h"

namespace zor {

class CCritSec;
class CustomServices;
class Dispatcher;
class IrqDriver;
class LockedNames;
class Logger;
class PageLocker;
class SharedMemory;
class SlotTable;
class StopWatches;

class Registry {
public:
    Registry(Logger& log, CCritSec& funcs, SlotTable& slots, Caller& caller, Dispatcher& dispatcher,
             SharedMemory& shm, CustomServices& custom, IrqDriver& irq, PageLocker& sysLocker,
             LockedNames& lockedNames, StopWatches& stopwatches)
        : log_(log), funcs_(funcs), slots_(slots), caller_(caller), dispatcher_(dispatcher),
          shm_(shm), custom_(custom), irq_(irq), sysLocker_(sysLocker),
          lockedNames_(lockedNames), stopwatches_(stopwatches) {}

    // Command 1. `payload`/`size` are the message bytes as received; the
    // process id, size and name are read only within them. A name without
    // its terminator inside the payload, or of 20 units or more, is refused
    // with a log line. Returns the handle value valid in the client, 0 on
    // failure or without shared memory.
    std::uint64_t RegisterISRProc(os::Peer& peer, const void* payload, std::uint32_t size);
    // `waitMs` bounds the wait for calls still inside the module.
    void UnregisterISR(std::uint32_t slot, std::uint32_t waitMs = Caller::kUnloadWaitMs);
    void ReleaseModuleSlot(std::uint32_t slot, std::uint32_t waitMs = Caller::kUnloadWaitMs);
    // The module folder (DLLDIR) where bare names are looked up first, and
    // the only place other users' modules come from (control/module_policy.h).
    void SetModuleDir(const char16_t* dir);
    // Command 2: always 0.
    std::uint32_t UnregisterCommand(std::uint64_t number);
    // Command 13 with a terminated name; command 14.
    std::uint32_t FindModule(const char16_t* name) const;
    std::uint32_t ModuleInfo(std::uint64_t number) const;
    void RetryPendingStarts();

    // Start-up: clears every slot and its statistics, locks the host's own
    // image in the system page locker, opens the two stopwatches and stores
    // the processor count.
    void PrepareTables();
    // Exit: unregisters every ISR, unloads the IRQ driver, releases the
    // system shared area, unlocks the host's image (when PrepareTables
    // locked it), closes the stopwatches, reports unknown service calls.
    // `waitMs` bounds each module's wait for calls still inside it.
    void UnloadAll(std::uint32_t waitMs = Caller::kUnloadWaitMs);

private:
    // Registration after the payload has been validated.
    std::uint64_t Register(os::Peer& peer, std::uint32_t pid, std::uint32_t sharedSize, const char16_t* name);
    // Step 5 of registration: the module's shared memory.
    bool CreateSharedMemory(os::Peer& peer, std::uint32_t slot, std::uint32_t pid, const char16_t* name,
                            std::uint64_t* remote);

    Logger& log_;
    CCritSec& funcs_;
    SlotTable& slots_;
    Caller& caller_;
    Dispatcher& dispatcher_;
    SharedMemory& shm_;
    CustomServices& custom_;
    IrqDriver& irq_;
    PageLocker& sysLocker_;
    LockedNames& lockedNames_;
    StopWatches& stopwatches_;
    char16_t moduleDir_[260] = {};
    std::uint32_t stopwatchIds_[2] = {};
    bool ownImageLocked_ = false;
};

}  // namespace zor
