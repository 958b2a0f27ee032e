#include "control/services.h"

#include "dispatch/caller.h"
#include "control/custom_services.h"
#include "control/irq_driver.h"
#include "dispatch/dispatcher.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "modules/slot_use.h"
#include "pagelock/page_locker.h"
#include "support/log.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr char16_t kUnknownName[] = u"UNKNOWN";

std::uint32_t Low32(std::uintptr_t a) { return static_cast<std::uint32_t>(a); }
// A module number as the messages print it ("%ld" of its low 32 bits).
std::int32_t Printed(std::uintptr_t a) { return static_cast<std::int32_t>(a); }
std::int64_t AsInt(std::uint32_t r) { return static_cast<std::int32_t>(r); }

struct MemoryMessages {
    const char16_t* invalid;
    const char16_t* noLocker;
};

// "SERV_MemUnock" is the text the log readers know.
constexpr MemoryMessages kMemoryMessages[4] = {
    {u"ZOR: SERV_MemLock: invalid DLL handle! (%ld)\n\r",
     u"ZOR: SERV_MemLock: no PageLocker for DLL %ld found!\n\r"},
    {u"ZOR: SERV_MemUnlock: invalid DLL handle! (%ld)\n\r",
     u"ZOR: SERV_MemUnock: no PageLocker for DLL %ld found!\n\r"},
    {u"ZOR: SERV_ModuleLock: invalid DLL handle! (%ld)\n\r",
     u"ZOR: SERV_ModuleLock: no PageLocker for DLL %ld found!\n\r"},
    {u"ZOR: SERV_ModuleUnlock: invalid DLL handle! (%ld)\n\r",
     u"ZOR: SERV_ModuleUnlock: no PageLocker for DLL %ld found!\n\r"},
};

constexpr const char16_t* kSetPrioInvalid = u"ZOR: SERV_SetISRPrio: invalid DLL handle! (%ld)\n\r";

}  // namespace

std::int64_t Services::Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                            std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                            std::uintptr_t a6, const void* caller) {
    switch (code) {
    case SERV_MemLock:
    case SERV_MemUnlock:
    case SERV_ModuleLock:
    case SERV_ModuleUnlock:
        return MemoryService(code, a1, a2, a3);
    case SERV_GetIRQTime: {
        unsigned char* area = shm_.Area();
        if (area == nullptr) return 0;
        return std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(area))
            .load(std::memory_order_relaxed);
    }
    case SERV_ExecISRFunc:
        return ExecISRFunc(Low32(a1), Low32(a2), reinterpret_cast<const void*>(a3), Low32(a4),
                           Low32(a5));
    case SERV_InstallService:
        return custom_.InstallService(Low32(a1), Low32(a2), reinterpret_cast<ZorCustomService>(a3));
    case SERV_SetISRPrio:
        return SetISRPrio(a1, a2);
    case SERV_IRQQuery:
        return irq_.Query();
    case SERV_IsISRThread:
        return dispatcher_.IsDispatchThread() ? 1 : 0;
    case SERV_BlockISR:
        dispatcher_.BlockISR(Low32(a1), Low32(a2));
        return 0;
    case SERV_ISRBlocked:
        return dispatcher_.ISRBlocked(Low32(a1));
    case SERV_GetISRName:
        return GetISRName(a1);
    case SERV_GetCallContext:
        return caller_.GetThreadContext(os::current_thread_id());
    default:
        return custom_.Call(code, a1, a2, a3, a4, a5, a6, caller);
    }
}

// Services 1..4 go to the slot's own page locker, so that what a module
// locks is released with its slot. The use holds the locker against the
// slot's unloading; a slot being unloaded is no valid handle any more.
std::int64_t Services::MemoryService(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                     std::uintptr_t a3) {
    const MemoryMessages& m = kMemoryMessages[code - SERV_MemLock];
    const SlotUse use(slots_, Low32(a1));
    if (!use) {
        log_.wPrintf(kLogError, m.invalid, Printed(a1));
        return 0;
    }
    PageLocker* locker = use->locker;
    if (locker == nullptr) {
        log_.wPrintf(kLogError, m.noLocker, Printed(a1));
        return 0;
    }
    const void* address = reinterpret_cast<const void*>(a2);
    switch (code) {
    case SERV_MemLock: return AsInt(locker->LockRange(a2, Low32(a3)));
    case SERV_MemUnlock: return AsInt(locker->UnlockRange(a2));
    case SERV_ModuleLock: return AsInt(locker->LockModule(address));
    default: return AsInt(locker->UnlockModule(address));
    }
}

std::int64_t Services::SetISRPrio(std::uintptr_t a1, std::uintptr_t a2) {
    const SlotUse use(slots_, Low32(a1));
    if (!use) {
        log_.wPrintf(kLogError, kSetPrioInvalid, Printed(a1));
        return 1;
    }
    use->priority.store(Low32(a2), std::memory_order_relaxed);
    dispatcher_.InvalidateDispatchOrder();
    return 0;
}

// Shares the SERV_SetISRPrio message on purpose. The name stays in the
// table after the module goes; it is read only while the module is there.
std::int64_t Services::GetISRName(std::uintptr_t a1) {
    const SlotUse use(slots_, Low32(a1));
    if (!use) {
        log_.wPrintf(kLogError, kSetPrioInvalid, Printed(a1));
        return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(kUnknownName));
    }
    return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(use->name));
}

}  // namespace zor
