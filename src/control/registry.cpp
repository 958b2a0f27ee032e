// Registration and unregistration of ISR modules.
#include "control/registry.h"

#include <cstring>
#include <new>

#include "control/custom_services.h"
#include "control/irq_driver.h"
#include "control/module_entries.h"
#include "control/module_policy.h"
#include "dispatch/dispatcher.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "pagelock/page_locker.h"
#include "support/critsec.h"
#include "support/log.h"
#include "support/stopwatch.h"
#include "os/os.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr std::uint32_t kNameOffset = 16;
constexpr std::uint32_t kNameUnits = 20;
// How long unloading waits for calls in flight on other threads.


// An address inside the host's own image.
const void* OwnImageAddress() { return reinterpret_cast<const void*>(&OnInterrupt); }

}  // namespace

std::uint64_t Registry::RegisterISRProc(os::Peer& peer, const void* payload, std::uint32_t size) {
    CLock lock(funcs_);
    // The payload is a client's: read the name only within the bytes there.
    const auto* bytes = static_cast<const unsigned char*>(payload);
    const std::uint32_t avail =
        payload != nullptr && size > kNameOffset ? (size - kNameOffset) / 2 : 0;
    char16_t name[kNameUnits] = {};
    std::uint32_t len = 0;
    for (; len < avail && len < kNameUnits; ++len) {
        std::memcpy(&name[len], bytes + kNameOffset + 2 * len, 2);
        if (name[len] == 0) break;
    }
    if (len == avail) {
        log_.wPrintf(kLogFault, u"ZOR: RegisterISRProc: malformed request refused (%ld bytes)!\n\r",
                       AsLong(size));
        return 0;
    }
    if (len == kNameUnits) {
        name[kNameUnits - 1] = 0;
        log_.wPrintf(kLogFault, u"ZOR: RegisterISRProc: module name too long, refused: '%s...'\n\r",
                       name);
        return 0;
    }
    std::uint32_t pid = 0, sharedSize = 0;
    std::memcpy(&pid, bytes, 4);
    std::memcpy(&sharedSize, bytes + 4, 4);
    return Register(peer, pid, sharedSize, name);
}

std::uint64_t Registry::Register(os::Peer& peer, std::uint32_t pid, std::uint32_t sharedSize,
                                 const char16_t* name) {
    log_.wPrintf(kLogTrace, u"Register DLL %s\n\r", name);
    for (std::uint32_t s = 1; s < slots_.HighWater(); ++s) {
        if (slots_[s].inUse.load(std::memory_order_acquire) && wicmp(slots_[s].name, name) == 0) {
            log_.wPrintf(kLogTrace, u"ZOR: ISR '%s' already registered! Unregistering old version...\n\r",
                           name);
            UnregisterISR(s);
        }
    }

    std::uint64_t remote = 0;
    const std::uint32_t slot = slots_.Alloc();
    bool ok = slot != 0;
    if (!ok) log_.wPrintf(kLogFault, u"ZOR: Failed to add '%s' to internal list\n\r", name);
    ModuleSlot& s = slots_[slot];
    if (ok) {
        s.kind.store(kKindIsr, std::memory_order_relaxed);
        s.number.store(slot, std::memory_order_relaxed);
        s.locker = new (std::nothrow) PageLocker(log_, lockedNames_);
        s.sharedSize = sharedSize;
        ok = sharedSize == 0 || shm_.Fits(sharedSize, name);
    }
    if (ok) {
        wcopy(s.name, kNameUnits, name);
        s.module = LoadModuleFor(peer, moduleDir_, s.name, log_);
        if (s.module == nullptr) {
            log_.wPrintf(kLogError, u"ZOR: Failed to load ISR: '%s'\n\r", s.name);
            LogLoaderReason(log_);
            ok = false;
        }
    }
    ZorGetSetProc entry = nullptr;
    if (ok) {
        entry = reinterpret_cast<ZorGetSetProc>(os::module_symbol(s.module, ZOR_ISR_EXPORT_NAME));
        if (entry == nullptr) {
            log_.wPrintf(kLogError, u"ZOR: Failed to locate ISR_GetSet in module '%s'\n\r", s.name);
            ok = false;
        }
    }
    // Memory is made for a module that loaded, never for a refused one.
    if (ok && sharedSize != 0) ok = CreateSharedMemory(peer, slot, pid, name, &remote);
    if (!ok) {
        // The client never learns the value: take its handle back.
        if (remote != 0) {
            if (const os::Handle process = peer.Open(pid)) {
                peer.CloseIn(process, remote);
                peer.Close(process);
            }
        }
        ReleaseModuleSlot(slot);
        dispatcher_.PauseISR(false);
        return 0;
    }
    s.entry.store(entry, std::memory_order_release);

    dispatcher_.PauseISR(true);
    // The new slot is not in use yet, so it is not attached to itself.
    for (std::uint32_t t = 1; t < slots_.HighWater(); ++t) {
        const ModuleSlot& o = slots_[t];
        if (o.inUse.load(std::memory_order_acquire) && o.kind.load(std::memory_order_relaxed) == kKindIsr &&
            o.entry.load(std::memory_order_relaxed) != nullptr) {
            caller_.CallModule(t, ZOR_FN_ATTACH, slot);
        }
    }
    s.inUse.store(1, std::memory_order_release);
    sysLocker_.LockModule(reinterpret_cast<const void*>(entry));
    dispatcher_.InvalidateDispatchOrder();
    dispatcher_.PauseISR(false);

    caller_.CallModule(slot, ZOR_FN_SET_ISR_HANDLE, slot);
    caller_.CallModule(slot, ZOR_FN_SET_SERVICE_PROC, reinterpret_cast<std::uintptr_t>(&ServiceProc));
    if (caller_.CallModule(slot, ZOR_FN_INITIALIZE, reinterpret_cast<std::uintptr_t>(s.view)) ==
        ZOR_INIT_PENDING) {
        s.startPending.store(1, std::memory_order_relaxed);
    }
    RetryPendingStarts();
    return remote;
}

