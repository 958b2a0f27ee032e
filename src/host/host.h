// One running host: every table of the system is a member of a subsystem
// object owned here, so each test starts from a fresh host. The only global
// is the pointer to the running instance, used by the C entry points handed
// to modules (OnInterrupt, ServiceProc).
#pragma once

#include <cstdint>

#include "pipes/client_registry.h"
#include "dispatch/caller.h"
#include "dispatch/dispatcher.h"
#include "dispatch/stats.h"
#include "host/config.h"
#include "control/irq_driver.h"
#include "pagelock/page_locker.h"
#include "control/registry.h"
#include "control/services.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "support/critsec.h"
#include "support/log.h"
#include "support/stopwatch.h"
#include "zor/zor_module.h"

namespace zor {

struct Host {
    explicit Host(Logger& logger);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    Logger& log;
    StopWatches stopwatches;
    CCritSec csecFuncs;
    LockedNames lockedNames;
    PageLocker sysLocker;
    SlotTable slots;
    Caller caller;
    Dispatcher dispatcher;
    StatsArea stats;
    SharedMemory shm;
    Services services;
    Registry registry;
    IrqDriver irq;
    ClientRegistry clients;
    Config config;
};

// The running instance the C entry points use; null when none.
Host* RunningHost();
void SetRunningHost(Host* host);

// Takes csecFuncs for the scope, naming the holder as the host does.
#define ZOR_LOCK_FUNCS(host, line) \
    ::zor::CLock zorFuncsLock_((host).csecFuncs, "csecFuncs", (line), ::zor::kZorSourcePath)

}  // namespace zor

// The entries handed to modules.
extern "C" std::uint32_t OnInterrupt(std::uint32_t sequence);
extern "C" std::int64_t ServiceProc(std::uint32_t code, std::uintptr_t a1,
                                       std::uintptr_t a2, std::uintptr_t a3,
                                       std::uintptr_t a4, std::uintptr_t a5,
                                       std::uintptr_t a6);
// Exported by the executable under ZOR_LOG_EXPORT_NAME.
ZOR_EXPORT void ZOR_Log(std::uint32_t level, std::uint32_t mask, const std::uint16_t* text);
