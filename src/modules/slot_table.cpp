// Allocation, release and checking of module slots.
#include "modules/slot_table.h"

namespace zor {

std::uint32_t SlotTable::Alloc() {
    for (std::uint32_t i = 1; i < kSlots; ++i) {
        ModuleSlot& s = slots_[i];
        if (s.inUse.load(std::memory_order_acquire) != 0) continue;
        s.startPending.store(0, std::memory_order_relaxed);
        s.blocked.store(0, std::memory_order_relaxed);
        s.busy.store(0, std::memory_order_relaxed);
        s.calls.fetch_and(~ModuleSlot::kClosing, std::memory_order_acq_rel);
        s.module = nullptr;
        s.mapping = 0;
        s.view = nullptr;
        s.entry.store(nullptr, std::memory_order_relaxed);
        s.locker = nullptr;
        s.irqThread = 0;
        s.priority.store(1, std::memory_order_relaxed);
        if (i >= highWater_.load(std::memory_order_relaxed)) {
            highWater_.store(i + 1, std::memory_order_release);
        }
        return i;
    }
    return 0;
}

std::uint32_t SlotTable::Free(std::uint32_t slot) {
    if (slot >= kSlots) return 1;
    if (slots_[slot].inUse.load(std::memory_order_acquire) == 0) return 2;
    slots_[slot].inUse.store(0, std::memory_order_release);
    std::uint32_t high = 0;
    for (std::uint32_t i = kSlots - 1; i >= 1; --i) {
        if (slots_[i].inUse.load(std::memory_order_acquire) != 0) {
            high = i + 1;
            break;
        }
    }
    highWater_.store(high, std::memory_order_release);
    return 0;
}

std::uint32_t SlotTable::Check(std::uint64_t number) const {
    if (number >= kSlots) return 0;
    const auto n = static_cast<std::uint32_t>(number);
    return slots_[n].inUse.load(std::memory_order_acquire) != 0 ? n : 0;
}

}  // namespace zor
