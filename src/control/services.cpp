#include "control/services.h"

#include <thread>

#include "dispatch/caller.h"
#include "host/host.h"
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
        unsigned char* area = h_.shm.Area();
        if (area == nullptr) return 0;
        return std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(area))
            .load(std::memory_order_relaxed);
    }
    case SERV_ExecISRFunc:
        return ExecISRFunc(Low32(a1), Low32(a2), reinterpret_cast<const void*>(a3), Low32(a4),
                           Low32(a5));
    case SERV_InstallService:
        return InstallService(Low32(a1), Low32(a2), reinterpret_cast<ZorCustomService>(a3));
    case SERV_SetISRPrio:
        return SetISRPrio(a1, a2);
    case SERV_IRQQuery:
        return h_.irq.Query();
    case SERV_IsISRThread:
        return h_.dispatcher.IsDispatchThread() ? 1 : 0;
    case SERV_BlockISR:
        h_.dispatcher.BlockISR(Low32(a1), Low32(a2));
        return 0;
    case SERV_ISRBlocked:
        return h_.dispatcher.ISRBlocked(Low32(a1));
    case SERV_GetISRName:
        return GetISRName(a1);
    case SERV_GetCallContext:
        return h_.caller.GetThreadContext(os::current_thread_id());
    default:
        return CustomOrUnknown(code, a1, a2, a3, a4, a5, a6, caller);
    }
}

// Services 1..4 go to the slot's own page locker, so that what a module
// locks is released with its slot.
std::int64_t Services::MemoryService(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                     std::uintptr_t a3) {
    const MemoryMessages& m = kMemoryMessages[code - SERV_MemLock];
    const std::uint32_t slot = h_.slots.Check(Low32(a1));
    if (slot == 0) {
        h_.log.wPrintf(kLogError, m.invalid, Printed(a1));
        return 0;
    }
    PageLocker* locker = h_.slots[slot].locker;
    if (locker == nullptr) {
        h_.log.wPrintf(kLogError, m.noLocker, Printed(a1));
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
    const std::uint32_t slot = h_.slots.Check(Low32(a1));
    if (slot == 0) {
        h_.log.wPrintf(kLogError, kSetPrioInvalid, Printed(a1));
        return 1;
    }
    h_.slots[slot].priority.store(Low32(a2), std::memory_order_relaxed);
    h_.dispatcher.InvalidateDispatchOrder();
    return 0;
}

// Shares the SERV_SetISRPrio message on purpose.
std::int64_t Services::GetISRName(std::uintptr_t a1) {
    const std::uint32_t slot = h_.slots.Check(Low32(a1));
    if (slot == 0) {
        h_.log.wPrintf(kLogError, kSetPrioInvalid, Printed(a1));
        return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(kUnknownName));
    }
    return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(h_.slots[slot].name));
}

std::uint32_t Services::InstallService(std::uint32_t owner, std::uint32_t code,
                                       ZorCustomService fn) {
    if (owner >= SlotTable::kSlots) {
        h_.log.wPrintf(kLogFault, u"ZOR: Installing custom service %x failed: invalid owner #%u!\n\r",
                       code, owner);
        return 0xFFFFFFFF;
    }
    CustomService* entry = nullptr;
    for (CustomService& c : custom_) {
        std::uintptr_t expected = 0;
        if (c.fn.load(std::memory_order_relaxed) == 0 &&
            c.fn.compare_exchange_strong(expected, kClaimed, std::memory_order_acquire)) {
            entry = &c;
            break;
        }
    }
    if (entry == nullptr) {
        h_.log.wPrintf(kLogFault, u"ZOR: Installing custom service failed!!\n\r");
        return 0xFFFFFFFF;
    }
    for (const CustomService& c : custom_) {
        if (c.fn.load(std::memory_order_acquire) > kClaimed &&
            c.code.load(std::memory_order_relaxed) == code) {
            const std::uint32_t other = c.owner.load(std::memory_order_relaxed);
            h_.log.wPrintf(kLogFault, u"ZOR: Duplicate custom service %x registration! (%s & %s)\n",
                           code, h_.slots[owner].name, h_.slots[other].name);
            break;
        }
    }
    entry->owner.store(owner, std::memory_order_relaxed);
    entry->code.store(code, std::memory_order_relaxed);
    // Publishes owner and code; a null function leaves the entry free.
    entry->fn.store(reinterpret_cast<std::uintptr_t>(fn), std::memory_order_release);
    return 0;
}

