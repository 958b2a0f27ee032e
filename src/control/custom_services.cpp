// Services installed by modules, and the record of calls to codes that no
// module installed.
#include "control/custom_services.h"

#include <thread>

#include "dispatch/caller.h"
#include "modules/slot_table.h"
#include "modules/slot_use.h"
#include "support/log.h"

namespace zor {

std::uint32_t CustomServices::InstallService(std::uint32_t owner, std::uint32_t code,
                                       ZorCustomService fn) {
    if (owner >= SlotTable::kSlots) {
        log_.wPrintf(kLogFault, u"ZOR: Installing custom service %x failed: invalid owner #%u!\n\r",
                       code, owner);
        return 0xFFFFFFFF;
    }
    // Held while the entry is filled: an unloading either waits for it and
    // then removes the entry, or refuses it here.
    const SlotUse use(slots_[owner]);
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(fn));
    if (!use) {
        log_.wPrintf(kLogFault, u"ZOR: Installing custom service %x failed: invalid owner #%u!\n\r",
                       code, owner);
        return 0xFFFFFFFF;
    }
    CustomService* entry = nullptr;
    for (CustomService& c : custom_) {
        std::uint64_t expected = 0;
        if (c.word.load(std::memory_order_relaxed) == 0 &&
            c.word.compare_exchange_strong(expected, kClaimed, std::memory_order_acquire)) {
            entry = &c;
            break;
        }
    }
    // A user-mode code address leaves the owner's byte free.
    if (entry == nullptr || (address >> kOwnerShift) != 0) {
        if (entry != nullptr) entry->word.store(0, std::memory_order_release);
        log_.wPrintf(kLogFault, u"ZOR: Installing custom service failed!!\n\r");
        return 0xFFFFFFFF;
    }
    for (const CustomService& c : custom_) {
        const std::uint64_t w = c.word.load(std::memory_order_acquire);
        if (w > kClaimed && c.code.load(std::memory_order_relaxed) == code) {
            log_.wPrintf(kLogFault, u"ZOR: Duplicate custom service %x registration! (%s & %s)\n",
                           code, slots_[owner].name, slots_[OwnerOf(w)].name);
            break;
        }
    }
    entry->code.store(code, std::memory_order_relaxed);
    // Publishes the code; a null function leaves the entry free.
    entry->word.store(address ? address | (std::uint64_t{owner} << kOwnerShift) : 0,
                      std::memory_order_release);
    return 0;
}

// An entry filled again meanwhile (by another owner) is left alone.
void CustomServices::RemoveCustomServices(std::uint32_t owner) {
    for (CustomService& c : custom_) {
        std::uint64_t w = c.word.load(std::memory_order_acquire);
        if (w > kClaimed && OwnerOf(w) == owner)
            c.word.compare_exchange_strong(w, 0, std::memory_order_acq_rel);
    }
}

std::int64_t CustomServices::Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                       std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                                       std::uintptr_t a6, const void* caller) {
    // With duplicates the lower table position wins. The call holds its
    // owner's slot, so that the owner's library stays loaded under it; a
    // service of a module being unloaded is already gone.
    for (const CustomService& c : custom_) {
        const std::uint64_t w = c.word.load(std::memory_order_acquire);
        if (w <= kClaimed || c.code.load(std::memory_order_relaxed) != code) continue;
        const SlotUse use(slots_[OwnerOf(w)]);
        // Read again under the use: the entry may have been removed, and its
        // owner's slot taken by another module, before the use began. A
        // module's entries are removed after its unloading has waited.
        if (!use || c.word.load(std::memory_order_acquire) != w) continue;
        return FunctionOf(w)(code, a1, a2, a3, a4, a5, a6);
    }
    CountUnknown(code, caller);
    return 0;
}

// Recorded per (code, caller) from entry 0 upward; logged at the first call
// and at every 16384th.
void CustomServices::CountUnknown(std::uint32_t code, const void* caller) {
    const auto low = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(caller));
    for (UnknownCall& u : unknown_) {
        std::uint32_t state = u.state.load(std::memory_order_acquire);
        if (state == 0 && u.state.compare_exchange_strong(state, 1, std::memory_order_acquire)) {
            u.code = code;
            u.caller = low;
            ModuleNameOfAddress(caller, u.name, kNameUnits);
            u.count.store(1, std::memory_order_relaxed);
            u.state.store(2, std::memory_order_release);
            log_.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called  by %s\n", code, u.name);
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
                log_.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called %d times by %s\n",
                               code, static_cast<int>(n), u.name);
            return;
        }
    }
    char16_t name[kNameUnits];
    ModuleNameOfAddress(caller, name, kNameUnits);
    log_.wPrintf(kLogUnknownCall, u"ZOR: Unknown service call (%08x) called  by %s\n", code, name);
}

void CustomServices::ReportUnknownServiceCalls() {
    if (unknown_[0].state.load(std::memory_order_acquire) != 2) return;
    Logger& log = log_;
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