bool Registry::CreateSharedMemory(os::Peer& peer, std::uint32_t slot, std::uint32_t pid, const char16_t* name,
                                  std::uint64_t* remote) {
    ModuleSlot& s = slots_[slot];
    s.mapping = os::mapping_create(s.sharedSize);
    if (s.mapping == 0) {
        log_.wPrintf(kLogFault, u"ZOR: RegisterISRProc of  '%s' failed to alloc %ld bytes shared memory!\n\r",
                       name, AsLong(s.sharedSize));
        return false;
    }
    const os::Handle process = peer.Open(pid);
    if (process == 0 || !peer.DupTo(process, s.mapping, remote)) {
        const std::uint32_t error = os::last_error();
        if (process != 0) peer.Close(process);
        *remote = 0;
        log_.wPrintf(kLogFault,
                       u"ZOR: RegisterISRProc of  '%s' failed to duplicate handle for shared memory (%08x)!\n\r",
                       name, static_cast<unsigned>(error));
        return false;
    }
    peer.Close(process);
    s.view = os::mapping_map(s.mapping, s.sharedSize);
    if (s.view == nullptr) {
        log_.wPrintf(kLogFault, u"ZOR: RegisterISRProc of  '%s' failed to map view of shared memory!\n\r",
                       name);
        return false;
    }
    sysLocker_.LockRange(reinterpret_cast<std::uintptr_t>(s.view), s.sharedSize);
    return true;
}

// Unloading order: nothing new gets in (the closing bit), the calls and
// service uses in flight are waited for, then the services the module
// installed meanwhile, its library, view and locker go. Past the wait the
// library and view stay (something may still run in them); the locker goes
// all the same: a memory service in flight is host code that takes no
// seconds, so what still runs after the wait is module code.
void Registry::ReleaseModuleSlot(std::uint32_t slot, std::uint32_t waitMs) {
    if (slot == 0 || slot >= SlotTable::kSlots) return;
    CLock lock(funcs_);
    ModuleSlot& s = slots_[slot];
    bool drained = true;
    if (s.module != nullptr) {
        drained = caller_.CloseSlot(slot, waitMs);
        custom_.RemoveCustomServices(slot);
        if (drained) {
            os::module_free(s.module);
        } else {
            log_.wPrintf(kLogFault, u"ZOR: ISR '%s' did not return within %ld ms: module stays loaded\n\r",
                           s.name, AsLong(waitMs));
        }
        s.module = nullptr;
    }
    if (s.view != nullptr && drained) {
        sysLocker_.UnlockRange(reinterpret_cast<std::uintptr_t>(s.view));
        os::mapping_unmap(s.view, s.sharedSize);
        s.view = nullptr;
    }
    if (s.locker != nullptr) {
        delete s.locker;
        s.locker = nullptr;
    }
    if (s.mapping != 0) {
        os::handle_close(s.mapping);
        s.mapping = 0;
    }
    s.view = nullptr;
}

void Registry::UnregisterISR(std::uint32_t slot, std::uint32_t waitMs) {
    if (slot < 1 || slot >= SlotTable::kSlots) return;
    ModuleSlot& s = slots_[slot];
    if (!s.inUse.load(std::memory_order_acquire) || s.kind.load(std::memory_order_relaxed) != kKindIsr) return;

    log_.wPrintf(kLogTrace, u"ZOR: Unregistering ISR '%s'\n\r", s.name);
    dispatcher_.PauseISR(true);
    // The leaving module is detached from itself too.
    for (std::uint32_t t = 1; t < slots_.HighWater(); ++t) {
        const ModuleSlot& o = slots_[t];
        if (o.inUse.load(std::memory_order_acquire) && o.kind.load(std::memory_order_relaxed) == kKindIsr &&
            o.entry.load(std::memory_order_relaxed) != nullptr) {
            caller_.CallModule(t, ZOR_FN_DETACH, slot);
        }
    }
    custom_.RemoveCustomServices(slot);
    if (const ZorGetSetProc entry = s.entry.load(std::memory_order_acquire)) {
        sysLocker_.UnlockModule(reinterpret_cast<const void*>(entry));
        caller_.CallModule(slot, ZOR_FN_SHUTDOWN, 0);
    }
    ReleaseModuleSlot(slot, waitMs);
    slots_.Free(slot);
    dispatcher_.InvalidateDispatchOrder();
    dispatcher_.PauseISR(false);
}