void Services::RemoveCustomServices(std::uint32_t owner) {
    for (CustomService& c : custom_) {
        if (c.fn.load(std::memory_order_acquire) > kClaimed &&
            c.owner.load(std::memory_order_relaxed) == owner) {
            c.owner.store(0, std::memory_order_relaxed);
            c.code.store(0, std::memory_order_relaxed);
            c.fn.store(0, std::memory_order_release);
        }
    }
}

std::int64_t Services::CustomOrUnknown(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                       std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                                       std::uintptr_t a6, const void* caller) {
    // With duplicates the lower table position wins.
    for (const CustomService& c : custom_) {
        const std::uintptr_t fn = c.fn.load(std::memory_order_acquire);
        if (fn > kClaimed && c.code.load(std::memory_order_relaxed) == code)
            return reinterpret_cast<ZorCustomService>(fn)(code, a1, a2, a3, a4, a5, a6);
    }
    CountUnknown(code, caller);
    return 0;
}

// Recorded per (code, caller) from entry 0 upward; logged at the first call
// and at every 16384th.
void Services::CountUnknown(std::uint32_t code, const void* caller) {
    const auto low = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(caller));
    for (UnknownCall& u : unknown_) {
        std::uint32_t state = u.state.load(std::memory_order_acquire);
        if (state == 0 && u.state.compare_exchange_strong(state, 1, std::memory_order_acquire)) {
            u.code = code;
            u.caller = low;
            ModuleNameOfAddress(caller, u.name, kNameUnits);
            u.count.store(1, std::memory_order_relaxed);
            u.state.store(2, std::memory_order_release);
            h_.log.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called  by %s\n", code, u.name);
            return;
        }
        // Another thread is filling this entry: its name lookup is short.
        while (state == 1) {
            std::this_thread::yield();
            state = u.state.load(std::memory_order_acquire);
        }
        if (u.code == code && u.caller == low) {
            const std::uint32_t n = u.count.fetch_add(1, std::memory_order_relaxed) + 1;
            if ((n & 0x3FFF) == 0)
                h_.log.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called %d times by %s\n",
                               code, static_cast<int>(n), u.name);
            return;
        }
    }
    char16_t name[kNameUnits];
    ModuleNameOfAddress(caller, name, kNameUnits);
    h_.log.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called  by %s\n", code, name);
}

void Services::ReportUnknownServiceCalls() {
    if (unknown_[0].state.load(std::memory_order_acquire) != 2) return;
    Logger& log = h_.log;
    log.wPrintf(kLogUnknownCall, u"ZOR: List of unknown service calls\n");
    log.wPrintf(kLogUnknownCall, u"ZOR: ----------------------------------------------\n");
    log.wPrintf(kLogUnknownCall, u"ZOR: - Func      - # Called - Caller              -\n");
    log.wPrintf(kLogUnknownCall, u"ZOR: ----------------------------------------------\n");
    for (const UnknownCall& u : unknown_) {
        if (u.state.load(std::memory_order_acquire) != 2) break;
        log.wPrintf(kLogUnknownCall, u"ZOR: - %08x - %8d - %20s -\n", u.code,
                    static_cast<int>(u.count.load(std::memory_order_relaxed)), u.name);
    }
    log.wPrintf(kLogUnknownCall, u"ZOR: ----------------------------------------------\n");
}

}  // namespace zor
