// The writer side of the deferred list in the system shared area: queueing
// an ExecISRFunc request, reserving an async result slot, and waiting for
// the request's run. Usable from any process that maps the area (it needs
// only the OS layer, no Host), so the client library shares it with the host.
//
// The area is memory that other processes write: every word of it may hold
// anything. Every access here is bounded by `areaSize`, the size the caller
// really mapped; the capacity word counts only when it is smaller than what
// is really there. Shared words are accessed with std::atomic_ref.
//
// Waiting rules (all time-outs on the 32-bit millisecond tick):
//  - room: when the request does not fit behind the queued bytes and the
//    queue is not empty, the writer waits `waitMs` once, without looking
//    again, and fails (the queue is emptied at the next event; the caller
//    decides whether to try again);
//  - SyncTDL: taken by atomic exchange, spinning (yielding after a few
//    rounds) for at most `waitMs`;
//  - completion (TdlWait): the run counter, read while the entry was
//    queued under SyncTDL, changes at the end of the first run that sees the
//    entry; that run has then executed the entry (or dropped it behind an
//    invalid module number, in which case the cleared result word reads 0).
#pragma once

#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace zor {

enum class TdlStatus : std::uint32_t {
    kQueued,        // queued; with a result slot when one was wanted
    kQueuedNoSlot,  // queued, but all 1023 result slots were reserved
    kTooLarge,      // 24 + size exceeds the queue's capacity
    kTimeout,       // no room, or SyncTDL held, for the whole wait
    kNoArea,        // no usable area (null, misaligned, smaller than its header)
    kBadData,       // the argument bytes could not be read; nothing queued
};

// What a queued request needs to collect its result.
struct TdlTicket {
    std::uint32_t slot = 0;        // reserved async result slot, 0 = none
    std::uint32_t runCounter = 0;  // run counter while the entry was queued
    std::uint32_t offset = 0;      // the entry's offset in the queue
};

constexpr std::uint32_t kTdlEntryHeader = sizeof(ZorTdlEntry);  // 24

// A shared 32-bit word of the area at a 4-aligned offset.
inline std::atomic_ref<std::uint32_t> TdlWord(unsigned char* area, std::uint32_t offset) {
    return std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(area + offset));
}

// Copies `size` bytes; false (nothing promised about dst) when the source
// cannot be read, instead of faulting.
bool GuardedCopy(unsigned char* dst, const void* src, std::uint32_t size);

// True when `area` can hold the fixed header of the system shared area.
bool TdlAreaUsable(const unsigned char* area, std::uint32_t areaSize);
// The queue capacity the writer honours: the capacity word, but never more
// than the bytes really behind the header.
std::uint32_t TdlCapacity(unsigned char* area, std::uint32_t areaSize);

// Queues {pid, module, 0, slot, func, size, data}. With `wantResult` a free
// result slot (1..1023) is reserved and its result word cleared.
TdlStatus TdlAppend(unsigned char* area, std::uint32_t areaSize, std::uint32_t pid,
                    std::uint32_t module, std::uint32_t func, const void* data,
                    std::uint32_t size, bool wantResult, TdlTicket* ticket,
                    std::uint32_t waitMs);

// True once a run has passed over the ticket's entry.
bool TdlResultReady(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket);
// How many times the list has run (0 for an unusable area). Read it before
// looking for a result, and sleep on that reading: a run that ends between
// the look and the sleep then ends the sleep at once.
std::uint32_t TdlRunCount(unsigned char* area, std::uint32_t areaSize);
// Sleeps until the list has run again since `seen`, at most maxMs, counted
// among the sleepers that the dispatch thread wakes. False at once where the
// system cannot wake a sleeper of another process (Windows): poll there.
bool TdlSleepUntilRun(unsigned char* area, std::uint32_t areaSize, std::uint32_t seen, std::uint32_t maxMs);
// The result word of the ticket's slot (0 without a slot); frees the slot.
std::uint32_t TdlTakeResult(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket);

// Waits until the entry has run, then takes its result into *result and
// returns true. Polls the shared words afresh every round (yielding for the
// first millisecond, then sleeping 1 ms). After `limitMs` it gives up: under
// SyncTDL (waited for at most `lockWaitMs`) the queued entry's slot is
// cleared so that its later run cannot write into a slot that has been
// handed to someone else, the slot is freed, and false is returned. When
// SyncTDL cannot be taken either, the slot stays reserved (lost, but never
// written behind another requester's back).
bool TdlWait(unsigned char* area, std::uint32_t areaSize, const TdlTicket& ticket,
             std::uint32_t limitMs, std::uint32_t lockWaitMs, std::uint32_t* result);

}  // namespace zor