void Registry::SetModuleDir(const char16_t* dir) { wcopy(moduleDir_, 260, dir); }

std::uint32_t Registry::UnregisterCommand(std::uint64_t number) {
    CLock lock(funcs_);
    for (std::uint32_t s = 1; s < slots_.HighWater(); ++s) {
        if (slots_[s].number.load(std::memory_order_relaxed) == number) {
            UnregisterISR(s);
            return 0;
        }
    }
    log_.wPrintf(kLogFault, u"ZOR: Unregistering ISR #%ld failed!\n\r", AsLong(number));
    return 0;
}

std::uint32_t Registry::FindModule(const char16_t* name) const {
    const std::uint32_t high = slots_.HighWater();
    for (std::uint32_t s = 1; s < high; ++s) {
        if (slots_[s].inUse.load(std::memory_order_acquire) && wicmp(slots_[s].name, name) == 0) {
            return s;
        }
    }
    return 0;
}

std::uint32_t Registry::ModuleInfo(std::uint64_t number) const {
    const std::uint32_t high = slots_.HighWater();
    for (std::uint32_t s = 1; s < high; ++s) {
        if (slots_[s].number.load(std::memory_order_relaxed) == number) return slots_[s].sharedSize;
    }
    return 0;
}

void Registry::RetryPendingStarts() {
    // Passes repeat while one starts something, so that modules that wait
    // for each other start in whatever order their dependencies appear.
    bool started = true;
    while (started) {
        started = false;
        for (std::uint32_t s = 1; s < slots_.HighWater(); ++s) {
            ModuleSlot& m = slots_[s];
            if (!m.inUse.load(std::memory_order_acquire) || !m.startPending.load(std::memory_order_relaxed)) {
                continue;
            }
            const std::uint64_t arg = m.kind.load(std::memory_order_relaxed) == kKindIsr
                                          ? reinterpret_cast<std::uintptr_t>(m.view)
                                          : 0;
            if (caller_.CallModule(s, ZOR_FN_INITIALIZE, arg) != ZOR_INIT_PENDING) {
                m.startPending.store(0, std::memory_order_relaxed);
                started = true;
            }
        }
    }
}

void Registry::PrepareTables() {
    for (std::uint32_t i = 0; i < SlotTable::kSlots; ++i) {
        ModuleSlot& s = slots_[i];
        s.inUse.store(0, std::memory_order_relaxed);
        s.number.store(0, std::memory_order_relaxed);
        s.kind.store(kKindNone, std::memory_order_relaxed);
        s.priority.store(0, std::memory_order_relaxed);
        s.name[0] = 0;
        s.module = nullptr;
        s.mapping = 0;
        s.view = nullptr;
        s.sharedSize = 0;
        s.entry.store(nullptr, std::memory_order_relaxed);
        s.locker = nullptr;
        s.irqThread = 0;
        s.startPending.store(0, std::memory_order_relaxed);
        s.blocked.store(0, std::memory_order_relaxed);
        s.busy.store(0, std::memory_order_relaxed);
        s.interruptStat.Reset();
        s.execStat.Reset();
    }
    ownImageLocked_ = sysLocker_.LockModule(OwnImageAddress()) != 0;
    stopwatchIds_[0] = stopwatches_.OpenStopWatch();
    stopwatchIds_[1] = stopwatches_.OpenStopWatch();
    dispatcher_.processorCount.store(os::processor_count(), std::memory_order_relaxed);
}

void Registry::UnloadAll(std::uint32_t waitMs) {
    for (std::uint32_t s = 1; s < slots_.HighWater(); ++s) {
        if (slots_[s].inUse.load(std::memory_order_acquire)) UnregisterISR(s, waitMs);
    }
    irq_.UnregisterIRQ(waitMs);
    shm_.ReleaseArea();
    if (ownImageLocked_) {
        sysLocker_.UnlockModule(OwnImageAddress());
        ownImageLocked_ = false;
    }
    for (std::uint32_t& id : stopwatchIds_) {
        if (id != 0) stopwatches_.CloseStopWatch(id);
        id = 0;
    }
    custom_.ReportUnknownServiceCalls();
}

}  // namespace zor
