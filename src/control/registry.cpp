// Registration and unregistration of ISR modules.
#include "control/registry.h"

#include <cstring>
#include <new>

#include "host/host.h"
#include "os/os.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr std::uint32_t kNameOffset = 16;
constexpr std::uint32_t kNameUnits = 20;
// How long unloading waits for calls in flight on other threads.

long AsLong(std::uint64_t v) { return static_cast<long>(static_cast<std::int32_t>(v)); }

// An address inside the host's own image.
const void* OwnImageAddress() { return reinterpret_cast<const void*>(&OnInterrupt); }

}  // namespace

std::uint64_t Registry::RegisterISRProc(const void* payload, std::uint32_t size) {
    ZOR_LOCK_FUNCS(h_, 1115);
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
        h_.log.wPrintf(kLogFault, u"ZOR: RegisterISRProc: malformed request refused (%ld bytes)!\n\r",
                       AsLong(size));
        return 0;
    }
    if (len == kNameUnits) {
        name[kNameUnits - 1] = 0;
        h_.log.wPrintf(kLogFault, u"ZOR: RegisterISRProc: module name too long, refused: '%s...'\n\r",
                       name);
        return 0;
    }
    std::uint32_t pid = 0, sharedSize = 0;
    std::memcpy(&pid, bytes, 4);
    std::memcpy(&sharedSize, bytes + 4, 4);
    return Register(pid, sharedSize, name);
}

std::uint64_t Registry::Register(std::uint32_t pid, std::uint32_t sharedSize,
                                 const char16_t* name) {
    h_.log.wPrintf(kLogTrace, u"Register DLL %s\n\r", name);
    for (std::uint32_t s = 1; s < h_.slots.HighWater(); ++s) {
        if (h_.slots[s].inUse.load(std::memory_order_acquire) && wicmp(h_.slots[s].name, name) == 0) {
            h_.log.wPrintf(kLogTrace, u"ZOR: ISR '%s' already registered! Unregistering old version...\n\r",
                           name);
            UnregisterISR(s);
        }
    }

    std::uint64_t remote = 0;
    const std::uint32_t slot = h_.slots.Alloc();
    bool ok = slot != 0;
    if (!ok) h_.log.wPrintf(kLogFault, u"ZOR: Failed to add '%s' to internal list\n\r", name);
    ModuleSlot& s = h_.slots[slot];
    if (ok) {
        s.kind.store(kKindIsr, std::memory_order_relaxed);
        s.number.store(slot, std::memory_order_relaxed);
        s.locker = new (std::nothrow) PageLocker(h_.log, h_.lockedNames);
        s.sharedSize = sharedSize;
        if (sharedSize != 0) ok = CreateSharedMemory(slot, pid, name, &remote);
    }
    if (ok) {
        wcopy(s.name, kNameUnits, name);
        s.module = os::module_load(s.name);
        if (s.module == nullptr) {
            h_.log.wPrintf(kLogError, u"ZOR: Failed to load ISR: '%s'\n\r", s.name);
            ok = false;
        }
    }
    ZorGetSetProc entry = nullptr;
    if (ok) {
        entry = reinterpret_cast<ZorGetSetProc>(os::module_symbol(s.module, ZOR_ISR_EXPORT_NAME));
        if (entry == nullptr) {
            h_.log.wPrintf(kLogError, u"ZOR: Failed to locate ISR_GetSet in module '%s'\n\r", s.name);
            ok = false;
        }
    }
    if (!ok) {
        // The client never learns the value: take its handle back.
        if (remote != 0) {
            if (const os::Handle process = os::process_open(pid)) {
                os::handle_close_in(process, remote);
                os::handle_close(process);
            }
        }
        ReleaseModuleSlot(slot);
        h_.dispatcher.PauseISR(false);
        return 0;
    }
    s.entry.store(entry, std::memory_order_release);

    h_.dispatcher.PauseISR(true);
    // The new slot is not in use yet, so it is not attached to itself.
    for (std::uint32_t t = 1; t < h_.slots.HighWater(); ++t) {
        const ModuleSlot& o = h_.slots[t];
        if (o.inUse.load(std::memory_order_acquire) && o.kind.load(std::memory_order_relaxed) == kKindIsr &&
            o.entry.load(std::memory_order_relaxed) != nullptr) {
            h_.caller.CallModule(t, ZOR_FN_ATTACH, slot);
        }
    }
    s.inUse.store(1, std::memory_order_release);
    h_.sysLocker.LockModule(reinterpret_cast<const void*>(entry));
    h_.dispatcher.InvalidateDispatchOrder();
    h_.dispatcher.PauseISR(false);

    h_.caller.CallModule(slot, ZOR_FN_SET_ISR_HANDLE, slot);
    h_.caller.CallModule(slot, ZOR_FN_SET_SERVICE_PROC, reinterpret_cast<std::uintptr_t>(&ServiceProc));
    if (h_.caller.CallModule(slot, ZOR_FN_INITIALIZE, reinterpret_cast<std::uintptr_t>(s.view)) ==
        ZOR_INIT_PENDING) {
        s.startPending.store(1, std::memory_order_relaxed);
    }
    RetryPendingStarts();
    return remote;
}

