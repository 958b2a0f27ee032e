// The flight recorder: the last events in a ring that other processes may
// read (layout in zor/zor_trace.h). The hooks run on the dispatch thread and
// write the ring with plain stores: no lock, no allocation, no system call,
// no clock reading of their own (they take the dispatch loop's readings).
// Without a ring every hook is one test of a null pointer.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"
#include "zor/zor_trace.h"

namespace zor {

class Logger;

class FlightRecorder {
public:
    explicit FlightRecorder(Logger& log) : log_(log) {}
    ~FlightRecorder() { Release(); }
    FlightRecorder(const FlightRecorder&) = delete;
    FlightRecorder& operator=(const FlightRecorder&) = delete;

    // Creates "Local\ZOR.trace.<pid>" for `events` records (0: no recorder;
    // others are held to ZOR_TRACE_MIN_EVENTS..ZOR_TRACE_MAX_EVENTS). A name
    // that already exists is refused and logged: the host runs without it.
    bool Publish(std::uint32_t events);
    void Release();
    const ZorTrace* Area() const { return area_.load(std::memory_order_acquire); }
    std::size_t AreaBytes() const { return bytes_; }

    // The IRQ driver's lateness export, or null (no driver, or one that does
    // not know its deadline). Set while no event is delivered.
    void SetLatenessSource(ZorLatenessProc proc) { lateness_.store(proc, std::memory_order_release); }

    // Dispatch thread. An event: Begin at arrival, Deferred when the first
    // call starts, one Call per ISR call, End after the last one.
    void Begin(std::uint32_t sequence, double arrivalMs, std::uint32_t calls) {
        ZorTrace* t = area_.load(std::memory_order_acquire);
        if (!t) {
            cur_ = nullptr;
            room_ = 0;
            return;
        }
        Claim(t, calls);
        const ZorLatenessProc late = lateness_.load(std::memory_order_acquire);
        sequence_ = sequence;
        lateNs_ = late ? late() : ZOR_TRACE_LATE_UNKNOWN;
        arrivalMs_ = deferredMs_ = arrivalMs;
    }
    void Deferred(double startMs) { deferredMs_ = startMs; }
    // One ISR call, as the clock readings that began and ended it. Stores
    // only: arithmetic here would hold up the next call's clock reading
    // until it is done. Without a record the room is 0: one comparison.
    void Call(std::uint32_t slot, double startMs, double endMs, std::uint32_t flags) {
        if (calls_ >= room_) return;
        std::uint64_t* w = callWords_ + kCallWords * calls_++;
        Put(w[0], __builtin_bit_cast(std::uint64_t, startMs));
        Put(w[1], __builtin_bit_cast(std::uint64_t, endMs));
        Put(w[2], slot | flags << 16);
    }
    void End(double endMs);

private:
    static constexpr std::uint32_t kCallWords = sizeof(ZorTraceRingCall) / 8;
    static std::uint32_t Ns(double ms) {
        const double ns = ms * 1e6;
        return ns <= 0 ? 0u : ns >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(ns);
    }
    static void Put(std::uint64_t& w, std::uint64_t v) {
        std::atomic_ref<std::uint64_t>(w).store(v, std::memory_order_release);
    }
    // Room for a record of `calls` calls at the next position; the claim is
    // published before any of its bytes is written. Records never wrap: one
    // that would pass the ring's end starts at its beginning. Positions are
    // absolute, so that a reader compares them directly with the claim.
    void Claim(ZorTrace* t, std::uint32_t calls) {
        room_ = calls < ZOR_TRACE_MAX_CALLS ? calls : ZOR_TRACE_MAX_CALLS;
        const std::uint32_t need = ZOR_TRACE_RECORD_BYTES + room_ * sizeof(ZorTraceRingCall);
        if (nextOffset_ + need > dataBytes_) {
            next_ += dataBytes_ - nextOffset_;
            nextOffset_ = 0;
        }
        std::atomic_ref<std::uint64_t>(t->claimed).store(next_ + need, std::memory_order_release);
        cur_ = reinterpret_cast<std::uint64_t*>(data_ + nextOffset_);
        callWords_ = cur_ + ZOR_TRACE_RECORD_BYTES / 8;
        calls_ = 0;
    }

    Logger& log_;
    std::atomic<ZorTrace*> area_{nullptr};
    std::atomic<ZorLatenessProc> lateness_{nullptr};
    std::size_t bytes_ = 0;
    os::Handle mapping_ = 0;
    char16_t name_[40] = {};
    // Fixed while published.
    std::uint64_t* index_ = nullptr;
    unsigned char* data_ = nullptr;
    std::uint32_t capacity_ = 0, dataBytes_ = 0;
    // Dispatch thread only.
    std::uint64_t* cur_ = nullptr;     // the record being written
    std::uint64_t* callWords_ = nullptr;
    std::uint64_t next_ = 0;           // absolute position of cur_ / the next record
    std::uint32_t nextOffset_ = 0;     // the same within the ring
    std::uint64_t number_ = 0;         // records completed
    std::uint32_t indexSlot_ = 0;      // number_ % capacity_
    std::uint32_t room_ = 0, calls_ = 0, sequence_ = 0, lateNs_ = 0;
    double arrivalMs_ = 0, deferredMs_ = 0;
};

}  // namespace zor
