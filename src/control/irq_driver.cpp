// The IRQ driver contract: loading and starting the one interrupt source,
// withdrawing it in a fixed order, and raising its thread's priority.
#include "control/irq_driver.h"

#include <new>

#include "control/custom_services.h"
#include "control/module_entries.h"
#include "dispatch/dispatcher.h"
#include "dispatch/watchdog.h"
#include "dispatch/flight_recorder.h"
#include "modules/slot_table.h"
#include "pagelock/page_locker.h"
#include "support/critsec.h"
#include "support/log.h"
#include "os/os.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr std::uint32_t kPathUnits = 260;

std::uint64_t ServiceEntry() { return reinterpret_cast<std::uintptr_t>(&ServiceProc); }
std::uint64_t InterruptEntry() { return reinterpret_cast<std::uintptr_t>(&OnInterrupt); }

// The file name starts after the last separator at index 1 or above; a
// separator at index 0 does not count. Posix paths use '/', so both do.
const char16_t* DriverName(const char16_t* path) {
    std::size_t i = wlen(path);
    while (i > 1) {
        --i;
        if (path[i] == u'\\' || path[i] == u'/') return path + i + 1;
    }
    return path;
}

}  // namespace

const char16_t* IrqDriver::LoadedName() const {
    const std::uint32_t slot = LoadedSlot();
    return slot ? slots_[slot].name : u"";
}

std::uint32_t IrqDriver::LoadIRQ(const char16_t* directory, const char16_t* fileName,
                                 bool strict) {
    char16_t path[kPathUnits];
    wcopy(path, kPathUnits, directory ? directory : u"");
    wappend(path, kPathUnits, fileName ? fileName : u"");
    log_.wPrintf(kLogTrace, u"LoadIRQ %s\n\r", path);
    UnregisterIRQ();
    std::uint32_t result = RegisterIRQ(path, strict);
    ResetIrqPriority();
    return result;
}

std::uint32_t IrqDriver::RegisterIRQ(const char16_t* path, bool strict) {
    CLock lock(funcs_);
    if (!path) path = u"";
    log_.wPrintf(kLogTrace, u"Register IRQ %s\n\r", path);

    std::uint32_t slot = slots_.Alloc();
    if (slot == 0) {
        log_.wPrintf(kLogFault, u"ZOR: Failed to add '%s' to internal list\n\r", path);
        return 0;
    }
    ModuleSlot& s = slots_[slot];
    s.kind.store(kKindIrq, std::memory_order_relaxed);
    s.number.store(slot, std::memory_order_relaxed);

    // A name that does not fit the slot is refused before anything is
    // created: nothing of the driver was loaded, so nothing is sent to it.
    const char16_t* name = DriverName(path);
    if (wnlen(name, kNameUnits) >= kNameUnits) {
        log_.wPrintf(kLogError, u"ZOR: IRQ driver name too long (19 characters at most): '%s'\n\r",
                       path);
        return 0;
    }
    s.locker = new (std::nothrow) PageLocker(log_, lockedNames_);
    wcopy(s.name, kNameUnits, name);

    s.module = os::module_load(path);
    if (!s.module) {
        log_.wPrintf(kLogError, u"ZOR: Failed to load IRQ: '%s'\n\r", path);
        LogLoaderReason(log_);
        FailRegistration(slot);
        return 0;
    }
    auto entry = reinterpret_cast<ZorGetSetProc>(os::module_symbol(s.module, ZOR_IRQ_EXPORT_NAME));
    if (!entry) {
        log_.wPrintf(kLogError, u"ZOR: Failed to locate IRQ_GetSet in module '%s'\n\r", path);
        FailRegistration(slot);
        return 0;
    }
    s.entry.store(entry, std::memory_order_release);
    // Optional: how late each event woke, for the flight recorder.
    dispatcher_.Recorder().SetLatenessSource(
        reinterpret_cast<ZorLatenessProc>(os::module_symbol(s.module, ZOR_LATENESS_EXPORT_NAME)));

    caller_.CallModule(slot, ZOR_FN_SET_ISR_HANDLE, slot);
    caller_.CallModule(slot, ZOR_FN_SET_SERVICE_PROC, ServiceEntry());
    caller_.CallModule(slot, ZOR_GS_SET_INTERRUPT, InterruptEntry());
    std::uint32_t r = caller_.CallModule(slot, ZOR_FN_INITIALIZE, 0);
    if (r == ZOR_INIT_PENDING) {
        s.startPending.store(1, std::memory_order_relaxed);
    } else if (r != ZOR_INIT_OK) {
        log_.wPrintf(kLogError, u"ZOR: '%s' returned error %08x\n\r", path, r);
        if (strict) {
            FailRegistration(slot);
            return 0;
        }
    }

    s.irqThread = caller_.CallModule(slot, ZOR_GS_GET_THREAD, ServiceEntry());
    sysLocker_.LockModule(reinterpret_cast<const void*>(entry));
    // The driver may already have delivered events from any thread; the
    // first event from now on names the dispatch thread.
    dispatcher_.ResetDispatchThread();
    s.inUse.store(1, std::memory_order_release);
    currentSlot_.store(slot, std::memory_order_release);
    watchdog_.Start();
    return 1;
}