bool Registry::CreateSharedMemory(std::uint32_t slot, std::uint32_t pid, const char16_t* name,
                                  std::uint64_t* remote) {
    ModuleSlot& s = h_.slots[slot];
    s.mapping = os::mapping_create(s.sharedSize);
    if (s.mapping == 0) {
        h_.log.wPrintf(kLogFault, u"ZOR: RegisterISRProc of  '%s' failed to alloc %ld bytes shared memory!\n\r",
                       name, AsLong(s.sharedSize));
        return false;
    }
    const os::Handle process = os::process_open(pid);
    if (process == 0 || !os::handle_dup_to(process, s.mapping, remote)) {
        const std::uint32_t error = os::last_error();
        if (process != 0) os::handle_close(process);
        *remote = 0;
        h_.log.wPrintf(kLogFault,
                       u"ZOR: RegisterISRProc of  '%s' failed to duplicate handle for shared memory (%08x)!\n\r",
                       name, static_cast<unsigned>(error));
        return false;
    }
    os::handle_close(process);
    s.view = os::mapping_map(s.mapping, s.sharedSize);
    if (s.view == nullptr) {
        h_.log.wPrintf(kLogFault, u"ZOR: RegisterISRProc of  '%s' failed to map view of shared memory!\n\r",
                       name);
        return false;
    }
    h_.sysLocker.LockRange(reinterpret_cast<std::uintptr_t>(s.view), s.sharedSize);
    return true;
}

