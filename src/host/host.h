// The composition root: one running host owns every subsystem object and
// hands each the references it uses, lower layers first (see the member
// order). Each test starts from a fresh host. The only global is the pointer
// to the running instance, used by the C entry points handed to modules
// (OnInterrupt, ServiceProc).
#pragma once

#include <cstdint>

#include "control/custom_services.h"
#include "control/driver_selection.h"
#include "control/irq_driver.h"
#include "control/module_entries.h"
#include "control/registry.h"
#include "control/services.h"
#include "dispatch/caller.h"
#include "dispatch/deferred_list.h"
#include "dispatch/dispatch_thread.h"
#include "dispatch/dispatcher.h"
#include "dispatch/flight_recorder.h"
#include "dispatch/stats.h"
#include "dispatch/watchdog.h"
#include "host/config.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "pagelock/page_locker.h"
#include "pipes/client_registry.h"
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
    // What dispatch stands on.
    SlotTable slots;
    SharedMemory shm;
    // The per-event path.
    DispatchThread dispatchThread;
    StatsArea stats;
    FlightRecorder recorder;
    Caller caller;
    DeferredList deferredList;
    Dispatcher dispatcher;
    Watchdog watchdog;
    // The control layer.
    CustomServices customServices;
    IrqDriver irq;
    Services services;
    Registry registry;
    // Client connections.
    ClientRegistry clients;
    Config config;
};

// The driver choice at start-up, from the host's configuration.
std::uint32_t SelectAndLoadIrq(Host& host, const SelectionUi& ui);

// The running instance the C entry points use; null when none.
Host* RunningHost();
void SetRunningHost(Host* host);

}  // namespace zor

// Exported by the executable under ZOR_LOG_EXPORT_NAME.
ZOR_EXPORT void ZOR_Log(std::uint32_t level, std::uint32_t mask, const std::uint16_t* text);