// The slot was never marked in use, so leaving it is enough to free it.
// Shutdown goes out even without an entry: the guarded call absorbs that.
// The driver may have installed services and started threads: its slot is
// closed like a withdrawn one's before anything goes.
void IrqDriver::FailRegistration(std::uint32_t slot) {
    custom_.RemoveCustomServices(slot);
    caller_.CallModule(slot, ZOR_FN_SHUTDOWN, 0);
    Release(slot, Caller::kUnloadWaitMs);
}

// After Shutdown: nothing new gets in, the calls and service uses in flight
// are waited for, then the services installed meanwhile, the locker and the
// library go. Past the wait the library stays; the locker goes all the same
// (a memory service in flight is host code that takes no seconds).
void IrqDriver::Release(std::uint32_t slot, std::uint32_t waitMs) {
    ModuleSlot& s = slots_[slot];
    dispatcher_.Recorder().SetLatenessSource(nullptr);  // it lives in the driver
    const bool drained = caller_.CloseSlot(slot, waitMs);
    custom_.RemoveCustomServices(slot);
    delete s.locker;
    s.locker = nullptr;
    if (drained) {
        if (s.module) os::module_free(s.module);
    } else {
        log_.wPrintf(kLogFault, u"ZOR: IRQ driver '%s' did not return within %ld ms: module stays loaded\n\r",
                       s.name, static_cast<long>(waitMs));
    }
    s.module = nullptr;
}

void IrqDriver::UnregisterIRQ(std::uint32_t waitMs) {
    CLock lock(funcs_);
    // Nothing forwards commands to a driver that is being withdrawn.
    currentSlot_.store(0, std::memory_order_release);
    watchdog_.Stop();
    for (std::uint32_t i = 1; i < slots_.HighWater(); ++i) {
        ModuleSlot& s = slots_[i];
        if (s.inUse.load(std::memory_order_acquire) == 0 ||
            s.kind.load(std::memory_order_relaxed) != kKindIrq) {
            continue;
        }
        log_.wPrintf(kLogTrace, u"Unregister IRQ\n\r");
        // Fixed order: no more services, no more events, stop, unlock, unload.
        if (ZorGetSetProc entry = s.entry.load(std::memory_order_acquire)) {
            custom_.RemoveCustomServices(i);
            caller_.CallModule(i, ZOR_GS_SET_INTERRUPT, 0);
            caller_.CallModule(i, ZOR_FN_SHUTDOWN, 0);
            dispatcher_.Recorder().SetLatenessSource(nullptr);
            sysLocker_.UnlockModule(reinterpret_cast<const void*>(entry));
            s.irqThread = 0;
        }
        // A client's command 5 may be inside the driver on another thread.
        Release(i, waitMs);
        slots_.Free(i);
    }
}

