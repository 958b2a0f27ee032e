// The statistics area's creation, its header, the slot table and the end of
// an event. The per-call hooks are inline in stats.h.
#include "dispatch/stats.h"

#include <cstring>

#include "modules/slot_table.h"
#include "support/log.h"
#include "support/wformat.h"
#include "support/wstr.h"
#include "zor/zor_version.h"

namespace zor {

using namespace stats_detail;

namespace {
// UTF-16 text into a field of the area, unit by unit (readers may be
// copying it at the same time), always terminated.
void PutText(std::uint16_t* dst, std::size_t cap, const char16_t* src) {
    std::size_t i = 0;
    for (; src && src[i] && i + 1 < cap; ++i) Put(dst[i], static_cast<std::uint16_t>(src[i]));
    for (; i < cap; ++i) Put(dst[i], std::uint16_t{0});
}
bool SameText(std::uint16_t* a, const char16_t* b, std::size_t cap) {
    for (std::size_t i = 0; i < cap; ++i) {
        if (Get(a[i]) != static_cast<std::uint16_t>(b[i])) return false;
        if (b[i] == 0) return true;
    }
    return true;
}
}  // namespace

bool StatsArea::Publish() {
    if (Area()) return true;
    wformat(name_, 40, u"Local\\ZOR.stats.%u", static_cast<unsigned>(os::current_process_id()));
    char16_t shown[64];
    os::mapping_display_name(name_, shown, 64);
    bool existed = false;
    os::Handle h = os::mapping_create_named(name_, sizeof(ZorStats), &existed);
    if (h == 0 && existed && os::mapping_name_left_by_us(name_)) {
        // A host of this user with this process id was killed: its area is stale.
        log_.wPrintf(kLogError, u"ZOR: statistics area '%s' left by an ended host of this user; replacing it\n\r",
                     shown);
        os::mapping_remove_name(name_);
        h = os::mapping_create_named(name_, sizeof(ZorStats), &existed);
    }
    if (h == 0) {
        if (existed) {
            log_.wPrintf(kLogError, u"ZOR: statistics area '%s' already exists, not ours to use! Running without it.\n\r", shown);
        } else {
            log_.wPrintf(kLogError, u"ZOR: statistics area '%s' not created (%08x)! Running without it.\n\r", shown,
                           static_cast<unsigned>(os::last_error()));
        }
        return false;
    }
    void* view = os::mapping_map(h, sizeof(ZorStats));
    if (view == nullptr) {
        log_.wPrintf(kLogError, u"ZOR: statistics area '%s' not mapped (%08x)! Running without it.\n\r", shown,
                       static_cast<unsigned>(os::last_error()));
        os::handle_close(h);
        os::mapping_remove_name(name_);
        return false;
    }
    mapping_ = h;
    auto* a = static_cast<ZorStats*>(view);
    std::memset(a, 0, sizeof *a);  // nobody can have it open before the magic is set
    a->layout = ZOR_STATS_LAYOUT;
    a->size = sizeof(ZorStats);
    a->host_pid = os::current_process_id();
    a->version_major = ZOR_VERSION_MAJOR;
    a->version_minor = ZOR_VERSION_MINOR;
    a->version_patch = ZOR_VERSION_PATCH;
    a->start_ms = static_cast<std::uint64_t>(os::wall_ms());
    a->info.irq_priority = 0xFFFFFFFFu;
    char16_t path[260];
    utf8_to_utf16(log_.FilePath(), path, 260);
    PutText(a->info.log_file, 260, path);
    std::atomic_ref<std::uint32_t>(a->magic).store(ZOR_STATS_MAGIC, std::memory_order_release);
    area_.store(a, std::memory_order_release);
    log_.wPrintf(kLogTrace, u"ZOR: statistics in '%s' (%u bytes, read-only for others)\n\r", shown,
                   static_cast<unsigned>(sizeof(ZorStats)));
    return true;
}

void StatsArea::Release() {
    ZorStats* a = area_.exchange(nullptr, std::memory_order_acq_rel);
    if (a == nullptr) return;
    os::mapping_unmap(a, sizeof(ZorStats));
    os::handle_close(mapping_);
    mapping_ = 0;
    os::mapping_remove_name(name_);
}

void StatsArea::SetDriver(const char16_t* name, std::uint32_t stage) {
    ZorStats* a = Area();
    if (!a) return;
    Begin(a->info_seq);
    PutText(a->info.irq_driver, 20, name);
    Put(a->info.irq_priority, stage);
    End(a->info_seq);
}

// A slot that now holds another module (or none) starts its figures afresh.
void StatsArea::PublishTable() {
    ZorStats* a = Area();
    if (!a) return;
    const std::uint32_t high = slots_.HighWater();
    for (std::uint32_t i = 1; i < ZOR_STATS_SLOTS; ++i) {
        const ModuleSlot& m = slots_[i];
        const bool used = i < high && m.inUse.load(std::memory_order_acquire) != 0;
        ZorStatsSlot& s = a->slots[i];
        const std::uint32_t number = used ? i : 0;
        const bool same = Get(s.number) == number && (!used || SameText(s.name, m.name, 20));
        const std::uint32_t kind = used ? m.kind.load(std::memory_order_relaxed) : 0;
        const std::uint32_t prio = used ? m.priority.load(std::memory_order_relaxed) : 0;
        const std::uint32_t blocked = used ? m.blocked.load(std::memory_order_relaxed) : 0;
        Put(s.blocked, blocked);
        if (same && Get(s.kind) == kind && Get(s.priority) == prio) continue;
        Begin(s.seq);
        Put(s.number, number);
        Put(s.kind, kind);
        Put(s.priority, prio);
        if (!same) {
            PutText(s.name, 20, used ? m.name : u"");
            PutText(s.fault_module, 40, u"");
            Put(s.calls, std::uint64_t{0});
            Put(s.faults, std::uint64_t{0});
            Put(s.slow_calls, std::uint64_t{0});
            for (std::uint64_t& c : s.call.count) Put(c, std::uint64_t{0});
        }
        End(s.seq);
    }
    std::atomic_ref<std::uint32_t>(a->generation).fetch_add(1, std::memory_order_release);
}

void StatsArea::OnEventEnd(double totalMs) {
    ZorStats* a = Area();
    if (!a) {
        pending_ = 0;
        return;
    }
    CountPending(a);
    ZorStatsEvents& ev = a->ev;
    Begin(ev.seq);
    if (wakePending_) Count(ev.wakeup, wakeMs_);
    wakePending_ = false;
    Bump(ev.events);
    const std::uint32_t sequence = Get(ev.sequence);
    if (dispatched_ && sequence != lastSequence_ + 1) Bump(ev.sequence_gaps);
    Count(ev.event, totalMs);
    Put(ev.event_ms, totalMs);
    if ((Get(ev.events) & 63) == 1) Put(ev.log_dropped, log_.Dropped());
    End(ev.seq);
    dispatched_ = true;
    lastSequence_ = sequence;
}

void StatsArea::OnIsrFault(std::uint32_t slot, const char16_t* module) {
    ZorStats* a = Area();
    if (!a) return;
    ZorStatsSlot& s = a->slots[slot];
    Begin(s.seq);
    Bump(s.faults);
    PutText(s.fault_module, 40, module);
    End(s.seq);
}

}  // namespace zor
