#include "module_check.h"

#include <chrono>
#include <memory>
#include <thread>

namespace zorctl {

namespace {

bool SlotUsed(const ZorStats& s, std::uint32_t n) {
    return s.slots[n].number == n && s.slots[n].kind == 2;
}

}  // namespace

ModuleKnown IsModuleRegistered(ZorConnection* c, std::uint32_t module) {
    if (module == 0 || module >= ZOR_STATS_SLOTS) return ModuleKnown::No;
    const ZorStats* area = nullptr;
    ZorView view{};
    if (zor_stats_map(zor_host_pid(c), &area, &view) != ZOR_OK) return ModuleKnown::CannotTell;
    std::unique_ptr<ZorStats> s(new ZorStats{});
    ModuleKnown known = ModuleKnown::CannotTell;
    if (zor_stats_copy(area, s.get()) == ZOR_OK) {
        known = SlotUsed(*s, module) ? ModuleKnown::Yes : ModuleKnown::CannotTell;
        // An empty slot may only be out of date: two more events mean one
        // started after this look, and each start rebuilds a stale table.
        const std::uint64_t first = s->ev.events;
        for (int i = 0; i < 50 && known == ModuleKnown::CannotTell; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(4));
            if (zor_stats_copy(area, s.get()) != ZOR_OK) break;
            if (s->ev.events >= first + 2) known = SlotUsed(*s, module) ? ModuleKnown::Yes : ModuleKnown::No;
        }
    }
    zor_unmap(&view);
    return known;
}

}  // namespace zorctl
