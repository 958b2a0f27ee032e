#include "modules/deferred_list_writer.h"

#include <cstring>
#include <thread>

#include "os/os.h"

namespace zor {

namespace {

constexpr std::uint32_t kSpinsBeforeYield = 64;

std::atomic_ref<std::uint8_t> FlagByte(unsigned char* area, std::uint32_t slot) {
    return std::atomic_ref<std::uint8_t>(area[ZOR_SSA_RESULT_FLAGS + slot]);
}

std::atomic_ref<std::uint32_t> ResultWord(unsigned char* area, std::uint32_t slot) {
    return TdlWord(area, ZOR_SSA_RESULTS + 4 * slot);
}

bool Elapsed(std::uint32_t t0, std::uint32_t ms) { return os::tick_ms() - t0 >= ms; }

void SleepUntil(std::uint32_t t0, std::uint32_t ms) {
    while (!Elapsed(t0, ms)) {
        const std::uint32_t left = ms - (os::tick_ms() - t0);
        os::sleep_ms(left < 10 ? left : 10);
    }
}

// SyncTDL by atomic exchange; test first so that a held word is only read.
bool Lock(unsigned char* area, std::uint32_t waitMs) {
    auto sync = TdlWord(area, ZOR_SSA_SYNC_TDL);
    const std::uint32_t t0 = os::tick_ms();
    for (std::uint32_t spins = 0;; ++spins) {
        if (sync.load(std::memory_order_relaxed) == 0 &&
            sync.exchange(1, std::memory_order_acquire) == 0)
            return true;
        if (Elapsed(t0, waitMs)) return false;
        if (spins >= kSpinsBeforeYield) std::this_thread::yield();
    }
}

void Unlock(unsigned char* area) {
    TdlWord(area, ZOR_SSA_SYNC_TDL).store(0, std::memory_order_release);
}

bool HasRoom(std::uint32_t used, std::uint32_t capacity, std::uint32_t need) {
    return used <= capacity && capacity - used >= need;
}

// First slot 1..1023 whose bit 0 is clear; its result word starts at 0 so
// that an entry dropped before it ran reads as 0.
std::uint32_t ReserveSlot(unsigned char* area) {
    for (std::uint32_t s = 1; s < ZOR_SSA_RESULT_SLOTS; ++s) {
        if ((FlagByte(area, s).fetch_or(1, std::memory_order_relaxed) & 1) == 0) {
            ResultWord(area, s).store(0, std::memory_order_relaxed);
            return s;
        }
    }
    return 0;
}

}  // namespace

// A copy that survives a bad source address (the bytes come from a
// module; a fault while SyncTDL is held would lock the queue for good).
namespace {
struct CopyJob {
    unsigned char* dst;
    const void* src;
    std::uint32_t size;
};

void CopyBody(void* ctx) {
    auto* job = static_cast<CopyJob*>(ctx);
    std::memcpy(job->dst, job->src, job->size);
}
}  // namespace

bool GuardedCopy(unsigned char* dst, const void* src, std::uint32_t size) {
    if (size == 0) return true;
    if (src == nullptr) return false;
    CopyJob job{dst, src, size};
    os::Fault fault{};
    return os::guarded_run(CopyBody, &job, &fault);
}

bool TdlAreaUsable(const unsigned char* area, std::uint32_t areaSize) {
    return area != nullptr && areaSize >= ZOR_SSA_QUEUE &&
           reinterpret_cast<std::uintptr_t>(area) % alignof(std::uint32_t) == 0;
}

std::uint32_t TdlCapacity(unsigned char* area, std::uint32_t areaSize) {
    const std::uint32_t real = areaSize - ZOR_SSA_QUEUE;
    const std::uint32_t word = TdlWord(area, ZOR_SSA_CAPACITY).load(std::memory_order_relaxed);
    return word < real ? word : real;
}

TdlStatus TdlAppend(unsigned char* area, std::uint32_t areaSize, std::uint32_t pid,
                    std::uint32_t module, std::uint32_t func, const void* data,
                    std::uint32_t size, bool wantResult, TdlTicket* ticket,
                    std::uint32_t waitMs) {
    *ticket = TdlTicket{};
    if (!TdlAreaUsable(area, areaSize)) return TdlStatus::kNoArea;
    const std::uint32_t capacity = TdlCapacity(area, areaSize);
    if (size > capacity || capacity - size < kTdlEntryHeader) return TdlStatus::kTooLarge;
    const std::uint32_t need = size + kTdlEntryHeader;

    auto used = TdlWord(area, ZOR_SSA_BYTES_USED);
    auto count = TdlWord(area, ZOR_SSA_ENTRY_COUNT);
    const std::uint32_t roomT0 = os::tick_ms();
    if (!HasRoom(used.load(std::memory_order_relaxed), capacity, need) &&
        count.load(std::memory_order_relaxed) != 0) {
        // A fixed wait, then failure: the caller does not retry on its own.
        SleepUntil(roomT0, waitMs);
        return TdlStatus::kTimeout;
    }
    if (!Lock(area, waitMs)) return TdlStatus::kTimeout;

    // Checked again under the lock: another writer may have filled the
    // queue since, and a client may have written anything into the words.
    const std::uint32_t at = used.load(std::memory_order_relaxed);
    if (!HasRoom(at, capacity, need)) {
        Unlock(area);
        SleepUntil(roomT0, waitMs);
        return TdlStatus::kTimeout;
    }
    unsigned char* entry = area + ZOR_SSA_QUEUE + at;
    if (!GuardedCopy(entry + kTdlEntryHeader, data, size)) {
        Unlock(area);
        return TdlStatus::kBadData;
    }
    TdlStatus status = TdlStatus::kQueued;
    std::uint32_t slot = 0;
    if (wantResult) {
        slot = ReserveSlot(area);
        if (slot == 0) status = TdlStatus::kQueuedNoSlot;
    }
    const ZorTdlEntry header{pid, module, 0, slot, func, size};
    std::memcpy(entry, &header, sizeof header);
    used.store(at + need, std::memory_order_relaxed);
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    ticket->slot = slot;
    ticket->offset = at;
    ticket->runCounter = TdlWord(area, ZOR_SSA_RUN_COUNTER).load(std::memory_order_relaxed);
    Unlock(area);
    return status;
}

bool TdlResultReady(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket) {
    if (!TdlAreaUsable(area, areaSize)) return false;
    // Acquire: the result word was stored before the counter advanced.
    return TdlWord(area, ZOR_SSA_RUN_COUNTER).load(std::memory_order_acquire) !=
           ticket.runCounter;
}

std::uint32_t TdlTakeResult(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket) {
    if (!TdlAreaUsable(area, areaSize) || ticket.slot == 0 ||
        ticket.slot >= ZOR_SSA_RESULT_SLOTS)
        return 0;
    const std::uint32_t r = ResultWord(area, ticket.slot).load(std::memory_order_acquire);
    FlagByte(area, ticket.slot).fetch_and(static_cast<std::uint8_t>(~1u),
                                          std::memory_order_release);
    return r;
}

namespace {

// Gives up a waiting request. False when its result was in fact ready.
bool Abandon(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket,
             std::uint32_t lockWaitMs) {
    if (ticket.slot == 0) return true;
    if (!Lock(area, lockWaitMs)) return true;  // slot stays reserved: see the header
    if (TdlResultReady(area, areaSize, ticket)) {
        Unlock(area);
        return false;
    }
    // No run since the entry was queued, so it is still where it was written.
    const std::uint32_t queueBytes = areaSize - ZOR_SSA_QUEUE;
    if (ticket.offset <= queueBytes && queueBytes - ticket.offset >= kTdlEntryHeader) {
        const std::uint32_t none = 0;
        std::memcpy(area + ZOR_SSA_QUEUE + ticket.offset + offsetof(ZorTdlEntry, result_index),
                    &none, sizeof none);
    }
    Unlock(area);
    FlagByte(area, ticket.slot).fetch_and(static_cast<std::uint8_t>(~1u),
                                          std::memory_order_release);
    return true;
}

// A waiter spins this long before it sleeps (a fast event source answers
// within microseconds): briefly where the dispatch thread can wake it,
// else it yields for a millisecond, then sleeps a millisecond at a time.
double SpinMs() { return os::word_wait_works() ? 0.05 : 1.0; }

}  // namespace

std::uint32_t TdlRunCount(unsigned char* area, std::uint32_t areaSize) {
    if (!TdlAreaUsable(area, areaSize)) return 0;
    return TdlWord(area, ZOR_SSA_RUN_COUNTER).load(std::memory_order_seq_cst);
}

// The sleepers word counts the waiters that went to sleep since the last
// run; the run that wakes them clears it (a waiter never takes itself off).
// It is client-writable: a wrong count costs at most one wake per run, never
// a wait past maxMs.
bool TdlSleepUntilRun(unsigned char* area, std::uint32_t areaSize, std::uint32_t seen, std::uint32_t maxMs) {
    if (!os::word_wait_works() || !TdlAreaUsable(area, areaSize)) return false;
    auto counter = TdlWord(area, ZOR_SSA_RUN_COUNTER);
    auto sleepers = TdlWord(area, ZOR_SSA_SLEEPERS);
    // A run since `seen`: no sleep, and no sleeper for the dispatch thread
    // to wake with a system call.
    if (counter.load(std::memory_order_seq_cst) != seen) return true;
    sleepers.fetch_add(1, std::memory_order_seq_cst);
    if (counter.load(std::memory_order_seq_cst) == seen)
        os::word_wait(reinterpret_cast<std::uint32_t*>(area + ZOR_SSA_RUN_COUNTER), seen, maxMs);
    return true;
}

bool TdlWait(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket,
             std::uint32_t limitMs, std::uint32_t lockWaitMs, std::uint32_t* result) {
    *result = 0;
    if (!TdlAreaUsable(area, areaSize)) return false;
    const std::uint32_t t0 = os::tick_ms();
    const double start = os::now_ms();
    for (;;) {
        const std::uint32_t runs = TdlRunCount(area, areaSize);
        if (TdlResultReady(area, areaSize, ticket)) {
            *result = TdlTakeResult(area, areaSize, ticket);
            return true;
        }
        if (Elapsed(t0, limitMs)) break;
        if (os::now_ms() - start < SpinMs())
            os::word_wait_works() ? os::spin_pause() : std::this_thread::yield();
        else if (!TdlSleepUntilRun(area, areaSize, runs, 10))
            os::sleep_ms(1);
    }
    if (!Abandon(area, areaSize, ticket, lockWaitMs)) {
        *result = TdlTakeResult(area, areaSize, ticket);
        return true;
    }
    return false;
}

}  // namespace zor