void Registry::ReleaseModuleSlot(std::uint32_t slot, std::uint32_t waitMs) {
    if (slot == 0 || slot >= SlotTable::kSlots) return;
    ZOR_LOCK_FUNCS(h_, 1042);
    ModuleSlot& s = h_.slots[slot];
    // No call may still run in the library, nor use the view, when they go.
    bool drained = true;
    if (s.module != nullptr) {
        drained = h_.caller.CloseSlot(slot, waitMs);
        if (drained) {
            os::module_free(s.module);
        } else {
            h_.log.wPrintf(kLogFault, u"ZOR: ISR '%s' did not return within %ld ms: module stays loaded\n\r",
                           s.name, AsLong(waitMs));
        }
        s.module = nullptr;
    }
    if (s.view != nullptr && drained) {
        h_.sysLocker.UnlockRange(reinterpret_cast<std::uintptr_t>(s.view));
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
    ModuleSlot& s = h_.slots[slot];
    if (!s.inUse.load(std::memory_order_acquire) || s.kind.load(std::memory_order_relaxed) != kKindIsr) return;

    h_.log.wPrintf(kLogTrace, u"ZOR: Unregistering ISR '%s'\n\r", s.name);
    h_.dispatcher.PauseISR(true);
    // The leaving module is detached from itself too.
    for (std::uint32_t t = 1; t < h_.slots.HighWater(); ++t) {
        const ModuleSlot& o = h_.slots[t];
        if (o.inUse.load(std::memory_order_acquire) && o.kind.load(std::memory_order_relaxed) == kKindIsr &&
            o.entry.load(std::memory_order_relaxed) != nullptr) {
            h_.caller.CallModule(t, ZOR_FN_DETACH, slot);
        }
    }
    h_.services.RemoveCustomServices(slot);
    if (const ZorGetSetProc entry = s.entry.load(std::memory_order_acquire)) {
        h_.sysLocker.UnlockModule(reinterpret_cast<const void*>(entry));
        h_.caller.CallModule(slot, ZOR_FN_SHUTDOWN, 0);
    }
    ReleaseModuleSlot(slot, waitMs);
    h_.slots.Free(slot);
    h_.dispatcher.InvalidateDispatchOrder();
    h_.dispatcher.PauseISR(false);
}

std::uint32_t Registry::UnregisterCommand(std::uint64_t number) {
    ZOR_LOCK_FUNCS(h_, 1229);
    for (std::uint32_t s = 1; s < h_.slots.HighWater(); ++s) {
        if (h_.slots[s].number.load(std::memory_order_relaxed) == number) {
            UnregisterISR(s);
            return 0;
        }
    }
    h_.log.wPrintf(kLogFault, u"ZOR: Unregistering ISR #%ld failed!\n\r", AsLong(number));
    return 0;
}

std::uint32_t Registry::FindModule(const char16_t* name) const {
    const std::uint32_t high = h_.slots.HighWater();
    for (std::uint32_t s = 1; s < high; ++s) {
        if (h_.slots[s].inUse.load(std::memory_order_acquire) && wicmp(h_.slots[s].name, name) == 0) {
            return s;
        }
    }
    return 0;
}

std::uint32_t Registry::ModuleInfo(std::uint64_t number) const {
    const std::uint32_t high = h_.slots.HighWater();
    for (std::uint32_t s = 1; s < high; ++s) {
        if (h_.slots[s].number.load(std::memory_order_relaxed) == number) return h_.slots[s].sharedSize;
    }
    return 0;
}

void Registry::RetryPendingStarts() {
    // Passes repeat while one starts something, so that modules that wait
    // for each other start in whatever order their dependencies appear.
    bool started = true;
    while (started) {
        started = false;
        for (std::uint32_t s = 1; s < h_.slots.HighWater(); ++s) {
            ModuleSlot& m = h_.slots[s];
            if (!m.inUse.load(std::memory_order_acquire) || !m.startPending.load(std::memory_order_relaxed)) {
                continue;
            }
            const std::uint64_t arg = m.kind.load(std::memory_order_relaxed) == kKindIsr
                                          ? reinterpret_cast<std::uintptr_t>(m.view)
                                          : 0;
            if (h_.caller.CallModule(s, ZOR_FN_INITIALIZE, arg) != ZOR_INIT_PENDING) {
                m.startPending.store(0, std::memory_order_relaxed);
                started = true;
            }
        }
    }
}

void Registry::PrepareTables() {
    for (std::uint32_t i = 0; i < SlotTable::kSlots; ++i) {
        ModuleSlot& s = h_.slots[i];
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
    ownImageLocked_ = h_.sysLocker.LockModule(OwnImageAddress()) != 0;
    stopwatches_[0] = h_.stopwatches.OpenStopWatch();
    stopwatches_[1] = h_.stopwatches.OpenStopWatch();
    h_.dispatcher.processorCount.store(os::processor_count(), std::memory_order_relaxed);
}

void Registry::UnloadAll(std::uint32_t waitMs) {
    for (std::uint32_t s = 1; s < h_.slots.HighWater(); ++s) {
        if (h_.slots[s].inUse.load(std::memory_order_acquire)) UnregisterISR(s, waitMs);
    }
    h_.irq.UnregisterIRQ(waitMs);
    h_.shm.ReleaseArea();
    if (ownImageLocked_) {
        h_.sysLocker.UnlockModule(OwnImageAddress());
        ownImageLocked_ = false;
    }
    for (std::uint32_t& id : stopwatches_) {
        if (id != 0) h_.stopwatches.CloseStopWatch(id);
        id = 0;
    }
    h_.services.ReportUnknownServiceCalls();
}

}  // namespace zor
