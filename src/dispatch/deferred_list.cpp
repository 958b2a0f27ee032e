// The deferred list: requests queued in the system shared area by other
// threads and processes, run on the dispatch thread at the start of every
// dispatched event. Walked in place, without copy, allocation or lock; the
// only synchronisation is the SyncTDL word, which this side never waits for.
//
// The queue's words are written by client processes, so nothing in them is
// trusted: positions are bounded by the size the host mapped, an entry that
// would run past the queue ends the pass like an invalid module number does,
// and a result index outside the 1024 slots is not written.
#include "dispatch/deferred_list.h"

#include <cstring>

#include "dispatch/caller.h"
#include "dispatch/stats.h"
#include "modules/deferred_list_writer.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {

void DeferredList::RunEntries(unsigned char* area, std::uint32_t areaSize) {
    unsigned char* queue = area + ZOR_SSA_QUEUE;
    const std::uint32_t queueBytes = areaSize - ZOR_SSA_QUEUE;
    auto count = TdlWord(area, ZOR_SSA_ENTRY_COUNT);
    std::uint32_t p = 0;  // always <= queueBytes
    // The count is read afresh after every executed entry; every executed
    // entry advances p by at least 24, so the walk ends within the queue.
    for (std::uint32_t i = 0; i < count.load(std::memory_order_relaxed); ++i) {
        ZorTdlEntry e;
        if (queueBytes - p < kTdlEntryHeader) {
            log_.wPrintf(kLogError, u"ZOR: DoTDL: entry %u at queue offset %u runs past the queue (%u bytes)! Rest of the list dropped.\n\r",
                          i, p, queueBytes);
            return;
        }
        std::memcpy(&e, queue + p, sizeof e);
        if (e.size > queueBytes - p - kTdlEntryHeader) {
            log_.wPrintf(kLogError, u"ZOR: DoTDL: entry %u at queue offset %u runs past the queue (%u bytes)! Rest of the list dropped.\n\r",
                          i, p, queueBytes);
            return;
        }
        // An invalid module number drops this entry and every one behind it.
        const std::uint32_t slot = slots_.Check(e.isr_handle);
        if (slot == 0) return;
        const std::uint32_t r = caller_.CallModule(
            slot, ZOR_FN_EXEC_ISR_FUNC,
            reinterpret_cast<std::uintptr_t>(queue + p + offsetof(ZorTdlEntry, func)),
            Caller::kFlagTdl, e.context);
        if (e.result_index >= ZOR_SSA_RESULT_SLOTS) {
            log_.wPrintf(kLogError, u"ZOR: DoTDL: result index %u of ISR #%u out of range! Result dropped.\n\r",
                          e.result_index, slot);
        } else if (e.result_index != 0) {
            TdlWord(area, ZOR_SSA_RESULTS + 4 * e.result_index).store(r, std::memory_order_relaxed);
        }
        stats_.OnTdlEntryRun();
        p += kTdlEntryHeader + e.size;
    }
}

void DeferredList::Run() {
    unsigned char* area = shm_.Area();
    const std::uint32_t areaSize = shm_.AreaSize();
    if (!TdlAreaUsable(area, areaSize)) return;
    auto sync = TdlWord(area, ZOR_SSA_SYNC_TDL);
    if (sync.exchange(1, std::memory_order_acquire) != 0) {
        stats_.OnTdlSkipped();
        log_.wPrintf(kLogTrace, u"ZOR: DoTDL skipps due to SyncTDL=1\n");
        return;
    }
    if (TdlWord(area, ZOR_SSA_ENTRY_COUNT).load(std::memory_order_relaxed) != 0)
        RunEntries(area, areaSize);
    // Bytes used is cleared after an empty run too, so that a stray value
    // written by a client cannot keep writers out for good.
    TdlWord(area, ZOR_SSA_ENTRY_COUNT).store(0, std::memory_order_relaxed);
    TdlWord(area, ZOR_SSA_BYTES_USED).store(0, std::memory_order_relaxed);
    // The result words are visible before the counter moves. A waiter
    // counts itself a sleeper before it sleeps and looks at the counter
    // after that, so either it sees the new count or this sees it: the
    // wake is a system call only while somebody sleeps. The wake clears the
    // count, so that events that come before the woken waiter has run do
    // not wake it again.
    TdlWord(area, ZOR_SSA_RUN_COUNTER).fetch_add(1, std::memory_order_seq_cst);
    auto sleepers = TdlWord(area, ZOR_SSA_SLEEPERS);
    if (sleepers.load(std::memory_order_seq_cst) != 0 && sleepers.exchange(0, std::memory_order_seq_cst) != 0)
        os::word_wake_all(reinterpret_cast<std::uint32_t*>(area + ZOR_SSA_RUN_COUNTER));
    sync.store(0, std::memory_order_release);
}

}  // namespace zor
