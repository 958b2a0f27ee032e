// A use of a slot by a service: the module's code (a custom service) or the
// slot's state (its page locker, its name) stays valid while it lasts,
// because unloading waits for the slot's in-flight count, which the use holds.
// A use is refused once the slot's unloading has begun.
//
// Unlike a guarded call, a use is not seen as the calling thread's own when
// that thread unloads the slot from inside it: such an unloading waits its
// bound and leaves the module loaded.
#pragma once

#include <cstdint>

#include "modules/slot_table.h"

namespace zor {

class SlotUse {
public:
    // Any slot, in use or not yet (an IRQ driver installs services before
    // its registration ends).
    explicit SlotUse(ModuleSlot& slot) : slot_(slot.EnterCall() ? &slot : nullptr) {}
    // A registered module by its number: refused when the number names no
    // slot in use. The check follows the entry, so that a slot freed and
    // taken again meanwhile is seen as it is now.
    SlotUse(SlotTable& slots, std::uint64_t number) {
        if (number == 0 || number >= SlotTable::kSlots) return;
        ModuleSlot& s = slots[static_cast<std::uint32_t>(number)];
        if (!s.EnterCall()) return;
        if (s.inUse.load(std::memory_order_acquire)) {
            slot_ = &s;
            number_ = static_cast<std::uint32_t>(number);
        } else {
            s.LeaveCall();
        }
    }
    ~SlotUse() {
        if (slot_) slot_->LeaveCall();
    }
    SlotUse(const SlotUse&) = delete;
    SlotUse& operator=(const SlotUse&) = delete;

    explicit operator bool() const { return slot_ != nullptr; }
    // The module number of a held registered slot, else 0.
    std::uint32_t Number() const { return number_; }
    ModuleSlot* operator->() const { return slot_; }

private:
    ModuleSlot* slot_ = nullptr;
    std::uint32_t number_ = 0;
};

}  // namespace zor