std::uint32_t IrqDriver::RegisteredSlot() const {
    std::uint32_t slot = CurrentIrqSlot();
    if (slot == 0 || slot >= SlotTable::kSlots) return 0;
    const ModuleSlot& s = slots_[slot];
    if (s.inUse.load(std::memory_order_acquire) == 0 ||
        s.kind.load(std::memory_order_relaxed) != kKindIrq) {
        return 0;
    }
    return slot;
}

std::uint32_t IrqDriver::LoadedSlot() const {
    std::uint32_t slot = RegisteredSlot();
    if (slot == 0 || slots_[slot].entry.load(std::memory_order_acquire) == nullptr) return 0;
    return slot;
}

bool IrqDriver::Loaded() const { return LoadedSlot() != 0; }

// Each stage keeps the calling thread at normal priority and raises the
// driver's thread (when known). After stages 0 and 1 the class is read back:
// normal means go on. Stages 0 and 1 set the normal class themselves, so in
// practice every ramp ends in stage 2 with the realtime class; that
// escalation is intended.
void IrqDriver::RunPriorityRamp(std::uint32_t stage) {
    std::uint32_t slot = RegisteredSlot();
    os::Thread driverThread = slot ? slots_[slot].irqThread : 0;
    if (driverThread != lastRaised_) appliedStage_ = kNoStage;  // another driver's thread
    lastRaised_ = driverThread;
    for (;;) {
        os::priority_class_set(stage == 2 ? os::kRealtimePriorityClass
                                          : os::kNormalPriorityClass);
        os::thread_priority_set(os::current_thread(), os::kThreadPriorityNormal);
        if (driverThread != 0 &&
            !os::thread_priority_set(driverThread, stage == 0 ? os::kThreadPriorityAboveNormal
                                                              : os::kThreadPriorityTimeCritical)) {
            // Without the privilege (Linux: SCHED_FIFO) the stage is not applied.
            log_.wPrintf(kLogError, u"ZOR: IRQ priority stage %u not applied (%08x)\n\r", stage,
                           static_cast<unsigned>(os::last_error()));
        } else if (driverThread != 0) {
            appliedStage_ = stage;
        }
        std::uint32_t cls = os::priority_class_get();
        if (stage == 2 || cls != os::kNormalPriorityClass) return;
        ++stage;
    }
}

void IrqDriver::SetIrqPriority(std::uint32_t level) {
    if (RegisteredSlot() == 0 || level >= 3 || level == priorityLevel_) return;
    RunPriorityRamp(level);
    priorityLevel_ = level;
}

void IrqDriver::ResetIrqPriority() {
    if (RegisteredSlot() == 0 || priorityLevel_ == 0) return;
    RunPriorityRamp(0);
    priorityLevel_ = 0;
}

// A driver being withdrawn under the call answers as no driver does.
std::uint32_t IrqDriver::Query() {
    const std::uint32_t slot = LoadedSlot();
    bool gone = false;
    const std::uint32_t r = slot ? caller_.CallModule(slot, ZOR_GS_IRQ_QUERY, 0, 0, 0, &gone) : 1000;
    return gone ? 1000 : r;
}

std::uint32_t IrqDriver::Control(std::uint32_t value) {
    std::uint32_t slot = LoadedSlot();
    return slot ? caller_.CallModule(slot, ZOR_GS_IRQ_CONTROL, value) : 0;
}

void LogLoaderReason(Logger& log) {
    char why[512];
    if (os::module_load_error(why, sizeof why) > 0) log.wPrintf(kLogError, u"ZOR:   reason: %S\n\r", why);
}

}  // namespace zor
