// The statistics area: live figures that any process may read (layout in
// zor/zor_stats.h). The host is its only writer; every figure of the event
// path is a single-writer word of the dispatch thread, updated with plain
// loads and stores inside a per-record sequence word, so the hooks below
// cost a few plain instructions: no lock, no allocation, no system call.
// Without an area (not published, or its name was taken) every hook is one
// test of a null pointer.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_stats.h"

namespace zor {

class Logger;
class SlotTable;

// Stores are release (a plain mov on x86-64): none moves above the odd
// sequence word stored before it, so no fence is needed. Readers load with
// acquire, word by word (zor_stats_copy).
namespace stats_detail {
template <class T>
inline void Put(T& w, T v) { std::atomic_ref<T>(w).store(v, std::memory_order_release); }
template <class T>
inline T Get(T& w) { return std::atomic_ref<T>(w).load(std::memory_order_relaxed); }
inline void Bump(std::uint64_t& w) { Put(w, Get(w) + 1); }
inline void Begin(std::uint32_t& seq) { Put(seq, Get(seq) + 1); }
inline void End(std::uint32_t& seq) { Put(seq, Get(seq) + 1); }
// zor_stats_bucket_of_ns without the integer conversion: a double's
// exponent and its top three mantissa bits are the octave and the eighth of
// it. The sign is dropped (durations are not negative).
inline std::uint32_t BucketOfMs(double ms) {
    std::uint64_t bits;
    const double ns = ms * 1e6;
    __builtin_memcpy(&bits, &ns, sizeof bits);
    const std::int64_t i = static_cast<std::int64_t>((bits << 1) >> 50) - ((1023 + 4) << 3) + 1;
    return i < 1 ? 0 : i >= ZOR_STATS_BUCKETS ? ZOR_STATS_BUCKETS - 1 : static_cast<std::uint32_t>(i);
}
inline void Count(ZorStatsHistogram& h, double ms) { Bump(h.count[BucketOfMs(ms)]); }
}  // namespace stats_detail

class StatsArea {
public:
    StatsArea(Logger& log, const SlotTable& slots) : log_(log), slots_(slots) {}
    ~StatsArea() { Release(); }
    StatsArea(const StatsArea&) = delete;
    StatsArea& operator=(const StatsArea&) = delete;

    // Creates the area "Local\ZOR.stats.<pid>" and fills its header. A name
    // left by a killed host of this user (Linux) is replaced, with a log
    // line; any other that already exists is refused and logged, and the
    // host then runs without the area (false).
    bool Publish();
    void Release();
    ZorStats* Area() const { return area_.load(std::memory_order_acquire); }

    // Written on the window thread when the IRQ driver has been selected.
    void SetDriver(const char16_t* name, std::uint32_t stage);
    // The slot table as it now is (numbers, names, kinds, priorities); on
    // the dispatch thread, whenever the dispatch order is rebuilt.
    void PublishTable();

    // Dispatch thread, every event, paused or not. The interval's bucket is
    // counted later (see OnIsrCall).
    void OnWake(double intervalMs, std::uint32_t sequence) {
        using namespace stats_detail;
        ZorStats* a = Area();
        if (!a) return;
        Begin(a->ev.seq);
        Put(a->ev.sequence, sequence);
        Put(a->ev.interval_ms, intervalMs);
        End(a->ev.seq);
        // The first interval runs from the clock's origin: not an interval.
        wakePending_ = woken_;
        wakeMs_ = intervalMs;
        woken_ = true;
    }
    void OnPaused() {
        if (ZorStats* a = Area()) {
            stats_detail::Bump(a->ev.paused_events);
            CountWake(a);
        }
    }
    // Dispatch thread, at the end of every dispatched event.
    void OnEventEnd(double totalMs);
    // One completed Interrupt call of `slot`. The dispatch loop's calls
    // (inEvent) are counted at the end of the event: a histogram bucket is
    // an address computed from a clock reading, and the next call's clock
    // read waits until every earlier load is done, so a bucket updated
    // between calls puts that whole chain on the path once per ISR. Counted
    // together after the last reading, the updates overlap.
    void OnIsrCall(std::uint32_t slot, double ms, bool inEvent) {
        ZorStats* a = Area();
        if (!a) return;
        if (!inEvent) return CountCall(a, slot, ms);
        if (pending_ == ZOR_STATS_SLOTS) CountPending(a);
        pendingSlot_[pending_] = slot;
        pendingMs_[pending_++] = ms;
    }
    // Any thread: SERV_BlockISR changed a slot's flag.
    void OnBlocked(std::uint32_t slot, std::uint32_t blocked) {
        if (ZorStats* a = Area()) stats_detail::Put(a->slots[slot].blocked, blocked);
    }
    // Dispatch thread: the watchdog aborted a call of `slot`.
    void OnIsrAbort(std::uint32_t slot) {
        using namespace stats_detail;
        ZorStats* a = Area();
        if (!a) return;
        Begin(a->slots[slot].seq);
        Bump(a->slots[slot].aborted);
        End(a->slots[slot].seq);
    }
    // Watchdog thread: a call of `slot` could not be aborted (1), or came back (0).
    void OnIsrStuck(std::uint32_t slot, std::uint32_t stuck) {
        if (ZorStats* a = Area()) stats_detail::Put(a->slots[slot].stuck, stuck);
    }
    // Dispatch thread: a fault caught in an Interrupt call.
    void OnIsrFault(std::uint32_t slot, const char16_t* module);
    void OnTdlEntryRun() {
        if (ZorStats* a = Area()) stats_detail::Bump(a->ev.tdl_entries_run);
    }
    void OnTdlSkipped() {
        if (ZorStats* a = Area()) stats_detail::Bump(a->ev.tdl_skipped);
    }
    // Any thread: a completed ExecISRFunc call.
    void OnExecCall() {
        if (ZorStats* a = Area())
            std::atomic_ref<std::uint64_t>(a->exec_calls).fetch_add(1, std::memory_order_relaxed);
    }

private:
    static void CountCall(ZorStats* a, std::uint32_t slot, double ms) {
        using namespace stats_detail;
        ZorStatsSlot& s = a->slots[slot];
        Begin(s.seq);
        Bump(s.calls);
        Count(s.call, ms);
        if (ms > ZOR_STATS_SLOW_MS) Bump(s.slow_calls);
        End(s.seq);
    }
    void CountPending(ZorStats* a) {
        for (std::uint32_t i = 0; i < pending_; ++i) CountCall(a, pendingSlot_[i], pendingMs_[i]);
        pending_ = 0;
    }
    void CountWake(ZorStats* a) {
        if (!wakePending_) return;
        stats_detail::Begin(a->ev.seq);
        stats_detail::Count(a->ev.wakeup, wakeMs_);
        stats_detail::End(a->ev.seq);
        wakePending_ = false;
    }

    Logger& log_;
    const SlotTable& slots_;
    std::atomic<ZorStats*> area_{nullptr};
    os::Handle mapping_ = 0;
    char16_t name_[40] = {};
    // Dispatch thread only.
    bool woken_ = false;
    bool dispatched_ = false;
    std::uint32_t lastSequence_ = 0;
    bool wakePending_ = false;
    double wakeMs_ = 0;
    std::uint32_t pending_ = 0;
    std::uint32_t pendingSlot_[ZOR_STATS_SLOTS] = {};
    double pendingMs_[ZOR_STATS_SLOTS] = {};
};

}  // namespace zor
