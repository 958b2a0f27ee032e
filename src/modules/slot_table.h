// The module slot table: 100 records shared by the IRQ driver (kind 1) and
// the ISR modules (kind 2). Slot 0 is never used; the slot index is the
// module number everywhere.
//
// Words read by the dispatch thread while another thread writes them are
// atomics. Publishing stores use release and readers acquire: on x86-64 that
// is the same plain mov as a relaxed access, and it orders the slot's other
// fields (name, locker, view) written before the flag.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "support/statistic.h"
#include "zor/zor_module.h"

namespace zor {

class PageLocker;

enum SlotKind : std::uint32_t { kKindNone = 0, kKindIrq = 1, kKindIsr = 2 };

struct ModuleSlot {
    std::atomic<std::uint32_t> inUse{0};
    std::atomic<std::uint32_t> number{0};
    std::atomic<std::uint32_t> kind{0};
    std::atomic<std::uint32_t> priority{0};
    char16_t name[20] = {};
    os::Module module = nullptr;
    os::Handle mapping = 0;
    void* view = nullptr;
    std::uint32_t sharedSize = 0;
    std::atomic<ZorGetSetProc> entry{nullptr};
    PageLocker* locker = nullptr;
    std::uint64_t irqThread = 0;
    std::atomic<std::uint32_t> startPending{0};
    std::atomic<std::uint32_t> blocked{0};
    std::atomic<std::uint32_t> busy{0};  // InInterrupt
    // Calls in flight (CallModule enters and leaves it; the dispatch loop's
    // calls are covered by their event instead) and, in the top bit,
    // kClosing: set while the slot's module is being unloaded, so that no
    // new call goes in. Alloc clears the bit and keeps the count.
    static constexpr std::uint32_t kClosing = 0x80000000u;
    std::atomic<std::uint32_t> calls{0};
    // Entering the count and seeing the closing bit are one operation, so an
    // unloading thread either sees this use or this use sees the bit.
    bool EnterCall() {
        if (!(calls.fetch_add(1, std::memory_order_acq_rel) & kClosing)) return true;
        calls.fetch_sub(1, std::memory_order_release);
        return false;
    }
    void LeaveCall() { calls.fetch_sub(1, std::memory_order_release); }
    CStatistic interruptStat;
    CStatistic execStat;
};

class SlotTable {
public:
    static constexpr std::uint32_t kSlots = 100;

    ModuleSlot& operator[](std::uint32_t i) { return slots_[i]; }
    const ModuleSlot& operator[](std::uint32_t i) const { return slots_[i]; }
    std::uint32_t HighWater() const { return highWater_.load(std::memory_order_acquire); }

    // AllocModuleSlot: first slot 1..99 not in use, fields cleared, priority
    // 1, high-water raised. 0 when all 99 are in use.
    std::uint32_t Alloc();
    // FreeModuleSlot: 0 done, 1 slot >= 100, 2 not in use.
    std::uint32_t Free(std::uint32_t slot);
    // The slot check: the number when below 100 and in use, else 0.
    std::uint32_t Check(std::uint64_t number) const;

private:
    ModuleSlot slots_[kSlots];
    std::atomic<std::uint32_t> highWater_{0};
};

}  // namespace zor
